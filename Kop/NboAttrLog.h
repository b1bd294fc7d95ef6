#pragma once

#include <bit>
#include <cstring>

#include "Kop/Text.h"
#include "Kop/Types.h"

// The byte encodings of the attribute log, network byte order:
//   bool                    1 byte, 0 or 1 (any other byte reads as true)
//   U8, U16, U32, U64       1, 2, 4, 8 bytes, big-endian
//   float                   its IEEE bits as U32
//   String                  U32 length, then the bytes
//   enumeration             U32, cut to its storage width when read
//   hash collection         U32 count, then each key (and value) in iteration order
//   value                   its stored attributes in declaration order
// Readers and writers are named by width and not overloaded: an enumeration would convert.

namespace Kop::NboAttrLog {

// Bytes under way to a peer. Grows at the end, is consumed from the front.
class KOP_EXPORT Out {
 public:
  Out() = default;
  ~Out() { delete[] begin_; }
  Out(const Out&) = delete;
  Out& operator=(const Out&) = delete;

  void writebool(bool value) { writeU8(value); }
  void writeU8(U8 value) { *room(1) = value; }
  void writeU16(U16 value) { store(__builtin_bswap16(value)); }
  void writeU32(U32 value) { store(__builtin_bswap32(value)); }
  void writeU64(U64 value) { store(static_cast<U64>(__builtin_bswap64(value))); }
  void writefloat(float value) { writeU32(std::bit_cast<U32>(value)); }
  void writeBytes(const void* bytes, std::size_t size) {
    if (size > 0) std::memcpy(room(size), bytes, size);
  }
  void writeString(std::string_view text) {
    writeU32(static_cast<U32>(text.size()));
    writeBytes(text.data(), text.size());
  }

  const U8* data() const { return begin_ + head_; }
  std::size_t size() const { return tail_ - head_; }
  bool empty() const { return head_ == tail_; }
  std::size_t memory() const { return capacity_; }

  // Drops bytes that were sent; gives a large buffer back once it is empty.
  void consume(std::size_t size);
  void clear() { head_ = tail_ = 0; }
  // Takes back what was written behind size(); for a message that is given up half-way.
  void truncate(std::size_t size) { tail_ = head_ + size; }
  // Overwrites 4 bytes at an offset from data().
  void patchU32(std::size_t offset, U32 value) {
    const U32 swapped = __builtin_bswap32(value);
    std::memcpy(begin_ + head_ + offset, &swapped, sizeof swapped);
  }

 private:
  U8* room(std::size_t size) {
    if (capacity_ - tail_ < size) grow(size);
    U8* at = begin_ + tail_;
    tail_ += size;
    return at;
  }
  template <class Word>
  void store(Word word) {
    std::memcpy(room(sizeof word), &word, sizeof word);
  }
  void grow(std::size_t size);

  U8* begin_ = nullptr;
  std::size_t head_ = 0, tail_ = 0, capacity_ = 0;
};

// Reads a run of bytes that it does not own.
// Errors   LogCorruptException when the bytes end early; nothing is allocated before the
//          bytes that justify it are known to be there.
class KOP_EXPORT In {
 public:
  In(const void* bytes, std::size_t size)
      : begin_(static_cast<const U8*>(bytes)), at_(begin_), end_(begin_ + size) {}

  bool nextbool() { return nextU8() != 0; }
  U8 nextU8() { return *take(1); }
  U16 nextU16() { return __builtin_bswap16(load<U16>()); }
  U32 nextU32() { return __builtin_bswap32(load<U32>()); }
  U64 nextU64() { return static_cast<U64>(__builtin_bswap64(load<U64>())); }
  float nextfloat() { return std::bit_cast<float>(nextU32()); }
  String nextString() {
    const U32 size = nextU32();
    const U8* bytes = take(size);
    return String(reinterpret_cast<const char*>(bytes), size);
  }
  void nextBytes(void* to, std::size_t size) {
    const U8* bytes = take(size);
    if (size > 0) std::memcpy(to, bytes, size);
  }

  // The entity identity at the read position, which stays where it is.
  U64 peekEntityIdentity() const { return In(at_, remaining()).nextU64(); }

  const U8* at() const { return at_; }
  std::size_t remaining() const { return static_cast<std::size_t>(end_ - at_); }
  std::size_t offset() const { return static_cast<std::size_t>(at_ - begin_); }
  bool atEnd() const { return at_ == end_; }
  void skip(std::size_t size) { take(size); }

 private:
  const U8* take(std::size_t size) {
    if (remaining() < size) throwShort(size);
    const U8* at = at_;
    at_ += size;
    return at;
  }
  template <class Word>
  Word load() {
    Word word;
    std::memcpy(&word, take(sizeof word), sizeof word);
    return word;
  }
  [[noreturn]] void throwShort(std::size_t wanted) const;

  const U8* begin_;
  const U8* at_;
  const U8* end_;
};

// Built-ins at their own width, for code that does not know the type.
template <BuiltIn T>
void write(Out& out, const T& value) {
  if constexpr (std::same_as<T, String>)
    out.writeString(value);
  else if constexpr (std::same_as<T, float>)
    out.writefloat(value);
  else if constexpr (std::same_as<T, U16>)
    out.writeU16(value);
  else if constexpr (std::same_as<T, U32>)
    out.writeU32(value);
  else if constexpr (std::same_as<T, U64>)
    out.writeU64(value);
  else
    out.writeU8(value);
}

template <BuiltIn T>
T read(In& in) {
  if constexpr (std::same_as<T, String>)
    return in.nextString();
  else if constexpr (std::same_as<T, float>)
    return in.nextfloat();
  else if constexpr (std::same_as<T, U16>)
    return in.nextU16();
  else if constexpr (std::same_as<T, U32>)
    return in.nextU32();
  else if constexpr (std::same_as<T, U64>)
    return in.nextU64();
  else if constexpr (std::same_as<T, bool>)
    return in.nextbool();
  else
    return in.nextU8();
}

}  // namespace Kop::NboAttrLog
