#pragma once

#include <algorithm>
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
//   live    the key's mixed hash: an even number
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

// One multiplication spreads the hash over the high bits, which alone choose the place; bit 0
// is given up for the ghosts. The largest word is kept for empty slots.
inline U32 mixed(U32 hash) {
  return std::min(hash * 0x9E3779B1u & ~1u, 0xfffffffcu);
}
inline U32 mixedOf(Word word) {
  return (static_cast<U32>(word) ^ 0x80000000u) & ~1u;
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

// What a look at eight slots tells about a searched word; bit i stands for slot i.
struct Sight {
  unsigned equal;   // live and of that word
  unsigned behind;  // ordered after it, or empty
};

#ifdef __SSE2__
inline __m128i load(const Word* at) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}
inline Sight look8(const Word* at, Word word) {
  const __m128i low = load(at), high = load(at + 4);
  const __m128i live = _mm_set1_epi32(word), last = _mm_set1_epi32(word | 1);
  const auto bits = [](__m128i a, __m128i b) {
    return static_cast<unsigned>(
        _mm_movemask_epi8(_mm_packs_epi16(_mm_packs_epi32(a, b), _mm_setzero_si128())));
  };
  return {bits(_mm_cmpeq_epi32(low, live), _mm_cmpeq_epi32(high, live)),
          bits(_mm_cmpgt_epi32(low, last), _mm_cmpgt_epi32(high, last))};
}
inline unsigned free16(const Word* at) {
  const auto spread = [at](int i) {  // bit 0 into all bits of the word
    return _mm_srai_epi32(_mm_slli_epi32(load(at + i), 31), 31);
  };
  return static_cast<unsigned>(_mm_movemask_epi8(_mm_packs_epi16(
      _mm_packs_epi32(spread(0), spread(4)), _mm_packs_epi32(spread(8), spread(12)))));
}
#else
inline Sight look8(const Word* at, Word word) {
  Sight sight{0, 0};
  for (unsigned i = 0; i < 8; ++i) {
    sight.equal |= static_cast<unsigned>(at[i] == word) << i;
    sight.behind |= static_cast<unsigned>(at[i] > (word | 1)) << i;
  }
  return sight;
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
