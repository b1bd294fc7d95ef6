#pragma once

#include <algorithm>
#include <compare>
#include <concepts>
#include <cstring>
#include <type_traits>
#include <utility>

#include "Drem/Error.h"
#include "Kop/Assert.h"
#include "Kop/NboAttrLog.h"
#include "Kop/Text.h"

namespace Kop {

// Up to N elements that stand in the object itself, so that an entry of a shared table is
// copied as its bytes. Indices are small values that check their range themselves: an integer
// or a class with value().
//
// Layout   U32 count, then N slots. Only the first `count` slots are elements; the others
//          keep what they held and take no part in comparisons.
// Order    element by element, then the shorter array.
// Text     bytes as a quoted string, other elements as [a, b].
// Log      all N slots without the count, those behind the count as default elements. An
//          array that is read therefore has N elements.
// Errors   Drem::InvalidSizeException for more than N elements in a buffer,
//          Kop::RangeException in text. An index of N or above is an assertion.
template <class T, class Index, U32 N>
class PodArray {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  using Element = T;
  using IndexType = Index;
  static constexpr U32 capacity = N;

  // Walks the elements. It stands at a place: when the element there is removed, it shows
  // the default one that took the place, or is at the end.
  class IteratorConst {
   public:
    constexpr explicit operator bool() const { return at_ < array_->count(); }
    constexpr Index key() const { return Index(static_cast<IndexNumber>(at_)); }
    constexpr const T& value() const { return array_->data()[at_]; }
    constexpr void advance() { ++at_; }

   private:
    friend PodArray;
    constexpr explicit IteratorConst(const PodArray& array) : array_(&array) {}
    const PodArray* array_;
    U32 at_ = 0;
  };

  constexpr PodArray() = default;
  PodArray(TextIt& it, const TextIt& end);
  explicit PodArray(NboAttrLog::In& in);

  constexpr U32 count() const { return count_; }
  constexpr bool empty() const { return count_ == 0; }
  constexpr const T* data() const { return slots_; }
  constexpr const T* begin() const { return slots_; }
  constexpr const T* end() const { return slots_ + count_; }
  constexpr IteratorConst iteratorConst() const { return IteratorConst(*this); }

  // The element, or a default one when the index is not below the count.
  constexpr T get(const Index& index) const {
    const U32 i = number(index);
    return i < count_ ? slots_[i] : T{};
  }
  // Writes the slot. An index that is not below the count makes it the last element; slots
  // that are skipped over become elements with what they held.
  constexpr void set(const Index& index, const T& element) {
    const U32 i = number(index);
    slots_[i] = element;
    count_ = std::max(count_, i + 1);
  }
  // Takes the elements of a record. The count is the record's own and not to be trusted, nor
  // must an error's dump read beyond it: `bytesLeft` says how many bytes of the record are
  // behind `bytes`. It bounds nothing else: for a count of at most N the caller vouches.
  void set(const void* bytes, U32 count, std::size_t bytesLeft) {
    if (count > N) throwTooMany(bytes, count, bytesLeft);
    std::size_t size = std::size_t{count} * sizeof(T);
    // g++ copies what it knows to be small by `rep movs`, which takes longer to start than a
    // call of memcpy takes in all: it must not know.
    __asm__("" : "+r"(size));
    if (size > 0) std::memcpy(static_cast<void*>(slots_), bytes, size);
    count_ = count;
  }
  // Removes and returns an element, a default one when the index is not below the count. The
  // last element goes together with default ones before it; another becomes a default one.
  constexpr T del(const Index& index) {
    const U32 i = number(index);
    if (i >= count_) return T{};
    const T element = slots_[i];
    if (i + 1 < count_)
      slots_[i] = T{};
    else
      for (count_ = i; count_ > 0 && slots_[count_ - 1] == T{};)
        --count_;
    return element;
  }
  constexpr T del(const IteratorConst& it) { return it ? del(it.key()) : T{}; }
  // As del() of every index in order: all slots but the last element's become default.
  constexpr void delAll() {
    for (U32 i = 0; i + 1 < count_; ++i)
      slots_[i] = T{};
    count_ = 0;
  }

