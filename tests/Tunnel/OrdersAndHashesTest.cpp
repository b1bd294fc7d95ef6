#include <cmath>

#include "Kop/Hash.h"
#include "Tunnel/DecapGroupHivelTypes.h"
#include "Tunnel/IpTunnels.h"
#include "Tunnel/MldpTunnelHivelTypes.h"
#include "Tunnel/TunnelIntfId.h"
#include "Tunnel/TunnelTableHivelTypes.h"
#include "tests/Support/Rows.h"
#include "tests/Support/Testing.h"
#include "tests/Tunnel/Samples.h"

// The orders, equalities and hashes that are written by hand, beside the plain rule of each.
// Orders decide how tables are walked and which tunnel is taken; hashes decide the order of
// every collection, on both sides of the log.

namespace Tunnel {
namespace {

using namespace TunnelTable;
using Samples::Random;
using std::tuple;

// Catches two fields that changed places, one that is left out, and one that is turned round.
template <class T, class Key>
void expectOrder(Key key) {
  SCOPED_TRACE(Kop::typeName<T>());
  Random random(Samples::seed);
  const auto values = Samples::alike<T>(random, 200);
  for (const T& a : values)
    for (const T& b : values)
      ASSERT_EQ(a < b, key(a) < key(b)) << a << '\n' << b;
}

TEST(Orders, vias) {
  const auto hop = [](const Via& v) { return tuple(v.intfId(), v.nexthop()); };
  expectOrder<Via>(hop);
  expectOrder<TunnelVia>([&](const auto& v) { return tuple(hop(v), v.encapId()); });
  expectOrder<MplsVia>([&](const auto& v) { return tuple(hop(v), v.labels()); });
  expectOrder<MplsCosVia>(
      [&](const auto& v) { return tuple(hop(v), v.labels(), v.ipDscp()); });
  expectOrder<BgpLuVia>([&](const auto& v) {
    std::vector<decltype(hop(Via()))> hops;
    for (const auto& node : v.via())
      hops.push_back(hop(node.key()));
    return tuple(v.labels(), hops.size(), hops);
  });
}

TEST(Orders, ipTunnels) {
  const auto gre = [](const GreTunnelInfo& i) {
    return tuple(i.dst(), i.src(), i.oKey(), i.iKey(), i.tos(), i.ttl(),
                 i.pathMtuDiscovery(), i.oFlags(), i.iFlags(), i.protocol());
  };
  expectOrder<GreTunnelInfo>(gre);
  expectOrder<IpsecGreTunnelInfo>(gre);
  expectOrder<IpsecVtiTunnelInfo>([](const auto& i) {
    return tuple(i.src(), i.dst(), i.tos(), i.ttl(), i.pathMtuDiscovery());
  });
}

// Catches keys of one hash that a collection takes for one another, because their own order
// leaves something out.
TEST(Orders, ofKeysTellAnyTwoApart) {
  const auto expect = []<class T>(const std::vector<T>& values) {
    for (const T& a : values)
      for (const T& b : values)
        ASSERT_EQ(Kop::KeyOps<T>::less(a, b) || Kop::KeyOps<T>::less(b, a), !(a == b));
  };
  Random random(Samples::seed);
  expect(Samples::alike<MplsCosVia>(random, 100));
  expect(Samples::alike<IpsecGreTunnelInfo>(random, 100));
  expect(Samples::alike<IpsecVtiTunnelInfo>(random, 100));
}

TEST(Orders, excludedInterfaces) {
  expectOrder<Decap::DecapExcludeIntfSet>([](const auto& s) {
    std::vector<Vantor::IntfId> intfs;
    for (const auto& node : s.excludeIntf())
      intfs.push_back(node.key());
    return tuple(intfs.size(), intfs, s.decapIntfKey());
  });
}

// The default preference, apart from the code that looks it up; 0: not a kind of tunnels.
U32 defaultPrefOf(U32 type) {
  static const auto rows = Support::rowsIn("Tunnel/kinds.txt");
  for (const auto& row : rows)
    if (row[0] == std::to_string(type)) return static_cast<U32>(std::stoul(row.at(7)));
  return 0;
}

TEST(Orders, tableEntries) {
  expectOrder<TunnelTableEntry>([](const auto& e) {
    return tuple(e.entryPref().value(), defaultPrefOf(e.tunnelId().tunnelType()),
                 e.entryMetric(), e.tunnelId().value(), e.tunnelBw().value(),
                 std::vector(e.endpoint().begin(), e.endpoint().end()),
                 e.nexthopTunnelId().value(),
                 std::vector<U8>(e.name().begin(), e.name().end()));
  });
  TunnelTableEntry nan, one;
  nan.tunnelBwIs(TunnelBandwidth(std::numeric_limits<float>::quiet_NaN()));
  EXPECT_FALSE(nan < one || one < nan || nan == nan);
  one.nexthopTunnelIdIs(TunnelId(1));
  EXPECT_TRUE(nan < one && !(one < nan));  // the next criterion decides
}

// Catches a default that moved, and an order that looks at it only when it must.
TEST(OrdersDeathTest, unknownTypes) {
  const auto prefOf = [](U32 type) {
    return TunnelEntryPref::getDefaultPrefForType(static_cast<TunnelType>(type));
  };
  constexpr const char* unknown =
      "Tunnel/TunnelTableHivelTypes: .*Assertion \"false && \"Unknown tunnel type\"\"";
  for (U32 type = 0; type < 32; ++type) {
    if (const U32 pref = defaultPrefOf(type)) {
      EXPECT_EQ(prefOf(type), pref);
    }
  }
  for (const U32 type : {23u, 30u, 32u, 0xffffffffu})
    EXPECT_DEATH(prefOf(type), unknown);
  U8 record[33] = {};
  record[7] = 0x80;
  TunnelTableEntry good, bad;
  bad.deserialize(record, sizeof record);
  good.entryPrefIs(TunnelEntryPref(1));
  EXPECT_DEATH(static_cast<void>(good < bad), unknown);
  EXPECT_DEATH(static_cast<void>(bad < good), unknown);
}

// Catches an equality that looks at flags, or at less than the hops.
TEST(Equality, ofBgpLuViasLeavesFlagsOut) {
  Random random(Samples::seed);
  for (const auto& via : Samples::alike<BgpLuVia>(random, 50)) {
    auto other = via;
    for (const auto& node : via.via()) {
      other.viaIs(node.key(), !node.value);
      auto moved = via;
      moved.viaDel(node.key());
      moved.viaIs(Via(Vantor::IpGenAddr("1.2.3.4"), node.key().intfId()), true);
      EXPECT_FALSE(moved == via);
    }
    EXPECT_TRUE(other == via && !(other < via) && hashOf(other) == hashOf(via));
  }
}

// Catches a not-a-number that is taken for equal, hides from the text, or has an order.
TEST(Equality, ofNotANumber) {
  const TunnelBandwidth nan(std::numeric_limits<float>::quiet_NaN()), zero(0.0f);
  EXPECT_FALSE(nan == nan || nan < zero || zero < nan);
  EXPECT_EQ(valueToStrep(nan), "nan");
  EXPECT_TRUE(std::isnan(strepToValue<TunnelBandwidth>("nan").value()));
  EXPECT_EQ(hashOf(TunnelBandwidth(-0.0f)), hashOf(zero));
}

// Catches a field folded in at another width or place, a base whose fields are folded in anew,
// and a hash that begins or ends otherwise.
TEST(Hashes, knownAnswers) {
  for (const auto& row : Support::rowsIn("Tunnel/hashes.txt")) {
    SCOPED_TRACE(row[0] + row[2]);
    Kop::GenericValue value(Samples::allTypes().at(row[0]));
    value.textIs(row[2]);
    U32 found = value.type()->hash(value.get());
    if (const auto* const hash = value.type()->record()->member("hash")) {
      const U32 seed = static_cast<U32>(std::stoul("0" + row[1]));
      const void* const arguments[] = {&seed};
      hash->ops->call(value.get(), arguments, &found);
    }
    EXPECT_EQ(Kop::stringPrintf("%08x", found), row[3]);
  }
}

// Catches hashes of a map that are folded in otherwise, and keys that are spread by another
// number than their own. Both depend on the process.
TEST(Hashes, ofThisProcess) {
  using Routing::Multicast::MulticastTreeId;
  Random random(Samples::seed);
  for (const auto& via : Samples::alike<BgpLuVia>(random, 100)) {
    Kop::OneAtATime all = Kop::OneAtATime().u32(via.labels().hash());
    for (const auto& node : via.via())
      all.u32(node.key().hash());
    EXPECT_EQ(via.hash(), all.result()) << via;
  }
  const auto pair = Samples::sample<TunnelIdNamePair>(random);
  EXPECT_EQ(Kop::KeyOps<TunnelIdNamePair>::hash(pair),
            pair.hash(Kop::hashSeed32() ^ 0xf5ac7603));
  const auto tree = Samples::sample<MulticastTreeId>(random);
  EXPECT_EQ(Kop::KeyOps<MulticastTreeId>::hash(tree),
            Kop::hashSingleAttr(tree, Kop::hashSeed32() ^ 3457776541));
}

}  // namespace
}  // namespace Tunnel
