#include <map>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "Quarn/Table.h"
#include "Tunnel/TunnelTableHivelTypes.h"
#include "tests/Tunnel/Samples.h"

namespace Tunnel::TunnelTable {
namespace {

template <class R>
R record(Samples::Random& random) {
  return Samples::sample<R>(random);
}
template <>
TunnelTableEntry record(Samples::Random& random) {
  TunnelTableEntry entry(TunnelId(random()), TunnelEntryPref(static_cast<U8>(random())));
  for (U32 i = random() % 17; i-- > 0;)
    entry.endpointIs(TepIndex(static_cast<U8>(i)),
                     Samples::sample<Vantor::IpGenPrefix>(random));
  entry.setName(Samples::sample<Kop::String>(random));
  return entry;
}

// Catches a record whose binary form a table cannot hold: one that is refused as not whole,
// or read back as another.
template <class R>
struct TableRecords : testing::Test {};
using Records = testing::Types<TunnelTableEntry, MplsCosVia, MulticastTunnelTableEntry>;
TYPED_TEST_SUITE(TableRecords, Records);

TYPED_TEST(TableRecords, standInATable) {
  using R = TypeParam;
  const std::string name = "/tunnel-records-test-" + std::to_string(::getpid());
  Quarn::TableWriter<R>::remove(name);
  Samples::Random random(Samples::seed);
  std::map<U64, R> told;
  {
    Quarn::TableWriter<R> writer(name);
    const Quarn::TableReader<R> reader(name);
    for (int step = 0; step < 500; ++step) {
      const U64 key = random() % 100;
      const R value = record<R>(random);
      writer.rowIs(key, value);
      told.insert_or_assign(key, value);
    }
    R found;
    for (const auto& [key, value] : told) {
      ASSERT_EQ(reader.row(key, found), Quarn::RowState::found);
      EXPECT_TRUE(found == value) << valueToStrep(found) << valueToStrep(value);
    }
    EXPECT_TRUE(reader.verify().faults.empty());
  }
  Quarn::TableWriter<R> heir(name);
  EXPECT_EQ(heir.rowCount(), told.size());
  heir.forEachRow(
      [&](U64 key, const R& value) { EXPECT_TRUE(told.at(key) == value) << key; });
  Quarn::TableWriter<R>::remove(name);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
