#include <csignal>
#include <span>

#include <gtest/gtest.h>

#include "Kop/Module.h"
#include "Tunnel/DecapGroupHivelTypes.h"
#include "Tunnel/IpTunnels.h"
#include "Tunnel/MldpTunnelHivelTypes.h"
#include "Tunnel/MplsTunnelConfig.h"
#include "Tunnel/NexthopGroupTunnelConfigInput.h"
#include "Tunnel/StaticTunnelConfig.h"
#include "Tunnel/TunnelRibId.h"
#include "Tunnel/TunnelTableHivelTypes.h"
#include "Tunnel/Vias.h"

// Texts that others read, by hand: one for each shape of the machine form, and every form for
// people. That a record's text is that of its attributes is in ValueLawsTest.cpp.

namespace Tunnel {
namespace {

using namespace TunnelTable;
using Static::StaticTunnelConfigEntry;
using Vantor::IntfId;
using Vantor::IpGenAddr;
using Vantor::IpGenPrefix;

MplsVia hop(const char* intf, U32 last, U32 label = 16) {
  return {IpGenAddr::fromIpv4(0x0a000000 | last), IntfId(intf),
          Vantor::MplsLabelOperation(Vantor::push, std::span(&label, 1))};
}

// Catches a name, quote, blank or bracket that moved, and flags that print as one of their
// bits.
TEST(Texts, machineForm) {
  const MplsCosVia via(IpGenAddr("10.0.0.1"), IntfId("Vlan1"),
                       Vantor::DynamicMplsLabelStack{16, 20}, Vantor::IpDscp(46), U3(5));
  EXPECT_EQ(valueToStrep(via),
            "Value('Tunnel::TunnelTable::MplsCosVia', ** {'nexthop': '10.0.0.1', "
            "'intfId': 'Vlan1', 'labels': [16, 20], 'ipDscp': 46, 'mplsExp': 5})");
  BgpLuVia lu;
  lu.viaIs(Via(), true);
  EXPECT_EQ(valueToStrep(lu),
            "Value('Tunnel::TunnelTable::BgpLuVia', ** {'via': None, 'labels': "
            "noOperation[]})");
  StaticTunnelConfigEntry entry(Kop::String("t"));
  entry.viaIs(hop("A", 1), true);
  entry.viaIs(hop("B", 1), false);
  EXPECT_EQ(
      valueToStrep(entry),
      "Value('Tunnel::Static::StaticTunnelConfigEntry', ** {'name': 't', 'tep': '', "
      "'via': {Value('Tunnel::TunnelTable::MplsVia', ** {'nexthop': '10.0.0.1', "
      "'intfId': 'A', 'labels': push[16]}): True, "
      "Value('Tunnel::TunnelTable::MplsVia', ** {'nexthop': '10.0.0.1', 'intfId': "
      "'B', 'labels': push[16]}): False}, 'backupVia': "
      "Value('Tunnel::TunnelTable::MplsVia', ** {'nexthop': '', 'intfId': '', "
      "'labels': noOperation[]}), 'inStaticTunnelMode': False})");
  IpsecGreTunnelInfo info;
  info.oFlagsIs(static_cast<GreHdrFlagsType>(checksumFlag | keyFlag));
  info.iFlagsIs(sequenceFlag);
  EXPECT_EQ(valueToStrep(info),
            "Value('Tunnel::IpsecGreTunnelInfo', ** {'src': '', 'dst': '', 'tos': 0, "
            "'ttl': 0, 'pathMtuDiscovery': False, 'protocol': 0, 'oFlags': 40960, "
            "'iFlags': sequenceFlag, 'oKey': 0, 'iKey': 0, 'ipsecTableIndex': 0})");
  // Every byte of the name, and no byte behind its end.
  TunnelTableEntry full(TunnelId(1), TunnelEntryPref(2));
  full.setName("a'b");
  full.tepIs(IpGenPrefix("::/0"));
  EXPECT_EQ(valueToStrep(full),
            "Value('Tunnel::TunnelTable::TunnelTableEntry', ** {'tunnelId': 1, "
            "'nexthopTunnelId': 0, 'entryPref': 2, 'entryMetric': 0, 'tunnelBw': 0.0, "
            "'endpoint': ['::/0'], 'name': 'a\\'b'})");
}

// Catches quotes on the command line, a word where a digit belongs, and a colour that is shown
// though it means nothing.
TEST(Texts, forPeople) {
  const Decap::DecapIntfKey vlan(IntfId("Vlan1"), Vantor::ipv6);
  const IpGenPrefix net("10.0.0.0/8");
  const std::pair<Kop::String, const char*> rows[] = {
      {vlan.stringValue(),                                                           " Intf: Vlan1 address-family: ipv6"},
      {Decap::DecapIntf(vlan,                                                        Decap::all,                          true).stringValue(),
       " Intf: Vlan1 address-family: ipv6 address-type: all oldConfig: 1"},
      {Decap::DecapIntf().stringValue(),
       " Intf:  address-family: noAddressFamily address-type: primary oldConfig: 0"                                             },
      {VxlanTunnelInfo(IpGenAddr("10.0.0.1"), IntfId("Vxlan1")).toStrep(),
       "10.0.0.1,Vxlan1"},
      {ColoredTunnelEndpoint(net,                                                 100,                                                                                                 true).stringValue(), "10.0.0.0/8|100"},
      {ColoredTunnelEndpoint(net,                                                    100,                                    false).stringValue(), "10.0.0.0/8"},
      {TunnelTableInfo("ldp",                                                            "ldpTunnel").mountPath(),                                                                                               "tunnel/table/ldp"},
      {MldpTunnelRib::mountPath(),                      "tunnel/tunnelMrib/mldp" },
  };
  for (const auto& [text, wanted] : rows)
    EXPECT_EQ(text, wanted);
}

// Catches a text constructor that answers instead of ending the process.
TEST(TextsDeathTest, collectionsHaveNoStringConstructor) {
  testing::GTEST_FLAG(death_test_style) = "fast";
  const struct {
    const char *module, *type;
  } rows[] = {
      {"DecapGroupHivelTypes",  "Tunnel::Decap::DecapExcludeIntfSet"     },
      {"StaticTunnelConfig",    "Tunnel::Static::StaticTunnelConfigEntry"},
      {"TunnelBasicTypes",      "Tunnel::TunnelTable::BgpLuVia"          },
      {"TunnelTableHivelTypes", "Tunnel::TunnelTable::TunnelTableEntry"  },
  };
  for (const auto& row : rows) {
    Kop::GenericValue value(Kop::findType(row.type)->value->ops);
    const std::string name =
        std::string(row.type).substr(std::string(row.type).rfind(':') + 1);
    EXPECT_EXIT(value.textIs(value.text()), testing::KilledBySignal(SIGABRT),
                "Tunnel/" + std::string(row.module) +
                    ": .*Assertion \"!\"No String constructor for " + name +
                    " - has collection\"\" failed")
        << row.type;
  }
}

// Catches a second name that has bytes of its own.
TEST(Rules, secondNamesAndNullPrefixes) {
  L3TunnelInfo info;
  info.dscpIs(46);
  info.hoplimitIs(64);
  EXPECT_TRUE(info.tos() == 46 && info.ttl() == 64);
  info.tosIs(255);
  EXPECT_TRUE(info.dscp() == 255 && info.hoplimit() == 64);
  for (const char* prefix : {"0.0.0.0/0", "::/0", "10.0.0.0/0", "::/1", ""}) {
    const ColoredTunnelEndpoint end(IpGenPrefix(Kop::String(prefix)), 0, false);
    EXPECT_EQ(end.isNullPrefix(),
              std::string(prefix).starts_with("0.") || std::string(prefix) == "::/0");
    EXPECT_EQ(end.ipGenAddr(), end.tep().ipGenAddr());
  }
}

// Catches vias that stand in the order they came or are kept twice, a walk that is lost when
// its via is deleted, and a via that stands twice in the log.
TEST(Rules, staticViasInOrder) {
  StaticTunnelConfigEntry entry;
  for (const auto& via : {hop("B", 1), hop("A", 2), hop("A", 1, 17)})
    entry.viaIs(via, true);
  const auto walk = [&] {
    std::string text;
    for (const auto& node : entry.via())
      text += node.key().intfId().stringValue().c_str() +
              std::to_string(node.key().nexthop().bytes()[3]) +
              (node.value() ? "+ " : "- ");
    return text;
  };
  EXPECT_EQ(walk(), "A1+ A2+ B1+ ");
  entry.viaIs(hop("A", 2), false);
  entry.viaIs(hop("A", 1, 16), true);  // label 16 before label 17
  EXPECT_EQ(walk(), "A1+ A1+ A2- B1+ ");
  auto it = entry.viaIterator();
  entry.viaDel(it);
  it.advance();
  EXPECT_EQ(it.key(), hop("A", 1, 17));
  entry.viaDel(hop("Z", 2));
  EXPECT_EQ(walk(), "A1+ A2- B1+ ");

  Kop::NboAttrLog::Out twice;
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

// Catches a factory of another type, and one that gives out an entity twice.
template <class T>
void expectMakes(Kop::Ptr<T> (*factory)(const Kop::String&),
                 Kop::Ptr<T> (*is)(const Kop::String&)) {
  const auto entity = factory("e");
  EXPECT_EQ(Kop::typeRecord(entity->fwkType()).name, Kop::typeName<T>());
  EXPECT_TRUE(entity->name() == "e" && entity->hasNotificationActive());
  EXPECT_NE(is("e"), entity);
}
TEST(Factories, makeANewEntityEachTime) {
  namespace Hardware = Decap::Hardware;
  expectMakes(Decap::configInputFactory, Decap::ConfigInput::ConfigInputIs);
  expectMakes(Decap::countersClearConfigFactory,
              Decap::CountersClearConfig::CountersClearConfigIs);
  expectMakes(Hardware::capabilityFactory, Hardware::Capability::CapabilityIs);
  expectMakes(Hardware::statusFactory, Hardware::Status::StatusIs);
  expectMakes(mplsTunnelConfigFactory, MplsTunnelConfig::MplsTunnelConfigIs);
  expectMakes(Static::configFactory, Static::Config::ConfigIs);
  expectMakes(NexthopGroup::configInputFactory, NexthopGroup::ConfigInput::ConfigInputIs);
  expectMakes(l3TunnelInfoTableFactory, L3TunnelInfoTable::L3TunnelInfoTableIs);
  expectMakes(greTunnelInfoTableFactory, GreTunnelInfoTable::GreTunnelInfoTableIs);
  expectMakes(ipsecGreTunnelInfoTableFactory,
              IpsecGreTunnelInfoTable::IpsecGreTunnelInfoTableIs);
  expectMakes(ipsecVtiTunnelInfoTableFactory,
              IpsecVtiTunnelInfoTable::IpsecVtiTunnelInfoTableIs);
  expectMakes(tunnelRibNameIdMapFactory, TunnelRibNameIdMap::TunnelRibNameIdMapIs);
  expectMakes(tunnelTableBaseFactory, TunnelTableBase::TunnelTableBaseIs);
  expectMakes(tunnelTableInfoCollectionFactory,
              TunnelTableInfoCollection::TunnelTableInfoCollectionIs);
  expectMakes(bgpLuConvergenceFactory, BgpLuConvergence::BgpLuConvergenceIs);
  expectMakes(tunnelConvergenceFactory, TunnelConvergence::TunnelConvergenceIs);
  expectMakes(protocolTunnelNameStatusFactory,
              ProtocolTunnelNameStatus::ProtocolTunnelNameStatusIs);
  expectMakes(nexthopTunnelTableFactory, NexthopTunnelTable::NexthopTunnelTableIs);
  expectMakes(nexthopHwTunnelTableFactory, NexthopHwTunnelTable::NexthopHwTunnelTableIs);
  expectMakes(mldpTunnelRibFactory, MldpTunnelRib::MldpTunnelRibIs);
}

}  // namespace
}  // namespace Tunnel
