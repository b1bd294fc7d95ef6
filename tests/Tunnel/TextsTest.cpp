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
#include "tests/Support/Testing.h"

// What is said to people, and small rules of the types. What holds for all of them is in
// ValueLawsTest.cpp.

namespace Tunnel {
namespace {

using namespace TunnelTable;
using Static::StaticTunnelConfigEntry;
using Vantor::IntfId;
using Vantor::IpGenAddr;
using Vantor::IpGenPrefix;

// Catches quotes on the command line, a word where a digit belongs, and a colour that is shown
// though it means nothing.
TEST(Texts, forPeople) {
  const Decap::DecapIntfKey vlan(IntfId("Vlan1"), Vantor::ipv6);
  const IpGenPrefix net("10.0.0.0/8");
  EXPECT_EQ(vlan.stringValue(), " Intf: Vlan1 address-family: ipv6");
  EXPECT_EQ(Decap::DecapIntf(vlan, Decap::all, true).stringValue(),
            " Intf: Vlan1 address-family: ipv6 address-type: all oldConfig: 1");
  EXPECT_EQ(VxlanTunnelInfo(IpGenAddr("10.0.0.1"), IntfId("Vxlan1")).toStrep(),
            "10.0.0.1,Vxlan1");
  EXPECT_EQ(ColoredTunnelEndpoint(net, 100, true).stringValue(), "10.0.0.0/8|100");
  EXPECT_EQ(ColoredTunnelEndpoint(net, 100, false).stringValue(), "10.0.0.0/8");
  EXPECT_EQ(TunnelTableInfo("ldp", "ldpTunnel").mountPath(), "tunnel/table/ldp");
  EXPECT_EQ(MldpTunnelRib::mountPath(), "tunnel/tunnelMrib/mldp");
}

// Catches a second name that has bytes of its own, and a null prefix of another rule.
TEST(Rules, secondNamesAndNullPrefixes) {
  L3TunnelInfo info;
  info.dscpIs(46);
  info.hoplimitIs(64);
  EXPECT_TRUE(info.tos() == 46 && info.ttl() == 64);
  info.tosIs(255);
  EXPECT_TRUE(info.dscp() == 255 && info.hoplimit() == 64);
  for (const char* prefix : {"::/0", "10.0.0.0/0"}) {
    const ColoredTunnelEndpoint end(IpGenPrefix(Kop::String(prefix)), 0, false);
    EXPECT_EQ(end.isNullPrefix(), *prefix == ':');
    EXPECT_EQ(end.ipGenAddr(), end.tep().ipGenAddr());
  }
}

// Catches a walk over static hops that is lost when its hop is deleted.
TEST(Rules, staticHopsAreDeletedUnderTheirWalk) {
  StaticTunnelConfigEntry entry;
  MplsVia hop;
  for (const char* intf : {"B", "A"}) {
    hop.intfIdIs(IntfId(intf));
    entry.viaIs(hop, true);
  }
  auto it = entry.viaIterator();
  EXPECT_EQ(it.key().intfId(), IntfId("A"));
  entry.viaDel(it);
  it.advance();
  EXPECT_EQ(it.key().intfId(), IntfId("B"));
  EXPECT_EQ(entry.via().count(), 1u);
}

// Catches a factory that gives out an entity twice, without its name, or one of another type.
template <class... Ts>
void expectMake(Kop::Ptr<Ts> (*... factories)(const Kop::String&)) {
  const auto expect = []<class T>(Kop::Ptr<T> (*factory)(const Kop::String&)) {
    const auto entity = factory("e");
    EXPECT_EQ(Kop::typeRecord(entity->fwkType()).name, Kop::typeName<T>());
    EXPECT_TRUE(entity->name() == "e" && entity->hasNotificationActive());
    EXPECT_NE(factory("e"), entity);
  };
  (expect(factories), ...);
}
TEST(Factories, makeANewEntityEachTime) {
  expectMake(
      Decap::configInputFactory, Decap::countersClearConfigFactory,
      Decap::Hardware::capabilityFactory, Decap::Hardware::statusFactory,
      mplsTunnelConfigFactory, Static::configFactory, NexthopGroup::configInputFactory,
      l3TunnelInfoTableFactory, greTunnelInfoTableFactory, ipsecGreTunnelInfoTableFactory,
      ipsecVtiTunnelInfoTableFactory, tunnelRibNameIdMapFactory, tunnelTableBaseFactory,
      tunnelTableInfoCollectionFactory, bgpLuConvergenceFactory, tunnelConvergenceFactory,
      protocolTunnelNameStatusFactory, nexthopTunnelTableFactory,
      nexthopHwTunnelTableFactory, mldpTunnelRibFactory);
}

}  // namespace
}  // namespace Tunnel
