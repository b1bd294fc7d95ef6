#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "Kop/Types.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

// The array of hash words that a HashMap2018 searches.
//
// A slot's word is
//   live    the key's mixed hash: a multiple of four
//   ghost   the word of an entry that was erased, with bit 0 set: keeps the order and the
//           reach of the entries behind it, but may be overwritten
//   empty   the largest number: ends every search
// so that "free" is one bit, and "the search is over" is one signed comparison: the vector
// instructions of the older machines compare signed words only. Every function may read up
// to 15 words behind the last slot, which are always empty.

namespace Kop::HashWords {

using Word = std::int32_t;

inline constexpr Word emptyWord = INT32_MAX;
inline constexpr std::size_t padding = 16;  // empty words behind the last slot

// One multiplication spreads the hash over the high bits, which alone choose the place. The
// lowest two bits are given up: one for the ghosts, one so that no word is the empty one.
inline U32 mixed(U32 hash) {
  return hash * 0x9E3779B1u & ~3u;
}
inline U32 mixedOf(Word word) {
  return (static_cast<U32>(word) ^ 0x80000000u) & ~3u;
}
inline Word wordOf(U32 hash) {
  return static_cast<Word>(mixed(hash) ^ 0x80000000u);
}
inline bool isFree(Word word) {
  return word & 1;
}
inline bool isGhost(Word word) {
  return (word & 1) && word != emptyWord;
}

// equal8 tells which of eight slots hold a live entry of that word, behind8 which are ordered
// after it or empty; bit i stands for slot i. From the home of a word on, the first slot that
// is behind it ends the search, so all later ones are, too, and seven tells of any.
inline bool endsIn8(const Word* at, Word word) {
  return at[7] > (word | 1);
}
#ifdef __SSE2__
inline __m128i load(const Word* at) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}
inline unsigned bits8(__m128i low, __m128i high) {
  return static_cast<unsigned>(_mm_movemask_epi8(
      _mm_packs_epi16(_mm_packs_epi32(low, high), _mm_setzero_si128())));
}
inline unsigned equal8(const Word* at, Word word) {
  const __m128i live = _mm_set1_epi32(word);
  return bits8(_mm_cmpeq_epi32(load(at), live), _mm_cmpeq_epi32(load(at + 4), live));
}
inline unsigned behind8(const Word* at, Word word) {
  const __m128i last = _mm_set1_epi32(word | 1);
  return bits8(_mm_cmpgt_epi32(load(at), last), _mm_cmpgt_epi32(load(at + 4), last));
}
inline unsigned free16(const Word* at) {
  const auto spread = [at](int i) {  // bit 0 into all bits of the word
    return _mm_srai_epi32(_mm_slli_epi32(load(at + i), 31), 31);
  };
  return static_cast<unsigned>(_mm_movemask_epi8(_mm_packs_epi16(
      _mm_packs_epi32(spread(0), spread(4)), _mm_packs_epi32(spread(8), spread(12)))));
}
#else
inline unsigned equal8(const Word* at, Word word) {
  unsigned equal = 0;
  for (unsigned i = 0; i < 8; ++i)
    equal |= static_cast<unsigned>(at[i] == word) << i;
  return equal;
}
inline unsigned behind8(const Word* at, Word word) {
  unsigned behind = 0;
  for (unsigned i = 0; i < 8; ++i)
    behind |= static_cast<unsigned>(at[i] > (word | 1)) << i;
  return behind;
}
inline unsigned free16(const Word* at) {
  unsigned free = 0;
  for (unsigned i = 0; i < 16; ++i)
    free |= static_cast<unsigned>(at[i] & 1) << i;
  return free;
}
#endif

inline unsigned live16(const Word* at) {
  return ~free16(at) & 0xffff;
}
inline unsigned lowest(unsigned bits) {
  return static_cast<unsigned>(std::countr_zero(bits));
}

}  // namespace Kop::HashWords
