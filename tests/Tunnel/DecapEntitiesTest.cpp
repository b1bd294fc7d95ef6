#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Tunnel/MplsTunnelConfig.h"
#include "tests/Tunnel/Samples.h"

// How entities behave towards those who write to them and those who watch, told on the decap
// entities.

namespace Tunnel::Decap {
namespace {

using Events = std::vector<std::string>;
using Samples::Random;
using Samples::sample;
using Vantor::IntfId;
using Vantor::IpGenAddr;

std::string textOf(const Kop::String& text) {
  return text.c_str();
}
template <class K>
std::string textOf(const K& key) {
  return Kop::strepOf(key).c_str();
}
template <class K>
std::string event(U32 attribute, const K& key) {
  return std::to_string(attribute) + ' ' + textOf(key);
}

// Writes down what it hears, with the key as text of the collection's key type.
struct Watch : Kop::Notifiee {
  using KeyText = std::string (*)(Kop::AttributeId, const void*);
  explicit Watch(KeyText keyText) : keyText_(keyText) {}
  void onAttribute(Kop::AttributeId attribute) override {
    add(std::to_string(attribute));
  }
  void onAttribute(Kop::AttributeId attribute, const void* key) override {
    add(std::to_string(attribute) + ' ' + keyText_(attribute, key));
  }
  void onDetached() override { add("detached"); }
  void onParent() override { add("parent"); }
  void add(const std::string& what) {
    events.push_back(what);
    if (then) then();
  }
  Events taken() { return std::exchange(events, {}); }

  Events events;
  std::function<void()> then;

 private:
  KeyText keyText_;
};
template <class K>
std::string textAt(const void* key) {
  return textOf(*static_cast<const K*>(key));
}
std::string groupKey(Kop::AttributeId attribute, const void* key) {
  return attribute == 258 ? textAt<IpGenAddr>(key) : textAt<DecapIntfKey>(key);
}
std::string configKey(Kop::AttributeId attribute, const void* key) {
  return attribute == 258 ? textAt<U16>(key) : textAt<Kop::String>(key);
}
std::string capabilityKey(Kop::AttributeId attribute, const void* key) {
  return attribute == 261 ? textAt<TunnelDecapIpSrc>(key) : textAt<TunnelType>(key);
}

class Entities : public testing::Test {
 protected:
  Entities() { group->notifieeAdd(&watch); }
  ~Entities() override { group->notifieeDel(&watch); }

