#pragma once

#include <compare>
#include <cstring>
#include <iosfwd>
#include <iterator>
#include <string>
#include <string_view>

#include "Kop/Types.h"

namespace Kop {

// Set once at start-up, before a second thread exists: whether reference counts are changed
// by atomic operations. Off by default.
KOP_EXPORT void threadSafePtrsIs(bool on);
KOP_EXPORT extern bool threadSafePtrs_;  // read through threadSafePtrs()
inline bool threadSafePtrs() {
  return threadSafePtrs_;
}

// An immutable run of bytes, cheap to copy: up to 15 bytes stand in the object itself,
// longer ones in a counted block that copies share. Any byte may occur, also NUL.
//
// Layout   16 bytes. The last byte is 15 minus the size of a short string (so that it ends a
//          full one as its NUL), or 0xff when bytes 0-7 point to the block and 8-11 hold
//          the size. May be moved by copying its bytes.
// Widths   sizes are 32 bits; a longer one is a std::length_error.
// Threads  as for counted pointers: copies may be taken and dropped on several threads while
//          threadSafePtrs() is on.
class KOP_EXPORT String {
 public:
  // Random access over the bytes. A class of its own, so that two `const char*` are never
  // taken for the pair of iterators from which values are parsed.
  class IteratorConst {
   public:
    using iterator_category = std::random_access_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    constexpr IteratorConst() = default;
    constexpr explicit IteratorConst(const char* at) : at_(at) {}
    constexpr const char* at() const { return at_; }
    constexpr reference operator*() const { return *at_; }
    constexpr reference operator[](difference_type n) const { return at_[n]; }
    constexpr IteratorConst& operator++() { return ++at_, *this; }
    constexpr IteratorConst& operator--() { return --at_, *this; }
    constexpr IteratorConst operator++(int) { return IteratorConst(at_++); }
    constexpr IteratorConst operator--(int) { return IteratorConst(at_--); }
    constexpr IteratorConst& operator+=(difference_type n) { return at_ += n, *this; }
    constexpr IteratorConst& operator-=(difference_type n) { return at_ -= n, *this; }
    friend constexpr IteratorConst operator+(IteratorConst it, difference_type n) {
      return it += n;
    }
    friend constexpr IteratorConst operator+(difference_type n, IteratorConst it) {
      return it += n;
    }
    friend constexpr IteratorConst operator-(IteratorConst it, difference_type n) {
      return it -= n;
    }
    friend constexpr difference_type operator-(IteratorConst a, IteratorConst b) {
      return a.at_ - b.at_;
    }
    constexpr auto operator<=>(const IteratorConst&) const = default;

   private:
    const char* at_ = nullptr;
  };

  String() noexcept { shortIs(0); }
  String(const char* text) : String(text, text ? std::strlen(text) : 0) {}  // null: empty
  String(const char* bytes, std::size_t size) {
    if (size <= maxShort) {
      shortIs(size);
      if (size > 0) std::memcpy(raw_, bytes, size);
    } else {
      longIs(bytes, size);
    }
  }
  String(std::string_view text) : String(text.data(), text.size()) {}
  String(const std::string& text) : String(text.data(), text.size()) {}
  String(const String& other) noexcept {
    std::memcpy(raw_, other.raw_, sizeof raw_);
    if (isLong()) blockInc();
  }
  String(String&& other) noexcept {
    std::memcpy(raw_, other.raw_, sizeof raw_);
    other.shortIs(0);
  }
  String& operator=(const String& other) noexcept {
    String copy(other);
    swap(copy);
    return *this;
  }
  String& operator=(String&& other) noexcept {
    swap(other);
    return *this;
  }
  ~String() {
    if (isLong()) blockDec();
  }
  void swap(String& other) noexcept {
    char kept[sizeof raw_];
    std::memcpy(kept, raw_, sizeof raw_);
    std::memcpy(raw_, other.raw_, sizeof raw_);
    std::memcpy(other.raw_, kept, sizeof raw_);
  }

  U32 size() const {
    if (!isLong()) return maxShort - static_cast<U8>(raw_[maxShort]);
    U32 size;
    std::memcpy(&size, raw_ + 8, sizeof size);
    return size;
  }
  bool empty() const { return size() == 0; }
  const char* data() const { return isLong() ? block() + blockHead : raw_; }
  const char* c_str() const { return data(); }  // NUL behind the last byte
  operator std::string_view() const { return {data(), size()}; }
  IteratorConst begin() const { return IteratorConst(data()); }
  IteratorConst end() const { return IteratorConst(data() + size()); }

  // One-at-a-time over the bytes: the system's only string hash.
  U32 hash() const;

  friend bool operator==(const String& a, const String& b) {
    const U32 n = a.size();
    return n == b.size() && std::memcmp(a.data(), b.data(), n) == 0;
  }
  friend bool operator==(const String& a, const char* b) {
    return std::string_view(a) == std::string_view(b);
  }
  friend bool operator==(const String& a, const std::string& b) {
    return std::string_view(a) == std::string_view(b);
  }
  friend bool operator==(const String& a, std::string_view b) {
    return std::string_view(a) == b;
  }
  // Shorter first, then bytes as unsigned: the order of names in the whole system.
  friend std::strong_ordering operator<=>(const String& a, const String& b) {
    const U32 n = a.size(), m = b.size();
    if (n != m) return n <=> m;
    return std::memcmp(a.data(), b.data(), n) <=> 0;
  }

 private:
  static constexpr U32 maxShort = 15;
  static constexpr U8 longMark = 0xff;
  static constexpr U32 blockHead =
      8;  // U32 count, 4 unused bytes, then the text and a NUL

  bool isLong() const { return static_cast<U8>(raw_[maxShort]) == longMark; }
  void shortIs(std::size_t size) {
    std::memset(raw_, 0, sizeof raw_);
    raw_[maxShort] = static_cast<char>(maxShort - size);
  }
  char* block() const {
    char* block;
    std::memcpy(&block, raw_, sizeof block);
    return block;
  }
  void longIs(const char* bytes, std::size_t size);  // throws std::length_error
  void blockInc() const noexcept;
  void blockDec() noexcept;

  alignas(8) char raw_[16];
};

KOP_EXPORT std::ostream& operator<<(std::ostream& out, const String& text);  // bare bytes

// printf into a String. A String argument is given by c_str() and ends at its first NUL.
[[gnu::format(printf, 1, 2)]] KOP_EXPORT String stringPrintf(const char* format, ...);

}  // namespace Kop
