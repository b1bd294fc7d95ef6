#include "apps/agent/IndexPool.h"

#include <algorithm>
#include <bit>

namespace Agent {

U32 IndexPool::nextFree(U32 from) const {
  U32 at = std::max(from, 1u);
  if (at >= limit) return 0;
  // Up until a word has a free place at or behind `at`, then down to its lowest number. What
  // lies behind a level's words is free.
  for (U32 level = 0; level < levelCount; ++level) {
    const auto& words = levels_[level];
    const std::size_t word = at / 64;
    const U64 taken = word < words.size() ? words[word] : 0;
    const U64 free = ~taken & ~U64{0} << at % 64;
    if (free == 0) {
      at = static_cast<U32>(word + 1);
      continue;
    }
    at = static_cast<U32>(word * 64) + static_cast<U32>(std::countr_zero(free));
    for (; level > 0; --level) {
      const auto& below = levels_[level - 1];
      const U64 inBelow = at < below.size() ? below[at] : 0;
      at = at * 64 + static_cast<U32>(std::countr_one(inBelow));
    }
    return at < limit ? at : 0;
  }
  return 0;
}

bool IndexPool::take(U32 number) {
  if (number == 0 || number >= limit || has(number)) return false;
  U32 reach = number / 64;
  for (auto& words : levels_) {
    if (reach >= words.size()) words.resize(reach + 1);
    reach /= 64;
  }
  U32 bit = number;
  for (auto& words : levels_) {
    U64& word = words[bit / 64];
    word |= U64{1} << bit % 64;
    if (word != ~U64{0}) break;
    bit /= 64;
  }
  ++count_;
  end_ = std::max(end_, number + 1);
  return true;
}

void IndexPool::free(U32 number) {
  U32 bit = number;
  for (auto& words : levels_) {
    U64& word = words[bit / 64];
    const bool wasFull = word == ~U64{0};
    word &= ~(U64{1} << bit % 64);
    if (!wasFull) break;
    bit /= 64;
  }
  --count_;
}

}  // namespace Agent
