#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Drem/Error.h"
#include "Tunnel/MldpTunnelHivelTypes.h"
#include "tests/Kop/LogLink.h"
#include "tests/Tunnel/Samples.h"

namespace Tunnel::TunnelTable {
namespace {

using Routing::Multicast::MulticastTreeId;
using Entry = MulticastTunnelTableEntry;
using Bytes = std::vector<U8>;

const TunnelId tunnel5(0x1600000000005), tunnel7(0x1600000000007);
const MulticastTreeId treeA("0a0001"), treeB("0a0002");

Bytes written(const Entry& entry) {
  Bytes bytes(entry.serializeLen());
  entry.serialize(bytes.data());
  return bytes;
}

// Catches a field that is written elsewhere, in another width or byte order.
TEST(MulticastEntryBinary, layout) {
  const Entry entry(tunnel5, treeA);
  const Bytes bytes{5, 0, 0, 0, 0, 0x60, 1, 0, 3, 0, 0, 0, 0x0a, 0, 1};
  EXPECT_EQ(written(entry), bytes);
  entry.serialize(nullptr);  // only measures
  Entry read(tunnel7, treeB);
  read.deserialize(bytes.data(), 15);
  EXPECT_TRUE(read == entry);

  // No word is refused, and what was read is what is written.
  Bytes any(12, 0xff);
  std::fill(any.begin() + 8, any.end(), 0);
  read.deserialize(any.data(), 12);
  EXPECT_EQ(read.tunnelId().value(), ~U64{0});
  EXPECT_EQ(written(read), any);
}

// Catches a size computed in 32 bits and a read behind the end, which a sanitizer sees
// because the buffer is a block of just that size.
TEST(MulticastEntryBinary, onlyAWholeEntryIsFound) {
  struct Row {
    U32 count, len, found;
  };
  constexpr Row
      rows
          [] =
              {
                  {0,          0,  0 },
                  {0,          7,  0 },
                  {0,          8,  0 }, // len - 8 - 4 is below 0
                  {0,          11, 0 },
                  {0,          12, 16},
                  {20,         31, 0 },
                  {20,         32, 16},
                  {20,         99, 16},
                  {0xfffffff0, 28, 0 },
                  {0xfffffff4, 12, 0 }, // 12 + n is 0 modulo 2^32
                  {0xfffffffc, 16, 0 }, // 4 + n is
                  {0xffffffff, 12, 0 },
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.count << " in " << row.len);
    Bytes bytes(row.len, 0x5a);
    if (row.len >= 12) std::memcpy(bytes.data() + 8, &row.count, 4);
    Entry entry(tunnel7, treeB);
    EXPECT_EQ(entry.deserializeLen(bytes.data(), row.len), row.found);
    if (row.found) {
      entry.deserialize(bytes.data(), row.len);
      EXPECT_EQ(entry.serializeLen(), 12 + row.count);
      EXPECT_TRUE(std::equal(bytes.begin(), bytes.begin() + 12 + row.count,
                             written(entry).begin()));
    } else if (row.len >= 12 && row.count > row.len) {
      EXPECT_THROW(entry.deserialize(bytes.data(), row.len), Drem::InvalidSizeException);
      EXPECT_TRUE(entry == Entry(tunnel7, treeB));
    }
  }
  // The tree id is told the whole length: all it needs is that its own form is within it.
  const Bytes bytes = written(Entry(tunnel5, treeA));
  Entry entry;
  entry.deserialize(bytes.data(), 7);
  EXPECT_TRUE(entry == Entry(tunnel5, treeA));
  EXPECT_THROW(entry.deserialize(bytes.data(), 6), Drem::InvalidSizeException);
}

// Catches an order that begins with the tree, and a hash that is not the one of the wire's
// other end; the numbers were computed apart from this code.
TEST(MulticastEntry, orderTruthAndHash) {
  EXPECT_LT(Entry(tunnel5, treeA), Entry(tunnel7, treeA));
  EXPECT_LT(Entry(tunnel5, treeB), Entry(tunnel7, treeA));
  EXPECT_LT(Entry(tunnel5, treeA), Entry(tunnel5, treeB));
  EXPECT_FALSE(Entry() || MldpTunnelRibEntry());
  EXPECT_TRUE(Entry(tunnel5, MulticastTreeId()) && Entry(TunnelId(), treeA));
  EXPECT_EQ(Entry(tunnel5, treeA).hash(0), 0x2e11af6cu);
  EXPECT_EQ(MldpTunnelRibEntry(tunnel5, treeA).hash(1), 0x4bc997e3u);
  EXPECT_EQ(Kop::KeyOps<MulticastTreeId>::hash(treeA),
            Kop::hashSingleAttr(treeA, Kop::hashSeed32() ^ 3457776541));
  EXPECT_EQ(valueToStrep(MldpTunnelRibEntry(tunnel5, treeA)),
            "Value('Tunnel::TunnelTable::MldpTunnelRibEntry', ** "
            "{'tunnelId': 387028092977157, 'mcastTreeId': '0a0001'})");
}

struct Watch : Kop::Reactor<MldpTunnelRib> {
  using Reactor::Reactor;
  void entryReaction(const MulticastTreeId& tree) override {
    told.push_back(tree.stringValue().c_str());
  }
  std::vector<std::string> taken() { return std::exchange(told, {}); }
  std::vector<std::string> told;
};
using Told = std::vector<std::string>;

// Catches an equal entry that is told, a second entry for one tree, and a notification with
// anything but the tree.
TEST(MldpRib, oneEntryPerTree) {
  EXPECT_EQ(MldpTunnelRib::mountPath(), "tunnel/tunnelMrib/mldp");
  const auto rib = mldpTunnelRibFactory("mldp");
  EXPECT_TRUE(rib->hasNotificationActive());
  Watch watch(rib);
  const MldpTunnelRibEntry first(tunnel5, treeA), moved(tunnel7, treeA);
  rib->entryIs(first);
  EXPECT_EQ(watch.taken(), Told{"0a0001"});
  rib->entryIs(first);
  EXPECT_EQ(watch.taken(), Told());
  rib->entryIs(moved);
  EXPECT_EQ(watch.taken(), Told{"0a0001"});
  EXPECT_EQ(rib->entryCount(), 1u);
  EXPECT_TRUE(rib->entry(treeA) == moved);
  EXPECT_TRUE(rib->entry(treeB) == MldpTunnelRibEntry());
  EXPECT_TRUE(rib->entryDel(treeB) == MldpTunnelRibEntry());
  EXPECT_EQ(watch.taken(), Told());
  EXPECT_TRUE(rib->entryDel(treeA) == moved);
  EXPECT_EQ(watch.taken(), Told{"0a0001"});
  rib->entryIs(first);
  rib->entryIs(MldpTunnelRibEntry(tunnel5, treeB));
  watch.taken();
  rib->entryDelAll();
  EXPECT_EQ(watch.taken().size(), 2u);
}

// Catches an entry that a copy loses, keeps or has under another tree, in a snapshot or
// while changes are only marked.
TEST(MldpRib, aCopyFollows) {
  Samples::Random random(Samples::seed);
  const auto from = mldpTunnelRibFactory("mldp"), to = mldpTunnelRibFactory("mldp");
  std::map<std::string, std::string> model;
  std::vector<MulticastTreeId> trees;
  for (int i = 0; i < 60; ++i)
    trees.push_back(Samples::sample<MulticastTreeId>(random));
  const auto change = [&] {
    const auto& tree = trees[random() % trees.size()];
    const std::string key = valueToStrep(tree).c_str();
    if (random() % 3 == 0) {
      from->entryDel(tree);
      model.erase(key);
    } else {
      const MldpTunnelRibEntry entry(Samples::sample<TunnelId>(random), tree);
      from->entryIs(entry);
      model[key] = valueToStrep(entry).c_str();
    }
  };
  for (int i = 0; i < 50; ++i)
    change();
  to->entryIs(MldpTunnelRibEntry(tunnel7, MulticastTreeId("57a1e0")));  // goes
  Sample::Link link(from, to, 512);
  link.writer.resync();
  for (int round = 0; round < 200; ++round) {
    for (U32 left = random() % 40; left > 0; --left)
      change();
    link.drain();
    std::map<std::string, std::string> copied;
    for (const auto& node : to->entry())
      copied[valueToStrep(node.key()).c_str()] = valueToStrep(node.value).c_str();
    ASSERT_EQ(copied, model) << round;
  }
  EXPECT_GT(link.stream.counters().coalesced, 0u);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
