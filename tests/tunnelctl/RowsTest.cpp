#include "apps/tunnelctl/Rows.h"
#include "tests/Support/Rows.h"
#include "tests/Support/Testing.h"
#include "tests/tunnelctl/RandomValues.h"

namespace Tunnelctl {
namespace {

using namespace Tunnel::TunnelTable;

// Catches an order that is not that of the entries, a limit that gives others than the best,
// and rows of no kind or without a number for bandwidth that end the process or disappear.
TEST(RowSet, standsInTheOrderOfEntries) {
  constexpr U32 seed = 3;
  Random random(seed);
  for (int round = 0; round < 200; ++round) {
    SCOPED_TRACE("round " + std::to_string(round) + " seed " + std::to_string(seed));
    const bool sound = round % 2 == 0;
    auto rows = Samples::alike<TunnelTableEntry>(random, 1 + random() % 60);
    RowSet set;
    for (TunnelTableEntry& row : rows) {
      const U64 odd = (U64{23} + random.below(8)) << TunnelIdConstants::tunnelTypePos;
      if (!sound && random.below(4) == 0)
        row = TunnelTableEntry(TunnelId(odd | random.below(3)), row.entryPref());
      if (!sound && random.below(4) == 0)
        row.tunnelBwIs(TunnelBandwidth(std::numeric_limits<float>::quiet_NaN()));
      set.add(set.count(), row);
    }
    const std::size_t limit = random.below(rows.size() + 1);
    RowSet best = set;
    best.sort(limit);
    set.sort(set.count());
    for (std::size_t i = 0; i < limit; ++i)
      EXPECT_EQ(best.key(i), set.key(i));
    std::vector<U64> keys;
    for (std::size_t i = 0; i < set.count(); ++i)
      keys.push_back(set.key(i));
    if (sound) {
      std::sort(rows.begin(), rows.end());
      for (std::size_t i = 0; i < rows.size(); ++i)
        EXPECT_TRUE(set.row(i) == rows[i]) << i;
    }
    std::sort(keys.begin(), keys.end());
    EXPECT_EQ(std::unique(keys.begin(), keys.end()) - keys.begin(),
              static_cast<std::ptrdiff_t>(rows.size()));
  }
}

// Catches endpoints that are compared by their text or beyond the prefix's bits.
TEST(Rows, endpointsLieInPrefixes) {
  for (const auto& row : Support::rowsIn("tunnelctl/prefixes.txt"))
    EXPECT_EQ(isInside(Vantor::IpGenPrefix(Kop::String(row[0])),
                       readPrefixArgument("--endpoint", row[1])),
              row[2] == "yes")
        << row[0] << " in " << row[1];
  EXPECT_THROW(readPrefixArgument("--endpoint", "10.0.0.0/33"), UsageError);
}

}  // namespace
}  // namespace Tunnelctl
