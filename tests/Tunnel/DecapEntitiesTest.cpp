#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Tunnel/MplsTunnelConfig.h"
#include "tests/Tunnel/Samples.h"

// The decap entities towards those who write to them and those who watch. How any entity
// behaves is tested with the runtime.

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
    events.push_back(std::to_string(attribute));
  }
  void onAttribute(Kop::AttributeId attribute, const void* key) override {
    events.push_back(std::to_string(attribute) + ' ' + keyText_(attribute, key));
  }
  Events taken() { return std::exchange(events, {}); }
  Events events;

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

// Catches a scalar under another identifier or told when nothing changes, an entry that
// counts by its boolean, and a value that is refused because its own key is another one.
TEST(DecapConfig, groups) {
  const auto config = configInputFactory("config");
  const auto group = config->decapGroupIs("g");
  Watch watch(groupKey);
  group->notifieeAdd(&watch);
  EXPECT_TRUE(group->tunnelType() == unknown && group->payloadType() == unknownPayload);
  EXPECT_TRUE(group->destinationPort() == 0 && !group->dynamic());
  for (int twice = 0; twice < 2; ++twice) {
    group->tunnelTypeIs(gre);
    group->destinationPortIs(4789);
    group->payloadTypeIs(mpls);
    group->dynamicIs(true);
  }
  EXPECT_EQ(watch.taken(), (Events{"261", "262", "263", "264"}));
  const IpGenAddr ip("10.0.0.1");
  group->decapIpIs(ip, false);
  EXPECT_TRUE(group->decapIpHas(ip) && !group->decapIp(ip));
  const DecapIntfKey key(IntfId("Vlan1"), Vantor::ipv4),
      other(IntfId("Vlan2"), Vantor::ipv6);
  group->decapIntfIs(other, DecapIntf(key, all, false));
  EXPECT_TRUE(group->decapIntf(other) == DecapIntf(key, all, false));
  EXPECT_EQ(watch.taken(), (Events{event(258, ip), event(259, other)}));
  group->notifieeDel(&watch);

  EXPECT_EQ(config->decapGroupIs("g")->destinationPort(), 4789);  // nothing is reset
  EXPECT_EQ(config->decapGroupDel("g"), group);
  EXPECT_EQ(group->destinationPort(), 4789);
  EXPECT_EQ(config->decapGroupIs("g")->destinationPort(), 0);
}

TEST(DecapConfig, ports) {
  Watch watch(configKey);
  const auto config = ConfigInput::ConfigInputIs("config");
  EXPECT_NE(config, configInputFactory("config"));  // each call makes one
  config->notifieeAdd(&watch);
  config->globalDestPortToPayloadTypeIs(4789, mpls);
  config->globalDestPortToPayloadTypeIs(4789, mpls);
  EXPECT_EQ(config->globalDestPortToPayloadType(1), unknownPayload);
  EXPECT_EQ(config->globalDestPortToPayloadTypeDel(4789), mpls);
  EXPECT_EQ(config->globalDestPortToPayloadTypeDel(4789), unknownPayload);
  EXPECT_EQ(watch.taken(), (Events{"258 4789", "258 4789"}));
  config->notifieeDel(&watch);
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
  const auto status = Hardware::Status::StatusIs("status");
  const auto mplsConfig = mplsTunnelConfigFactory("config");
  using C = Hardware::Capability;
  using Get = std::function<bool()>;
  using Set = std::function<void(bool)>;
  const auto of = [&](const bool& (C::*get)() const, void (C::*set)(const bool&)) {
    return std::pair<Get, Set>([&capability, get] { return (*capability.*get)(); },
                               [&capability, set](bool v) { (*capability.*set)(v); });
  };
  const std::tuple<Kop::Entity*, const char*, std::pair<Get, Set>> rows[] = {
      {capability.get(),                   "258",
       of(&C::ip6DecapFeatureWarning,                                                                &C::ip6DecapFeatureWarningIs)},
      {capability.get(),                                  "259",                                        of(&C::decapSupported,                                   &C::decapSupportedIs)},
      {capability.get(),             "260",                                  of(&C::decapPrefixSupported,                  &C::decapPrefixSupportedIs)},
      {capability.get(),       "264",
       of(&C::multiDecapIpSupported,&C::multiDecapIpSupportedIs)},
      {capability.get(),                       "265",
       of(&C::perDecapGroupUdpDestPortSupported,
       &C::perDecapGroupUdpDestPortSupportedIs)},
      {capability.get(),                   "266",
       of(&C::globalUdpDestPortSupported,                                                     &C::globalUdpDestPortSupportedIs)},
      {status.get(),
       "258",                                        {[&] { return status->hwResourceFull(); },
        [&](bool v) { status->hwResourceFullIs(v); }}                                                 },
      {mplsConfig.get(),
       "258",                      {[&] { return mplsConfig->entropyLabelPush(); },
        [&](bool v) { mplsConfig->entropyLabelPushIs(v); }}},
  };
  for (const auto& [entity, told, attribute] : rows) {
    const auto& [get, set] = attribute;
    entity->notifieeAdd(&watch);
    EXPECT_FALSE(get());
    for (const bool value : {false, true, true})
      set(value);
    EXPECT_TRUE(get());
    EXPECT_EQ(watch.taken(), Events{told});
    entity->notifieeDel(&watch);
  }
  capability->notifieeAdd(&watch);
  capability->decapTunnelTypeSupportedIs(gre, true);
  EXPECT_FALSE(capability->decapTunnelIp6DestinationSupportedDel(udp));
  capability->decapTunnelIp6DestinationSupportedIs(udp, true);
  capability->decapIpSrcSupportedIs(intf, true);
  EXPECT_TRUE(capability->decapIpSrcSupportedDel(intf));
  EXPECT_EQ(watch.taken(), (Events{"262 gre", "263 udp", "261 intf", "261 intf"}));
  capability->notifieeDel(&watch);
}

}  // namespace
}  // namespace Tunnel::Decap
