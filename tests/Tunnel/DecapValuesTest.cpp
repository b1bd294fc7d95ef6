#include <csignal>

#include <gtest/gtest.h>

#include "tests/Tunnel/Samples.h"

namespace Tunnel::Decap {
namespace {

using Vantor::IntfId;

DecapIntfKey key(const char* intf, Vantor::AddressFamily family = Vantor::ipv4) {
  return {IntfId(intf), family};
}
DecapExcludeIntfSet excluding(const DecapIntfKey& key,
                              std::initializer_list<const char*> intfs) {
  DecapExcludeIntfSet set(key);
  for (const char* intf : intfs)
    set.excludeIntfIs(IntfId(intf));
  return set;
}

// Catches quotes on the command line, a word where a digit belongs, and a label that moved.
TEST(DecapTexts, machineAndHumanForms) {
  const DecapIntfKey vlan = key("Vlan1", Vantor::ipv6);
  EXPECT_EQ(valueToStrep(vlan),
            "Value('Tunnel::Decap::DecapIntfKey', ** {'intfId': 'Vlan1', "
            "'addressFamily': ipv6})");
  EXPECT_EQ(vlan.stringValue(), " Intf: Vlan1 address-family: ipv6");
  const DecapIntf intf(vlan, all, true);
  EXPECT_EQ(valueToStrep(intf),
            "Value('Tunnel::Decap::DecapIntf', ** {'decapIntfKey': "
            "Value('Tunnel::Decap::DecapIntfKey', ** {'intfId': 'Vlan1', "
            "'addressFamily': ipv6}), 'addressType': all, 'oldConfig': True})");
  EXPECT_EQ(intf.stringValue(),
            " Intf: Vlan1 address-family: ipv6 address-type: all oldConfig: 1");
  EXPECT_EQ(DecapIntf().stringValue(),
            " Intf:  address-family: noAddressFamily address-type: primary oldConfig: 0");
  EXPECT_EQ(valueToStrep(excluding(vlan, {"Vlan2", "Vlan3"})),
            "Value('Tunnel::Decap::DecapExcludeIntfSet', ** {'decapIntfKey': "
            "Value('Tunnel::Decap::DecapIntfKey', ** {'intfId': 'Vlan1', "
            "'addressFamily': ipv6}), 'excludeIntf': None})");
}

// Catches an error in a nested value that does not say where it is.
TEST(DecapTexts, errorsNameTheWay) {
  struct Row {
    const char* text;
    const char* message;
  };
  constexpr Row rows[] = {
      {"Value('Tunnel::Decap::DecapIntf', ** {'decapIntfKey': "
       "Value('Tunnel::Decap::DecapIntfKey', ** {'intfId': 'Vlan1', "
       "'addressFamily': 4294967296}), 'addressType': all, 'oldConfig': True})", "decapIntfKey: addressFamily: "},
      {"Value('Tunnel::Decap::DecapIntf', ** {'decapIntfKey': "
       "Value('Tunnel::Decap::DecapIntfKey', ** {'intfId': 'Vlan99999999999', "
       "'addressFamily': 1}), 'addressType': all, 'oldConfig': True})",          "decapIntfKey: intfId: "       },
  };
  for (const Row& row : rows) {
    try {
      strepToValue<DecapIntf>(row.text);
      ADD_FAILURE() << row.text;
    } catch (const Kop::RangeException& error) {
      EXPECT_EQ(std::string(error.what()).find(row.message), 0u) << error.what();
    }
  }
}

// Catches an order that looks at the key before the set, or at the members before the count.
TEST(DecapExcludeIntfSetOrder, setBeforeKey) {
  const DecapIntfKey low = key("A"), high = key("B");
  EXPECT_TRUE(low < high && key("A", Vantor::ipv4) < key("A", Vantor::ipv6));
  EXPECT_TRUE(excluding(high, {"Vlan9"}) < excluding(low, {"Vlan1", "Vlan2"}));
  EXPECT_FALSE(excluding(low, {"Vlan1", "Vlan2"}) < excluding(high, {"Vlan9"}));
  EXPECT_TRUE(excluding(low, {"Vlan1", "Vlan2"}) < excluding(high, {"Vlan2", "Vlan1"}));
  EXPECT_TRUE(excluding(high, {"Vlan1"}) < excluding(low, {"Vlan2"}));
  EXPECT_FALSE(excluding(low, {"Vlan2"}) < excluding(high, {"Vlan1"}));
  const auto self = excluding(low, {"Vlan1"});
  EXPECT_FALSE(self < self);
}

// Catches a set whose order or equality depends on how it came about.
TEST(DecapExcludeIntfSetOrder, historyDoesNotMatter) {
  Samples::Random random(Samples::seed);
  for (int round = 0; round < 50; ++round) {
    std::vector<IntfId> intfs;
    for (U32 i = 0; i < 1 + random() % 40; ++i)
      intfs.push_back(IntfId::fromValue(random()));
    DecapExcludeIntfSet a, b;
    for (const auto& intf : intfs)
      a.excludeIntfIs(intf);
    std::shuffle(intfs.begin(), intfs.end(), random);
    b.excludeIntfIs(IntfId("Vlan1"));
    for (const auto& intf : intfs)
      b.excludeIntfIs(intf);
    EXPECT_TRUE(a < b && !(a == b));
    b.excludeIntfDel(IntfId("Vlan1"));
    EXPECT_TRUE(a == b && !(a < b) && !(b < a));
    const IntfId other = IntfId::fromValue(1ull << 60);
    a.excludeIntfDel(intfs[0]);
    a.excludeIntfIs(other);
    EXPECT_NE(a < b, b < a);
  }
}

// Catches a copy that shares its set, and a truth or an equality that leaves the set out.
TEST(DecapExcludeIntfSets, members) {
  auto set = excluding(key("A"), {"Vlan1"});
  const auto before = set;
  set.excludeIntfIs(IntfId("Vlan1"));
  set.excludeIntfDel(IntfId("Vlan7"));
  EXPECT_TRUE(set == before);
  set.excludeIntfIs(IntfId("Vlan2"));
  EXPECT_TRUE(set.excludeIntfHas(IntfId("Vlan2")) && !(set == before));
  EXPECT_EQ(before.excludeIntf().count(), 1u);  // the copy is its own
  set.excludeIntfDelAll();
  EXPECT_EQ(set.excludeIntf().count(), 0u);
  EXPECT_TRUE(set == DecapExcludeIntfSet(key("A")));
  EXPECT_TRUE(set);  // the key differs from the default
  EXPECT_FALSE(DecapExcludeIntfSet());
}

// Catches a set's announced count that is believed: it comes from a peer.
TEST(DecapExcludeIntfSets, countWithoutMembersIsRefused) {
  Kop::NboAttrLog::Out out;
  out << key("A");
  out.writeU32(0xffffffff);
  Kop::NboAttrLog::In in(out.data(), out.size());
  EXPECT_THROW(DecapExcludeIntfSet{in}, Kop::LogCorruptException);
}

// Catches a text constructor that answers instead of ending the process.
TEST(DecapDeathTest, setHasNoStringConstructor) {
  testing::GTEST_FLAG(death_test_style) = "fast";
  const Kop::String text = valueToStrep(DecapExcludeIntfSet());
  EXPECT_EXIT(strepToValue<DecapExcludeIntfSet>(text), testing::KilledBySignal(SIGABRT),
              "Tunnel/DecapGroupHivelTypes: .*Assertion "
              "\"!\"No String constructor for DecapExcludeIntfSet - has collection\"\" "
              "failed");
}

// Catches a walk over a set that goes on after the set changed.
TEST(DecapDeathTest, setChangesUnderAWalk) {
  testing::GTEST_FLAG(death_test_style) = "fast";
  auto set = excluding(key("A"), {"Vlan1", "Vlan2"});
  auto walk = set.excludeIntf().iteratorConst();
  walk.advance();
  set.excludeIntfIs(IntfId("Vlan3"));
  EXPECT_EXIT(walk.advance(), testing::KilledBySignal(SIGABRT),
              "HashMap2018: .*Assertion \"version_ == hashMap_->version\\(\\)\" failed");
}

}  // namespace
}  // namespace Tunnel::Decap
