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

// Catches a text constructor that answers instead of ending the process.
TEST(DecapDeathTest, setHasNoStringConstructor) {
  testing::GTEST_FLAG(death_test_style) = "fast";
  const Kop::String text = valueToStrep(DecapExcludeIntfSet());
  EXPECT_EXIT(strepToValue<DecapExcludeIntfSet>(text), testing::KilledBySignal(SIGABRT),
              "Tunnel/DecapGroupHivelTypes: .*Assertion "
              "\"!\"No String constructor for DecapExcludeIntfSet - has collection\"\" "
              "failed");
}

}  // namespace
}  // namespace Tunnel::Decap
