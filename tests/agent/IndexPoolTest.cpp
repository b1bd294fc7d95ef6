#include "apps/agent/IndexPool.h"
#include "tests/Support/Testing.h"

namespace {

using Agent::IndexPool;

// A summary bit that is left behind: a free number that is not found, or a taken one that is.
TEST(IndexPool, agreesWithASet) {
  std::minstd_rand random(20261121);
  IndexPool pool;
  std::set<U32> gaps;  // free numbers below `end`
  U32 end = 1;
  // Filled beyond a word of the second level, then thinned out and mixed.
  for (U32 step = 0; step < 30'000; ++step) {
    const U32 from = step % 7 == 0 ? 1 + static_cast<U32>(random()) % end : 1;
    const auto gap = gaps.lower_bound(from);
    const U32 free = pool.nextFree(from);
    ASSERT_EQ(free, gap == gaps.end() ? end : *gap) << step;
    if (step < 9'000 || random() % 2 == 0) {
      ASSERT_TRUE(pool.take(free) && !pool.take(free));
      gaps.erase(free);
      end = std::max(end, free + 1);
    } else if (const U32 number = 1 + static_cast<U32>(random()) % end;
               pool.has(number)) {
      ASSERT_TRUE(gaps.insert(number).second);
      pool.free(number);
      ASSERT_FALSE(pool.has(number));
    }
    ASSERT_EQ(pool.count(), end - 1 - gaps.size());
    ASSERT_EQ(pool.end(), end);
  }
}

}  // namespace
