#pragma once

#include <array>
#include <vector>

#include "Kop/Types.h"

namespace Agent {

// Hands out numbers from 1 on. A bit per number, and above it a bit per full word, so that
// finding a free one looks at one word per level.
//
// Errors   std::bad_alloc leaves the pool as it was.
class IndexPool {
 public:
  static constexpr U32 levelCount = 4;
  static constexpr U32 limit = 1u << (6 * levelCount);  // no number reaches it

  // The lowest free number at or above `from`; 0 when there is none.
  U32 nextFree(U32 from = 1) const;
  // Whether the number was free; it is taken now. False too for 0 and from `limit` on.
  bool take(U32 number);
  void free(U32 number);  // a number that is taken
  bool has(U32 number) const {
    const auto& words = levels_[0];
    return number / 64 < words.size() && (words[number / 64] >> number % 64 & 1) != 0;
  }
  U32 count() const { return count_; }
  U32 end() const { return end_; }  // the lowest above all that were ever taken

 private:
  std::array<std::vector<U64>, levelCount> levels_;
  U32 count_ = 0;
  U32 end_ = 1;
};

}  // namespace Agent