  friend constexpr bool operator==(const PodArray& a, const PodArray& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
  }
  friend constexpr bool operator<(const PodArray& a, const PodArray& b) {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end());
  }

 private:
  static constexpr bool isBytes = std::same_as<T, U8>;

  // What an index holds.
  template <class I>
  struct NumberOf {
    using Type = I;
  };
  template <class I>
    requires requires(I i) {
      i.value();
    }
  struct NumberOf<I> {
    using Type = std::remove_cvref_t<decltype(std::declval<I>().value())>;
  };
  using IndexNumber = typename NumberOf<Index>::Type;

  static constexpr U32 number(const Index& index) {
    U32 i;
    if constexpr (requires { index.value(); })
      i = static_cast<U32>(index.value());
    else
      i = static_cast<U32>(index);
    KOP_ASSERT(i < N, "index < capacity", "Kop/PodArray");
    return i;
  }
  [[noreturn, gnu::cold]] static void throwTooMany(const void* bytes,
                                                   U32 count,
                                                   std::size_t bytesLeft) {
    const std::size_t wanted = std::size_t{count} * sizeof(T);
    Drem::fmthrow<Drem::InvalidSizeException>(
        "PodArray", "set",
        "expected size <= {}, instead got {}. Buffer is at address: {} with contents: {}",
        N, count, bytes, Drem::dumpHex(bytes, std::min(wanted, bytesLeft)));
  }
  void append(const T& element) {
    if (count_ == N) throwTextTooLong();
    slots_[count_++] = element;
  }
  [[noreturn, gnu::cold]] static void throwTextTooLong() {
    throw RangeException(stringPrintf("more than %u elements", N));
  }

  U32 count_ = 0;
  T slots_[N] = {};
};

template <class T, class Index, U32 N>
PodArray<T, Index, N>::PodArray(TextIt& it, const TextIt& end) {
  TextIt at = it;
  if constexpr (isBytes) {
    const String bytes = readAttr<String>(at, end, "PodArray");
    if (bytes.size() > N) throwTextTooLong();
    set(bytes.data(), bytes.size(), bytes.size());
  } else {
    needString(at, end, "[");
    while (at != end && *at != ']') {
      if (count_ > 0) needString(at, end, ", ");
      if constexpr (BuiltIn<T>)
        append(readAttr<T>(at, end, "PodArray"));
      else
        append(T(at, end));
    }
    needString(at, end, "]");
  }
  it = at;
}

template <class T, class Index, U32 N>
PodArray<T, Index, N>::PodArray(NboAttrLog::In& in) : count_(N) {
  if constexpr (isBytes)
    in.nextBytes(slots_, N);
  else
    for (T& slot : slots_) {
      if constexpr (BuiltIn<T>)
        slot = NboAttrLog::read<T>(in);
      else
        slot = T(in);
    }
}

template <class T, class Index, U32 N>
void strepWrite(TextOut& out, const PodArray<T, Index, N>& array) {
  if constexpr (std::same_as<T, U8>) {
    strepWriteQuoted(out, {reinterpret_cast<const char*>(array.data()), array.count()});
  } else {
    out.append('[');
    std::string_view separator = "";
    for (const T& element : array) {
      out.append(separator);
      strepWrite(out, element);
      separator = ", ";
    }
    out.append(']');
  }
}

template <class T, class Index, U32 N>
NboAttrLog::Out& operator<<(NboAttrLog::Out& out, const PodArray<T, Index, N>& array) {
  const auto write = [&](const T& element) {
    if constexpr (BuiltIn<T>)
      NboAttrLog::write(out, element);
    else
      out << element;
  };
  for (U32 i = 0; i < N; ++i)
    write(i < array.count() ? array.data()[i] : T{});
  return out;
}

template <class T, class Index, U32 N>
U32 attrLogSize(const PodArray<T, Index, N>&) {
  if constexpr (BuiltIn<T>)
    return N * sizeof(T);
  else
    return N * attrLogSize(T{});
}

}  // namespace Kop
