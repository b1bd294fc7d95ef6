#pragma once

#include <bit>
#include <string_view>
#include <type_traits>

#include "Kop/String.h"
#include "Kop/Types.h"

// 32-bit hashes. Both forms below are Jenkins' one-at-a-time fold, low byte first; all
// arithmetic is modulo 2 to the 32nd.

namespace Kop {

namespace HashStep {
constexpr U32 fold(U32 h, U8 byte) {
  h += byte;
  h += h << 10;
  return h ^ h >> 6;
}
constexpr U32 finish(U32 h) {
  h += h << 3;
  h ^= h >> 11;
  return h + (h << 15);
}
template <class Word>
constexpr U32 foldWord(U32 h, Word word) {
  for (std::size_t i = 0; i < sizeof word; ++i)
    h = fold(h, static_cast<U8>(word >> (8 * i)));
  return h;
}
}  // namespace HashStep

// The bare hash: starts at 0, no seed, no length.
class OneAtATime {
 public:
  constexpr OneAtATime& byte(U8 value) { return h_ = HashStep::fold(h_, value), *this; }
  constexpr OneAtATime& u16(U16 word) { return h_ = HashStep::foldWord(h_, word), *this; }
  constexpr OneAtATime& u32(U32 word) { return h_ = HashStep::foldWord(h_, word), *this; }
  constexpr OneAtATime& u64(U64 word) { return h_ = HashStep::foldWord(h_, word), *this; }
  constexpr OneAtATime& bytes(const U8* data, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i)
      byte(data[i]);
    return *this;
  }
  constexpr U32 result() const { return HashStep::finish(h_); }

 private:
  U32 h_ = 0;
};

// The accumulator of records: starts at the seed, folds each item at its width, then the
// total length in bytes as 4 bytes. The functions are named by width, because overloads
// would follow integer promotion and change it.
class Hash {
 public:
  constexpr explicit Hash(U32 seed) : h_(seed) {}
  constexpr void mix8(U8 value) { mix(value); }
  constexpr void mix16(U16 value) { mix(value); }
  constexpr void mix32(U32 value) { mix(value); }
  constexpr void mix64(U64 value) { mix(value); }
  constexpr void mixString(std::string_view text) {
    for (const char c : text)
      h_ = HashStep::fold(h_, static_cast<U8>(c));
    length_ += static_cast<U32>(text.size());
  }
  constexpr U32 result() const {
    return HashStep::finish(HashStep::foldWord(h_, length_));
  }

 private:
  template <class Word>
  constexpr void mix(Word word) {
    h_ = HashStep::foldWord(h_, word);
    length_ += sizeof word;
  }
  U32 h_;
  U32 length_ = 0;
};

constexpr U32 hashString(std::string_view text) {
  U32 h = 0;
  for (const char c : text)
    h = HashStep::fold(h, static_cast<U8>(c));
  return HashStep::finish(h);
}

// Random once per process; KOP_HASH_SEED in the environment (decimal or 0x...) fixes it.
KOP_EXPORT U32 hashSeed32();

// Integer keys that are not enumerations, with a constant per key type.
constexpr U32 hashInt32(U32 value, U32 constant) {
  U32 h = value ^ constant;
  h = (h ^ h >> 16) * 0x7feb352d;
  h = (h ^ h >> 15) * 0x846ca68b;
  return h ^ h >> 16;
}

// -0.0 equals 0.0, so both must have one image.
constexpr U32 floatBits(float value) {
  return std::bit_cast<U32>(value == 0 ? 0.0f : value);
}

// The hash of a lone attribute at its own width; a type with a hash() of its own is mixed by
// that hash, as 4 bytes.
template <class T>
U32 hashSingleAttr(const T& value, U32 seed) {
  Hash hash(seed);
  if constexpr (std::is_same_v<T, String>)
    hash.mixString(value);
  else if constexpr (std::is_same_v<T, float>)
    hash.mix32(floatBits(value));
  else if constexpr (sizeof(T) == 1 && (std::is_integral_v<T> || std::is_enum_v<T>))
    hash.mix8(static_cast<U8>(value));
  else if constexpr (sizeof(T) == 2 && std::is_integral_v<T>)
    hash.mix16(value);
  else if constexpr (sizeof(T) == 4 && (std::is_integral_v<T> || std::is_enum_v<T>))
    hash.mix32(static_cast<U32>(value));
  else if constexpr (sizeof(T) == 8 && std::is_integral_v<T>)
    hash.mix64(value);
  else
    hash.mix32(value.hash());
  return hash.result();
}

}  // namespace Kop