  Kop::Ptr<ConfigInput> config = configInputFactory("config");
  Kop::Ptr<DecapGroup> group = config->decapGroupIs("g");
  Watch watch{groupKey};
  const IpGenAddr ip1{IpGenAddr("10.0.0.1")}, ip2{IpGenAddr("2001:db8::1")};
  const DecapIntfKey key1{IntfId("Vlan1"), Vantor::ipv4},
      key2{IntfId("Vlan2"), Vantor::ipv6};
};

// Catches a write that is told although it changes nothing, is told twice, or under another
// identifier; and a default that is not all zeros.
TEST_F(Entities, eachChangeIsToldOnce) {
  EXPECT_EQ(group->tunnelType(), unknown);
  EXPECT_EQ(group->payloadType(), unknownPayload);
  EXPECT_EQ(group->destinationPort(), 0);
  EXPECT_FALSE(group->dynamic());
  EXPECT_TRUE(group->hasNotificationActive() && config->hasNotificationActive());

  const DecapIntf primaryIntf(key1, primary, false), allIntf(key1, all, false);
  struct Row {
    const char* what;
    std::function<void()> write;
    Events told;
  };
  const Row rows[] = {
      {"equal",            [&] { group->tunnelTypeIs(unknown); },          {}                },
      {"changed",          [&] { group->tunnelTypeIs(gre); },              {"261"}           },
      {"same again",       [&] { group->tunnelTypeIs(gre); },              {}                },
      {"port",             [&] { group->destinationPortIs(4789); },        {"262"}           },
      {"payload",          [&] { group->payloadTypeIs(mpls); },            {"263"}           },
      {"dynamic",          [&] { group->dynamicIs(true); },                {"264"}           },
      {"new entry",        [&] { group->decapIpIs(ip1, true); },           {event(258, ip1)} },
      {"same entry",       [&] { group->decapIpIs(ip1, true); },           {}                },
      {"false is present", [&] { group->decapIpIs(ip1, false); },          {event(258, ip1)} },
      {"new and false",    [&] { group->decapIpIs(ip2, false); },          {event(258, ip2)} },
      {"value",            [&] { group->decapIntfIs(key1, primaryIntf); }, {event(259, key1)}},
      {"same value",       [&] { group->decapIntfIs(key1, primaryIntf); }, {}                },
      {"other value",      [&] { group->decapIntfIs(key1, allIntf); },     {event(259, key1)}},
      {"another key",      [&] { group->decapIntfIs(key2, allIntf); },     {event(259, key2)}},
      {"absent delete",    [&] { group->decapIntfDel(DecapIntfKey()); },   {}                },
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    row.write();
    EXPECT_EQ(watch.taken(), row.told);
  }
  EXPECT_TRUE(group->decapIpHas(ip1) && group->decapIpHas(ip2));
  EXPECT_FALSE(group->decapIp(ip1));
  EXPECT_TRUE(group->decapIntf(key2) ==
              allIntf);  // stored under another key than its own
  EXPECT_TRUE(group->decapIntfDel(key1) == allIntf);
  EXPECT_EQ(watch.taken(), Events{event(259, key1)});
  EXPECT_TRUE(group->decapIntfDel(key1) == DecapIntf());
  EXPECT_TRUE(group->decapExcludeIntfSetDel(key1) == DecapExcludeIntfSet());
  EXPECT_FALSE(group->decapIpDel(IpGenAddr()));
  EXPECT_EQ(watch.taken(), Events());
}

// Catches an observer that is told before the change is made.
TEST_F(Entities, aChangeIsToldAfterItIsMade) {
  watch.then = [&] { EXPECT_TRUE(group->decapIpHas(ip1)); };
  group->decapIpIs(ip1, true);
  watch.then = [&] { EXPECT_FALSE(group->decapIpHas(ip1)); };
  group->decapIpDel(ip1);
  watch.then = [&] { EXPECT_EQ(group->destinationPort(), 9); };
  group->destinationPortIs(9);
  watch.then = nullptr;
  EXPECT_EQ(watch.events.size(), 3u);
}

// Catches a value with a set that is compared or stored without it.
TEST_F(Entities, aSetIsPartOfItsValue) {
  DecapExcludeIntfSet set(key1);
  set.excludeIntfIs(IntfId("Vlan3"));
  group->decapExcludeIntfSetIs(key1, set);
  group->decapExcludeIntfSetIs(key1, set);
  set.excludeIntfIs(IntfId("Vlan4"));
  group->decapExcludeIntfSetIs(key1, set);
  set.excludeIntfDel(IntfId("Vlan4"));  // the stored one is its own
  EXPECT_EQ(group->decapExcludeIntfSet(key1).excludeIntf().count(), 2u);
  EXPECT_EQ(watch.taken(), (Events{event(260, key1), event(260, key1)}));
}

// Catches an entry that loses its place when it is overwritten, and a clear that is told to
// nobody or in another order than the walk.
TEST_F(Entities, placesAndClearing) {
  const auto walk = [&] {
    Events keys;
    for (const auto& node : group->decapIp())
      keys.push_back(event(258, node.key()));
    return keys;
  };
  for (U32 i = 0; i < 20; ++i)
    group->decapIpIs(IpGenAddr::fromIpv4(i), true);
  const Events order = walk();
  EXPECT_EQ(order.size(), 20u);
  for (U32 i = 0; i < 20; i += 3)
    group->decapIpIs(IpGenAddr::fromIpv4(i), false);
  EXPECT_EQ(walk(), order);
  watch.taken();
  group->decapIpDelAll();
  EXPECT_EQ(watch.taken(), order);
  EXPECT_EQ(group->decapIpCount(), 0u);

  group->decapIpIs(ip1, true);
  watch.taken();
  group->notifieeDel(&watch);
  group->decapIpDelAll();
  EXPECT_EQ(group->decapIpCount(), 0u);
  EXPECT_EQ(watch.taken(), Events());
}

// Catches a key or value that is read again after the node it stands in has gone or moved.
TEST_F(Entities, argumentsMayStandInTheMap) {
  Random random(Samples::seed);
  for (int i = 0; i < 40; ++i)
    group->decapIntfIs(sample<DecapIntfKey>(random), sample<DecapIntf>(random));
  const auto& map = group->decapIntf();
  while (map.count() < 200) {  // grows under its own value
    const DecapIntf& value = map.begin()->value;
    const DecapIntf expected = value;
    const auto key = sample<DecapIntfKey>(random);
    group->decapIntfIs(key, value);
    EXPECT_TRUE(group->decapIntf(key) == expected);
  }
  watch.taken();
  while (map.count() > 0) {
    const DecapIntfKey& key = map.begin()->key();
    const std::string told = event(259, key);
    group->decapIntfDel(key);
    EXPECT_EQ(watch.taken(), Events{told});
  }
}

// Catches a child that is made or told twice, or that leaves with its parent or without its
// contents.
TEST(DecapConfig, portsAndGroups) {
  Watch watch(configKey);
  const auto config = ConfigInput::ConfigInputIs("config");
  EXPECT_NE(config, configInputFactory("config"));  // each call makes one
  EXPECT_EQ(config->name(), "config");
  config->notifieeAdd(&watch);
  config->globalDestPortToPayloadTypeIs(4789, mpls);
  config->globalDestPortToPayloadTypeIs(4789, mpls);
  EXPECT_EQ(watch.taken(), Events{"258 4789"});
  EXPECT_EQ(config->globalDestPortToPayloadType(1), unknownPayload);
  EXPECT_EQ(config->globalDestPortToPayloadTypeDel(4789), mpls);
  EXPECT_EQ(config->globalDestPortToPayloadTypeDel(4789), unknownPayload);
  EXPECT_EQ(watch.taken(), Events{"258 4789"});

  const auto group = config->decapGroupIs("g");
  EXPECT_EQ(watch.taken(), Events{"259 g"});
  EXPECT_EQ(group->name(), "g");
  EXPECT_EQ(group->parent(), config.get());
  group->destinationPortIs(7);
  EXPECT_EQ(config->decapGroupIs("g"), group);
  EXPECT_EQ(config->decapGroup("g")->destinationPort(), 7);  // nothing is reset
  EXPECT_EQ(config->decapGroup("h"), nullptr);
  EXPECT_EQ(watch.taken(), Events());

  // Told when the group has left: out of the map, without a parent, its contents untouched.
  watch.then = [&] {
    EXPECT_FALSE(config->decapGroupHas("g"));
    EXPECT_EQ(group->parent(), nullptr);
  };
  EXPECT_EQ(config->decapGroupDel("g"), group);
  watch.then = nullptr;
  EXPECT_EQ(group->destinationPort(), 7);
  EXPECT_EQ(config->decapGroupDel("g"), nullptr);
  EXPECT_EQ(watch.taken(), Events{"259 g"});
  const auto next = config->decapGroupIs("g");
  EXPECT_NE(next, group);
  EXPECT_EQ(next->destinationPort(), 0);
  config->notifieeDel(&watch);

  // Children leave one by one even when nobody watches.
  const auto other = config->decapGroupIs("h");
  config->decapGroupDelAll();
  EXPECT_EQ(next->parent(), nullptr);
  EXPECT_EQ(other->parent(), nullptr);
  EXPECT_EQ(config->decapGroupCount(), 0u);
}

// Catches an entity whose parts go in another order: an observer must hear of each child and
// then of the end, and of nothing after it; and objects that are never released.
TEST(DecapConfig, destruction) {
  const auto live = [] {
    return ConfigInput::kopAllocTrack().live() + DecapGroup::kopAllocTrack().live();
  };
  const U64 before = live(), made = DecapGroup::kopAllocTrack().total();
  Watch watch(configKey), onGroup(groupKey);
  auto config = configInputFactory("config");
  Events wanted;
  for (const char* name : {"a", "b", "c"})
    config->decapGroupIs(name)->decapIpIs(IpGenAddr("10.0.0.1"), true);
  for (const auto& node : config->decapGroup())
    wanted.push_back(event(259, node.key()));
  wanted.push_back("detached");
  config->globalDestPortToPayloadTypeIs(1, mpls);
  Kop::Ptr<DecapGroup> kept = config->decapGroup("b");
  kept->notifieeAdd(&onGroup);
  config->notifieeAdd(&watch);
  EXPECT_EQ(live(), before + 4);
  EXPECT_EQ(DecapGroup::kopAllocTrack().total(), made + 3);
  // Takes and drops a reference to what is being released.
  ConfigInput* const dying = config.get();
  watch.then = [&] {
    if (watch.events.back() != "detached")
      Kop::Ptr<ConfigInput>(dying)->decapGroupCount();
  };
  config = nullptr;
  EXPECT_EQ(watch.taken(), wanted);
  EXPECT_EQ(live(), before + 1);
  EXPECT_EQ(kept->parent(), nullptr);
  EXPECT_TRUE(kept->decapIpHas(IpGenAddr("10.0.0.1")));
  onGroup.taken();
  kept = nullptr;
  EXPECT_EQ(onGroup.taken(), Events{"detached"});
  EXPECT_EQ(live(), before);
}

// Catches a visit that breaks when the list of observers changes under it.
TEST_F(Entities, observersChangeDuringAVisit) {
  Watch second(groupKey), third(groupKey);
  group->notifieeAdd(&second);
  watch.then = [&] {
    group->notifieeAdd(&third);   // hears of the next change
    group->notifieeDel(&second);  // hears of none any more
  };
  group->tunnelTypeIs(gre);
  EXPECT_EQ(third.taken(), Events());
  EXPECT_EQ(second.taken(), Events());
  watch.then = [&] { group->notifieeDel(&watch); };
  group->tunnelTypeIs(udp);
  group->tunnelTypeIs(ipip);
  EXPECT_EQ(watch.taken(), (Events{"261", "261"}));
  EXPECT_EQ(third.taken(), (Events{"261", "261"}));
  // Writes that are made by an observer are told like any other, inside of the first.
  third.then = [&] { group->destinationPortIs(9); };
  group->tunnelTypeIs(gre);
  EXPECT_EQ(third.taken(), (Events{"261", "262"}));
  third.then = [&] { group->decapIpDelAll(); };
  group->decapIpIs(ip1, true);
  EXPECT_EQ(third.taken(), (Events{event(258, ip1), event(258, ip1)}));
  third.then = nullptr;
  group->notifieeDel(&third);
}

// Catches a visit or a clear that goes on in an entity which its observer released.
TEST(DecapConfig, lastReferenceDroppedDuringAVisit) {
  const U64 before = ConfigInput::kopAllocTrack().live();
  using Write = void (*)(ConfigInput&);
  constexpr Write writes[] = {
      [](ConfigInput& config) { config.globalDestPortToPayloadTypeIs(1, mpls); },
      [](ConfigInput& config) { config.globalDestPortToPayloadTypeDel(7); },
      [](ConfigInput& config) { config.globalDestPortToPayloadTypeDelAll(); },
      [](ConfigInput& config) { config.decapGroupIs("new"); },
      [](ConfigInput& config) { config.decapGroupDel("a"); },
      [](ConfigInput& config) { config.decapGroupDelAll(); },
  };
  for (const Write write : writes) {
    Watch watch(configKey);
    auto config = configInputFactory("config");
    for (U16 port = 5; port < 9; ++port)
      config->globalDestPortToPayloadTypeIs(port, ipvx);
    config->decapGroupIs("a");
    config->decapGroupIs("b");
    config->notifieeAdd(&watch);
    watch.then = [&] { config = nullptr; };
    write(*config);
    EXPECT_EQ(config, nullptr);
    ASSERT_FALSE(watch.events.empty());
    EXPECT_EQ(watch.events.back(), "detached");
    EXPECT_EQ(ConfigInput::kopAllocTrack().live(), before);
  }
}

// Catches a reaction that is wired to another attribute.
TEST_F(Entities, reactorsHearByName) {
  struct Reactions : Kop::Reactor<DecapGroup> {
    using Reactor::Reactor;
    void destinationPortReaction() override {
      told.push_back("port " + std::to_string(notifier()->destinationPort()));
    }
    void decapIpReaction(const IpGenAddr& ip) override {
      told.push_back("ip " + textOf(ip));
    }
    void decapIntfReaction(const DecapIntfKey& key) override {
      told.push_back("intf " + textOf(key));
    }
    Events told;
  } reactions(group);
  group->destinationPortIs(5);
  group->tunnelTypeIs(gre);
  group->decapIntfIs(key1, DecapIntf());
  group->decapIpIs(ip1, true);
  EXPECT_EQ(reactions.told,
            (Events{"port 5", "intf " + textOf(key1), "ip " + textOf(ip1)}));
  reactions.notifierIs(nullptr);
  group->destinationPortIs(6);
  EXPECT_EQ(reactions.told.size(), 3u);
}

// One collection of a group against a plain map, with all that is told about it.
template <U32 id, class K, class V, class Is, class Del, class DelAll, class Map>
void againstAModel(Is is, Del del, DelAll delAll, const Map& map) {
  Random random(Samples::seed + id);
  Watch watch(groupKey);
  const auto config = configInputFactory("config");
  const auto group = config->decapGroupIs("g");
  const auto& real = ((*group).*map)();
  std::vector<K> keys;
  for (int i = 0; i < 30; ++i)
    keys.push_back(sample<K>(random));
  std::map<std::string, V> model;
  bool watched = false;
  for (int step = 0; step < 4000; ++step) {
    const K& key = keys[random() % keys.size()];
    const std::string text = textOf(key);
    const auto at = model.find(text);
    Events wanted;
    switch (random() % 100) {
      case 0: {
        if (watched)
          for (const auto& node : real)
            wanted.push_back(event(id, node.key()));
        ((*group).*delAll)();
        model.clear();
        break;
      }
      case 1:
        watched = !watched;
        if (watched)
          group->notifieeAdd(&watch);
        else
          group->notifieeDel(&watch);
        break;
      default: {
        if (random() % 2 == 0) {
          const V value = sample<V>(random);
          if (at == model.end() || !(at->second == value)) wanted = {event(id, key)};
          ((*group).*is)(key, value);
          model[text] = value;
        } else {
          if (at != model.end()) wanted = {event(id, key)};
          const V removed = ((*group).*del)(key);
          ASSERT_TRUE(removed == (at == model.end() ? V() : at->second)) << step;
          model.erase(text);
        }
      }
    }
    ASSERT_EQ(watch.taken(), watched ? wanted : Events()) << step;
    ASSERT_EQ(real.count(), model.size()) << step;
    const auto* node = real.find(key);
    ASSERT_EQ(node != nullptr, model.contains(text)) << step;
    ASSERT_TRUE(!node || node->value == model[text]) << step;
  }
  std::map<std::string, V> walked;
  for (const auto& node : real)
    walked.emplace(textOf(node.key()), node.value);
  EXPECT_TRUE(walked == model);
  real.verify();
  if (watched) group->notifieeDel(&watch);
}

// Catches a collection that differs from a map, or tells of what did not happen.
TEST(DecapGroupRandomly, collectionsAgainstAModel) {
  using G = DecapGroup;
  againstAModel<258, IpGenAddr, bool>(
      &G::decapIpIs, &G::decapIpDel, &G::decapIpDelAll,
      static_cast<const G::KopDecapIpMap& (G::*)() const>(&G::decapIp));
  againstAModel<259, DecapIntfKey, DecapIntf>(
      &G::decapIntfIs, &G::decapIntfDel, &G::decapIntfDelAll,
      static_cast<const G::KopDecapIntfMap& (G::*)() const>(&G::decapIntf));
  againstAModel<260, DecapIntfKey, DecapExcludeIntfSet>(
      &G::decapExcludeIntfSetIs, &G::decapExcludeIntfSetDel,
      &G::decapExcludeIntfSetDelAll,
      static_cast<const G::KopDecapExcludeIntfSetMap& (G::*)() const>(
          &G::decapExcludeIntfSet));
}

// Catches a child that is made twice, lost, kept alive, or left with a parent.
TEST(DecapGroupRandomly, childrenAgainstAModel) {
  const U64 before = DecapGroup::kopAllocTrack().live();
  {
    Random random(Samples::seed);
    Watch watch(configKey);
    const auto config = configInputFactory("config");
    config->notifieeAdd(&watch);
    std::map<std::string, Kop::Ptr<DecapGroup>> model;
    std::vector<Kop::Ptr<DecapGroup>> removed;
    for (int step = 0; step < 3000; ++step) {
      const std::string name = "group-with-a-long-name-" + std::to_string(random() % 25);
      const auto at = model.find(name);
      if (random() % 100 == 0) {
        config->decapGroupDelAll();
        ASSERT_EQ(watch.taken().size(), model.size());
        for (const auto& [key, child] : model)
          removed.push_back(child);
        model.clear();
      } else if (random() % 2 == 0) {
        const auto child = config->decapGroupIs(name);
        ASSERT_EQ(child->parent(), config.get());
        ASSERT_TRUE(at == model.end() || at->second == child);
        ASSERT_EQ(watch.taken(), at == model.end() ? Events{"259 " + name} : Events());
        model[name] = child;
      } else {
        const auto child = config->decapGroupDel(name);
        ASSERT_EQ(child, at == model.end() ? nullptr : at->second);
        ASSERT_EQ(watch.taken(), child ? Events{"259 " + name} : Events());
        if (child) removed.push_back(child);
        model.erase(name);
      }
      for (const auto& child : removed)
        ASSERT_EQ(child->parent(), nullptr);
      if (removed.size() > 10) removed.clear();
      ASSERT_EQ(DecapGroup::kopAllocTrack().live(),
                before + model.size() + removed.size());
    }
    config->notifieeDel(&watch);
  }
  EXPECT_EQ(DecapGroup::kopAllocTrack().live(), before);
}

// Catches attributes of a plain entity that are crossed.
TEST(DecapHardware, capabilityAndStatus) {
  Watch watch(capabilityKey);
  const auto capability = Hardware::capabilityFactory("capability");
  capability->notifieeAdd(&watch);
  using C = Hardware::Capability;
  struct Row {
    const char* told;
    const bool& (C::*get)() const;
    void (C::*set)(const bool&);
  };
  const Row rows[] = {
      {"258", &C::ip6DecapFeatureWarning,            &C::ip6DecapFeatureWarningIs    },
      {"259", &C::decapSupported,                    &C::decapSupportedIs            },
      {"260", &C::decapPrefixSupported,              &C::decapPrefixSupportedIs      },
      {"264", &C::multiDecapIpSupported,             &C::multiDecapIpSupportedIs     },
      {"265", &C::perDecapGroupUdpDestPortSupported,
       &C::perDecapGroupUdpDestPortSupportedIs                                       },
      {"266", &C::globalUdpDestPortSupported,        &C::globalUdpDestPortSupportedIs},
  };
  for (const Row& row : rows) {
    EXPECT_FALSE((*capability.*row.get)());
    (*capability.*row.set)(true);
    EXPECT_TRUE((*capability.*row.get)());
    (*capability.*row.set)(true);
    EXPECT_EQ(watch.taken(), Events{row.told});
  }
  capability->decapTunnelTypeSupportedIs(gre, true);
  capability->decapTunnelTypeSupportedIs(gre, true);
  EXPECT_EQ(watch.taken(), Events{"262 gre"});
  EXPECT_FALSE(capability->decapTunnelIp6DestinationSupportedDel(udp));
  capability->decapTunnelIp6DestinationSupportedIs(udp, true);
  capability->decapIpSrcSupportedIs(intf, true);
  EXPECT_TRUE(capability->decapIpSrcSupportedDel(intf));
  EXPECT_EQ(watch.taken(), (Events{"263 udp", "261 intf", "261 intf"}));
  capability->notifieeDel(&watch);

  const auto status = Hardware::Status::StatusIs("status");
  status->notifieeAdd(&watch);
  EXPECT_FALSE(status->hwResourceFull());
  status->hwResourceFullIs(true);
  status->hwResourceFullIs(true);
  EXPECT_EQ(watch.taken(), Events{"258"});
  status->notifieeDel(&watch);

  const auto mplsConfig = mplsTunnelConfigFactory("config");
  mplsConfig->notifieeAdd(&watch);
  mplsConfig->entropyLabelPushIs(false);
  EXPECT_EQ(watch.taken(), Events());
  mplsConfig->entropyLabelPushIs(true);
  mplsConfig->entropyLabelPushIs(true);
  EXPECT_EQ(watch.taken(), Events{"258"});
  mplsConfig->notifieeDel(&watch);
}

}  // namespace
}  // namespace Tunnel::Decap
