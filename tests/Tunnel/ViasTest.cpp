#include <csignal>
#include <cstring>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include "Drem/Error.h"
#include "tests/Tunnel/Samples.h"

namespace Tunnel::TunnelTable {
namespace {

using Samples::Fold;
using Vantor::DynamicMplsLabelStack;
using Vantor::IntfId;
using Vantor::IpDscp;
using Vantor::IpGenAddr;
using Vantor::IpGenPrefix;
using Vantor::MplsLabelOperation;

IpGenAddr ip(U32 last) {
  return IpGenAddr::fromIpv4(0x0a000000 | last);
}
MplsLabelOperation push(U32 label) {
  return MplsLabelOperation(Vantor::push, std::span(&label, 1));
}
MplsCosVia cosVia(std::initializer_list<U32> labels, U8 dscp, unsigned exp) {
  return {ip(1), IntfId("A"), DynamicMplsLabelStack(labels), IpDscp(dscp), U3(exp)};
}
BgpLuVia luVia(U32 label, std::initializer_list<std::pair<Via, bool>> vias) {
  BgpLuVia result(push(label));
  for (const auto& [via, flag] : vias)
    result.viaIs(via, flag);
  return result;
}

struct Relation {
  bool equal, less, greater, sameHash;
};
template <class T>
void expectRelation(const char* what, const T& a, const T& b, Relation wanted) {
  SCOPED_TRACE(what);
  EXPECT_EQ(a == b, wanted.equal);
  EXPECT_EQ(a < b, wanted.less);
  EXPECT_EQ(b < a, wanted.greater);
  EXPECT_EQ(hashOf(a) == hashOf(b), wanted.sameHash);
}
constexpr Relation less{false, true, false, false};
constexpr Relation greater{false, false, true, false};

// Catches an order that looks at the fields as they stand, and one rule for all the types.
TEST(Vias, orderAndEqualityByType) {
  const IntfId a("A"), b("B");
  const EncapId one(1), two(2);
  expectRelation("interface before next hop", Via(ip(2), a), Via(ip(1), b), less);
  expectRelation("then next hop", Via(ip(2), a), Via(ip(1), a), greater);
  expectRelation("interface before encapsulation", TunnelVia(ip(1), a, two),
                 TunnelVia(ip(1), b, one), less);
  expectRelation("next hop before encapsulation", TunnelVia(ip(1), a, two),
                 TunnelVia(ip(2), a, one), less);
  expectRelation("encapsulation is not hashed", TunnelVia(ip(1), a, two),
                 TunnelVia(ip(1), a, EncapId(0x80000000)), {false, true, false, true});
  expectRelation("interface before labels", MplsVia(ip(1), a, push(20)),
                 MplsVia(ip(0), b, push(16)), less);
  expectRelation("next hop before labels", MplsVia(ip(1), a, push(20)),
                 MplsVia(ip(2), a, push(16)), less);
  expectRelation("then labels", MplsVia(ip(1), a, push(20)), MplsVia(ip(1), a, push(16)),
                 greater);
  expectRelation("labels from the top", cosVia({16, 20}, 0, 0), cosVia({17, 19}, 0, 0),
                 greater);
  expectRelation("labels by count", cosVia({99}, 9, 0), cosVia({17, 19}, 0, 0), less);
  expectRelation("labels before DSCP", cosVia({16}, 9, 0), cosVia({17}, 0, 0), less);
  expectRelation("DSCP before EXP", cosVia({16}, 1, 7), cosVia({16}, 2, 0), less);
  expectRelation("EXP is not ordered", cosVia({16}, 1, 1), cosVia({16}, 1, 2),
                 {false, false, false, false});
  const Via low(ip(2), a), high(ip(1), b);
  expectRelation("labels before vias",
                 luVia(16,
                       {
                           {high, true},
                           {low,  true}
  }),
                 luVia(17, {}), less);
  expectRelation("number of vias",
                 luVia(16,
                       {
                           {high, true}
  }),
                 luVia(16, {{low, true}, {Via(), true}}), less);
  expectRelation("interface of a pair first",
                 luVia(16,
                       {
                           {low, true}
  }),
                 luVia(16, {{high, true}}), less);
  expectRelation("flags do not count",
                 luVia(16,
                       {
                           {low,  true},
                           {high, true}
  }),
                 luVia(16, {{high, false}, {low, true}}), {true, false, false, true});
  const IpGenPrefix near(ip(1), 24), far(ip(2), 24);
  expectRelation("endpoint before colour", ColoredTunnelEndpoint(near, 9, true),
                 ColoredTunnelEndpoint(far, 1, false), less);
  expectRelation("colour before its flag", ColoredTunnelEndpoint(near, 1, true),
                 ColoredTunnelEndpoint(near, 2, false), less);
  expectRelation("flag last", ColoredTunnelEndpoint(near, 1, true),
                 ColoredTunnelEndpoint(near, 1, false), greater);
}

// Catches a field folded in at another width or place: hashes decide the order of tables.
TEST(Vias, hashesByHand) {
  Fold address, intf;
  for (const U32 byte : {10, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0})
    address.byte(byte);
  const IntfId vlan("Vlan1");
  intf.word(static_cast<U32>(vlan.value())).word(static_cast<U32>(vlan.value() >> 32));
  const auto hop = [&] { return Fold().word(address.end()).word(intf.end()); };
  const Via via(ip(7), vlan);
  EXPECT_EQ(via.hash(), hop().end());
  EXPECT_EQ(TunnelVia(ip(7), vlan, EncapId(26)).hash(), hop().end());

  const U32 operation = Fold().word(1).word(16).end();
  EXPECT_EQ(MplsVia(ip(7), vlan, push(16)).hash(), hop().word(operation).end());

  const U32 stack = Fold().word(16).word(0xfffff).end();
  const DynamicMplsLabelStack labels{16, 0xfffff};
  EXPECT_EQ(MplsCosVia(ip(7), vlan, labels, IpDscp(200), U3(5)).hash(),
            hop().word(stack).word(200).byte(5).end());
  EXPECT_EQ(MplsCosVia(ip(7), vlan, DynamicMplsLabelStack(), IpDscp(), U3()).hash(),
            hop().word(0).word(0).byte(0).end());

  auto lu = luVia(16, {
                          {via,       true },
                          {Via(ip(1), vlan), false},
                          {Via(),         true         }
  });
  Fold all = Fold().word(operation);
  for (const auto& node : lu.via())
    all.word(node.key().hash());
  EXPECT_EQ(lu.hash(), all.end());
  EXPECT_EQ(luVia(16,
                  {
                      {via, true}
  })
                .hash(),
            Fold().word(operation).word(hop().end()).end());

  Kop::Hash seeded(77);
  seeded.mix32(IpGenPrefix(ip(7), 24).hash());
  seeded.mix32(100);
  seeded.mix8(1);
  EXPECT_EQ(ColoredTunnelEndpoint(IpGenPrefix(ip(7), 24), 100, true).hash(77),
            seeded.result());
}

// Catches a label or a bound that moved.
TEST(Vias, texts) {
  const MplsCosVia via(ip(1), IntfId("Vlan1"), DynamicMplsLabelStack{16, 20}, IpDscp(46),
                       U3(5));
  EXPECT_EQ(valueToStrep(via),
            "Value('Tunnel::TunnelTable::MplsCosVia', ** {'nexthop': '10.0.0.1', "
            "'intfId': 'Vlan1', 'labels': [16, 20], 'ipDscp': 46, 'mplsExp': 5})");
  EXPECT_EQ(valueToStrep(TunnelVia(ip(1), IntfId("Vlan1"), EncapId(26))),
            "Value('Tunnel::TunnelTable::TunnelVia', ** {'nexthop': '10.0.0.1', "
            "'intfId': 'Vlan1', 'encapId': 26})");
  EXPECT_EQ(valueToStrep(luVia(16,
                               {
                                   {Via(), true}
  })),
            "Value('Tunnel::TunnelTable::BgpLuVia', ** {'via': None, 'labels': "
            "push[16]})");
}

// Catches quotes on the command line, a colour that is shown though it means nothing, and
// the default taken for the null prefix.
TEST(ColoredTunnelEndpoints, whatIsShown) {
  const IpGenPrefix net(ip(0), 8);
  EXPECT_EQ(ColoredTunnelEndpoint(net, 100, true).stringValue(), "10.0.0.0/8|100");
  EXPECT_EQ(ColoredTunnelEndpoint(net, 100, false).stringValue(), "10.0.0.0/8");
  EXPECT_EQ(ColoredTunnelEndpoint(net, 1, true).ipGenAddr(), ip(0));
  const auto isNull = [](const char* prefix) {
    return ColoredTunnelEndpoint(IpGenPrefix(Kop::String(prefix)), 0, false)
        .isNullPrefix();
  };
  EXPECT_TRUE(isNull("0.0.0.0/0") && isNull("::/0"));
  EXPECT_FALSE(isNull("10.0.0.0/0") || isNull("::/1") ||
               ColoredTunnelEndpoint().isNullPrefix());
}

// The record of cosVia({16, 20}, 46, 5) with next hop 10.0.0.1 and interface "A".
const std::vector<U8> record = {
    1,  0, 0, 0,                                          // family, host order
    10, 0, 0, 1, 0,  0, 0,   0, 0,  0, 0, 0, 0, 0, 0, 0,  // address
    0,  0, 0, 0, 0,  0, 'A', 0,                           // interface
    46, 5,                                                // DSCP, EXP
    2,  0, 0, 0, 16, 0, 0,   0, 20, 0, 0, 0,              // labels
};

// Catches a field that moved in the tables that other processes read.
TEST(MplsCosViaRecord, bytesByHand) {
  const MplsCosVia via = cosVia({16, 20}, 46, 5);
  ASSERT_EQ(via.serializeLen(), record.size());
  EXPECT_EQ(MplsCosVia().serializeLen(), 34u);
  std::vector<U8> bytes(record.size() + 2, 0xee);  // at an odd address
  via.serialize(bytes.data() + 1);
  EXPECT_EQ(bytes.front(), 0xee);
  EXPECT_EQ(bytes.back(), 0xee);
  EXPECT_EQ(std::vector<U8>(bytes.begin() + 1, bytes.end() - 1), record);
  EXPECT_EQ(MplsCosVia().deserializeLen(bytes.data() + 1, 42), 42u);
  MplsCosVia back = cosVia({1, 2, 3, 4}, 1, 1);
  back.deserialize(bytes.data() + 1, 42);
  EXPECT_TRUE(back == via);
  via.serialize(nullptr);  // writes nothing
}

TEST(MplsCosViaRecord, anyValueReadsBack) {
  Samples::Random random(Samples::seed);
  for (int i = 0; i < 200; ++i) {
    const auto via = Samples::sample<MplsCosVia>(random);
    std::vector<U8> bytes(via.serializeLen());
    via.serialize(bytes.data());
    MplsCosVia back;
    EXPECT_EQ(back.deserializeLen(bytes.data(), via.serializeLen()), bytes.size());
    back.deserialize(bytes.data(), via.serializeLen());
    EXPECT_TRUE(back == via);
  }
}

// Catches a record that is believed: the bytes of a table may be anything. Each buffer is
// exactly as long as is said, so that a sanitizer sees a read behind it.
TEST(MplsCosViaRecord, hostileBytes) {
  const auto cut = [](std::size_t size) {
    return std::vector<U8>(record.begin(), record.begin() + static_cast<int>(size));
  };
  const MplsCosVia before = cosVia({7}, 1, 2);
  for (U32 size = 0; size <= record.size(); ++size) {
    SCOPED_TRACE(size);
    const std::vector<U8> bytes = cut(size);
    const bool whole = size == record.size();
    EXPECT_EQ(before.deserializeLen(bytes.data(), size), whole ? 42u : 30u);
    if (whole) continue;
    MplsCosVia via = before;
    EXPECT_THROW(via.deserialize(bytes.data(), size), Drem::InvalidSizeException);
    EXPECT_TRUE(via == before);
  }
  EXPECT_EQ(before.deserializeLen(nullptr, 0), 30u);

  std::vector<U8> bytes = record;
  std::memset(&bytes[30], 0xff, 4);  // 2^32 - 1 labels
  EXPECT_EQ(before.deserializeLen(bytes.data(), 42), 30u);
  MplsCosVia via;
  EXPECT_THROW(via.deserialize(bytes.data(), 42), Drem::InvalidSizeException);

  bytes = record;
  bytes[0] = 9;      // a family that is none
  bytes[29] = 0xfd;  // more than 3 bits
  std::memset(&bytes[34], 0xff, 4);
  via.deserialize(bytes.data(), 42);
  EXPECT_EQ(U8{via.mplsExp()}, 5);
  EXPECT_EQ(via.labels().computedLabel(0), Vantor::maxMplsLabel);
  EXPECT_EQ(via.nexthop().stringValue(), "family9");

  Samples::Random random(Samples::seed);
  for (int i = 0; i < 2000; ++i) {
    std::vector<U8> noise(random() % 64);
    for (U8& byte : noise)
      byte = Samples::sample<U8>(random);
    const auto size = static_cast<U32>(noise.size());
    const U32 needed = via.deserializeLen(noise.data(), size);
    try {
      via.deserialize(noise.data(), size);
      EXPECT_EQ(via.serializeLen(), needed);
    } catch (const Drem::InvalidSizeException&) {
      EXPECT_EQ(needed, 30u);
    }
  }
}

// Catches a log whose numbers are believed to fit.
TEST(MplsCosViaLog, numbersAreCut) {
  Kop::NboAttrLog::Out out;
  out << ip(1) << IntfId("A") << DynamicMplsLabelStack();
  out.writeU32(0x12e);  // DSCP 46 in the low byte
  out.writeU8(0xfd);
  Kop::NboAttrLog::In in(out.data(), out.size());
  EXPECT_TRUE(MplsCosVia(in) == cosVia({}, 46, 5));
  EXPECT_TRUE(in.atEnd());
}

// Catches a flag that is lost or a copy that shares its vias.
TEST(BgpLuVias, collection) {
  const Via one(ip(1), IntfId("A")), two(ip(2), IntfId("A"));
  auto via = luVia(16, {
                           {one, false},
                           {two, true }
  });
  const auto before = via;
  EXPECT_TRUE(via.viaHas(one) && !via.via(one) && via.via(two));
  via.viaIs(one, true);
  EXPECT_TRUE(via.via(one) && !before.via(one));
  EXPECT_TRUE(via == before);
  Kop::NboAttrLog::Out out;
  out << via;
  Kop::NboAttrLog::In in(out.data(), out.size());
  EXPECT_TRUE(BgpLuVia(in).via(one));
  via.viaDel(Via());
  EXPECT_EQ(via.via().count(), 2u);
  via.viaDel(one);
  EXPECT_EQ(via.via().count(), 1u);
  via.viaDelAll();
  EXPECT_TRUE(via.via().empty() && via == BgpLuVia(push(16)) && via);
  EXPECT_FALSE(BgpLuVia() || MplsCosVia());
  EXPECT_TRUE(luVia(16,
                    {
                        {Via(), false}
  }) &&
              cosVia({}, 0, 0));
}

// Catches a text constructor that answers instead of ending the process.
TEST(ViasDeathTest, bgpLuViaHasNoStringConstructor) {
  testing::GTEST_FLAG(death_test_style) = "fast";
  EXPECT_EXIT(strepToValue<BgpLuVia>(valueToStrep(BgpLuVia())),
              testing::KilledBySignal(SIGABRT),
              "Tunnel/TunnelBasicTypes: .*Assertion "
              "\"!\"No String constructor for BgpLuVia - has collection\"\" failed");
}

}  // namespace
}  // namespace Tunnel::TunnelTable
