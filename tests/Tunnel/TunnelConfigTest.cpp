#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Tunnel/NexthopGroupTunnelConfigInput.h"
#include "Tunnel/StaticTunnelConfig.h"

namespace Tunnel {
namespace {

using NexthopGroup::NexthopGroupTunnelConfigEntry;
using Static::StaticTunnelConfigEntry;
using TunnelTable::MplsVia;
using Vantor::IntfId;
using Vantor::IpGenAddr;
using Vantor::IpGenPrefix;
using Events = std::vector<std::string>;

MplsVia hop(const char* intf, U32 last, U32 label = 16) {
  return {IpGenAddr::fromIpv4(0x0a000000 | last), IntfId(intf),
          Vantor::MplsLabelOperation(Vantor::push, std::span(&label, 1))};
}
StaticTunnelConfigEntry entry(const char* name,
                              std::initializer_list<std::pair<MplsVia, bool>> vias = {}) {
  StaticTunnelConfigEntry result((Kop::String(name)));
  for (const auto& [via, flag] : vias)
    result.viaIs(via, flag);
  return result;
}
std::string walk(const StaticTunnelConfigEntry& entry) {
  std::string text;
  for (const auto& node : entry.via()) {
    text += node.key().intfId().stringValue().c_str();
    text += node.key().nexthop().stringValue().c_str();
    text += node.value() ? "+ " : "- ";
  }
  return text;
}

struct Watch : Kop::Notifiee {
  void onAttribute(Kop::AttributeId) override { ADD_FAILURE() << "not a collection"; }
  void onAttribute(Kop::AttributeId attribute, const void* key) override {
    EXPECT_EQ(attribute, 258u);
    events.emplace_back(static_cast<const Kop::String*>(key)->c_str());
  }
  Events taken() { return std::exchange(events, {}); }
  Events events;
};

// Catches vias that stand in the order they came, are kept twice, or lose their flag, and a
// walk that is lost when its via is deleted.
TEST(StaticTunnelConfigEntries, viasInOrder) {
  auto one =
      entry("t", {
                     {hop("B", 1),   true},
                     {       hop("A",     2), true    },
                     { hop("A",    1,    17),     true}
  });
  EXPECT_EQ(walk(one), "A10.0.0.1+ A10.0.0.2+ B10.0.0.1+ ");
  one.viaIs(hop("A", 2), false);
  one.viaIs(hop("A", 1, 16), true);  // label 16 before label 17
  EXPECT_EQ(walk(one), "A10.0.0.1+ A10.0.0.1+ A10.0.0.2- B10.0.0.1+ ");
  EXPECT_TRUE(one.viaHas(hop("A", 2)) && !one.via(hop("A", 2)) && one.via(hop("B", 1)));
  const auto copy = one;
  auto it = one.viaIterator();
  one.viaDel(it);
  EXPECT_FALSE(one.viaHas(hop("A", 1, 16)));
  it.advance();
  EXPECT_EQ(it.key(), hop("A", 1, 17));
  one.viaDel(hop("A", 2));
  one.viaDel(hop("Z", 2));
  EXPECT_EQ(walk(one), "A10.0.0.1+ B10.0.0.1+ ");
  one.viaDelAll();
  EXPECT_EQ(walk(one), "");
  EXPECT_EQ(copy.via().count(), 4u);  // its own
}

// Catches an equality that leaves a field or a flag out, or sees the history of the vias.
TEST(StaticTunnelConfigEntries, equalityAndTruth) {
  const auto a = entry("t", {
                                {hop("A", 1), true },
                                {hop("B", 1), false}
  });
  EXPECT_TRUE(a == entry("t", {
                                  {hop("B", 1), false},
                                  {hop("A", 1), true }
  }));
  EXPECT_FALSE(a == entry("u", {
                                   {hop("A", 1), true },
                                   {hop("B", 1), false}
  }));
  EXPECT_FALSE(a == entry("t", {
                                   {hop("A", 1), true},
                                   {hop("B", 1), true}
  }));
  EXPECT_FALSE(a == entry("t", {
                                   {hop("A", 1), true}
  }));
  EXPECT_FALSE(StaticTunnelConfigEntry() || entry(""));
  using Set = void (*)(StaticTunnelConfigEntry&);
  constexpr Set sets[] = {
      [](StaticTunnelConfigEntry& e) { e.nameIs("n"); },
      [](StaticTunnelConfigEntry& e) { e.tepIs(IpGenPrefix(Kop::String("::/0"))); },
      [](StaticTunnelConfigEntry& e) { e.viaIs(MplsVia(), false); },
      [](StaticTunnelConfigEntry& e) { e.backupViaIs(hop("A", 1)); },
      [](StaticTunnelConfigEntry& e) { e.inStaticTunnelModeIs(true); },
  };
  for (const Set set : sets) {
    StaticTunnelConfigEntry changed;
    set(changed);
    EXPECT_TRUE(changed);
  }
}

// Catches a map that prints like a set of another kind, and vias lost on the way.
TEST(StaticTunnelConfigEntries, textAndLog) {
  auto one = entry("t", {
                            {hop("A", 1), true },
                            {hop("B", 1), false}
  });
  one.inStaticTunnelModeIs(true);
  const std::string via =
      "Value('Tunnel::TunnelTable::MplsVia', ** {'nexthop': '10.0.0.1', 'intfId': 'A', "
      "'labels': push[16]})";
  const std::string text = valueToStrep(one).c_str();
  EXPECT_EQ(text.find("Value('Tunnel::Static::StaticTunnelConfigEntry', ** {'name': 't', "
                      "'tep': '', 'via': {" +
                      via + ": True, Value("),
            0u)
      << text;
  EXPECT_NE(
      text.find("): False}, 'backupVia': Value('Tunnel::TunnelTable::MplsVia', ** "),
      text.npos);
  EXPECT_EQ(text.substr(text.size() - 30), ", 'inStaticTunnelMode': True})");

  Kop::NboAttrLog::Out out;
  out << one;
  Kop::NboAttrLog::In in(out.data(), out.size());
  EXPECT_TRUE(StaticTunnelConfigEntry(in) == one);
  Kop::NboAttrLog::Out twice;  // the same via twice
  Kop::NboAttrLog::write(twice, Kop::String("t"));
  twice << IpGenPrefix();
  twice.writeU32(2);
  for (int i = 0; i < 2; ++i) {
    twice << hop("A", 1);
    twice.writeU8(1);
  }
  twice << MplsVia();
  twice.writeU8(0);
  Kop::NboAttrLog::In same(twice.data(), twice.size());
  EXPECT_THROW(StaticTunnelConfigEntry{same}, Kop::LogCorruptException);
}

// Catches a text constructor that answers instead of ending the process.
TEST(StaticTunnelConfigDeathTest, noStringConstructor) {
  testing::GTEST_FLAG(death_test_style) = "fast";
  EXPECT_EXIT(Kop::strepToValue<StaticTunnelConfigEntry>(valueToStrep(entry(""))),
              testing::KilledBySignal(SIGABRT),
              "Tunnel/StaticTunnelConfig: .*Assertion \"!\"No String constructor for "
              "StaticTunnelConfigEntry - has collection\"\" failed");
}

// Catches a tunnel stored under another name than its own, or a change that is told twice.
TEST(StaticTunnelConfigs, eachChangeIsToldOnce) {
  const auto config = Static::configFactory("static");
  Watch watch;
  config->notifieeAdd(&watch);
  auto one = entry("one", {
                              {hop("A", 1), true}
  });
  config->entryIs(one);
  config->entryIs(one);
  EXPECT_EQ(watch.taken(), Events{"one"});
  one.inStaticTunnelModeIs(true);
  config->entryIs(one);
  EXPECT_EQ(watch.taken(), Events{"one"});
  one.viaIs(hop("A", 1), false);  // a flag alone
  config->entryIs(one);
  config->entryIs(entry("two"));
  EXPECT_EQ(watch.taken(), (Events{"one", "two"}));
  EXPECT_TRUE(config->entry("one") == one && config->entryCount() == 2);
  EXPECT_FALSE(config->entryDel("three"));
  EXPECT_TRUE(watch.taken().empty());
  EXPECT_TRUE(config->entryDel("one") == one);
  config->entryDelAll();
  EXPECT_EQ(watch.taken(), (Events{"one", "two"}));
  config->notifieeDel(&watch);
}

// Catches a metric cut to the width of the preference, or left out of the comparison.
TEST(NexthopGroupTunnels, entries) {
  const IpGenPrefix net(Kop::String("10.0.0.0/8"));
  const NexthopGroupTunnelConfigEntry one(net, "group", U8{255}, 4294967295u);
  EXPECT_EQ(
      valueToStrep(one),
      "Value('Tunnel::NexthopGroup::NexthopGroupTunnelConfigEntry', ** {'tep': "
      "'10.0.0.0/8', 'nhgName': 'group', 'igpPref': 255, 'igpMetric': 4294967295})");
  const auto config = NexthopGroup::ConfigInput::ConfigInputIs("groups");
  config->entryIs(one);
  auto other = one;
  other.igpMetricIs(0xffffff00);
  config->entryIs(other);
  EXPECT_TRUE(config->entry(net) == other && config->entryCount() == 1);
  EXPECT_FALSE(config->entryDel(IpGenPrefix()));
  EXPECT_TRUE(config->entryDel(net) == other);
  NexthopGroupTunnelConfigEntry metricOnly;
  EXPECT_FALSE(metricOnly);
  metricOnly.igpMetricIs(1);
  EXPECT_TRUE(metricOnly);
}

}  // namespace
}  // namespace Tunnel
