// Stops with one of everything that the pretty-printers show.
#include "Kop/RbTreeMap.h"
#include "Tunnel/DecapGroupHivelTypes.h"
#include "Tunnel/TunnelBasicTypes.h"
#include "Vantor/EthAddr.h"
#include "Vantor/IpGenPrefix.h"
#include "Vantor/MplsLabelOperation.h"

namespace Decap = Tunnel::Decap;
using Tunnel::TunnelTable::TunnelId;

[[gnu::noinline]] void stopHere() {
  asm volatile("");
}

int main() {
  const Kop::String shortText("edge"), longText("a name of more than 15 bytes"), empty;
  const TunnelId tunnel(
      TunnelId::convertToTunnelValue(Tunnel::TunnelTable::ldpTunnel, 26));
  const Tunnel::TunnelTable::EncapId encap(0x40000007);
  [[maybe_unused]] const Vantor::IntfId ethernet("Ethernet3/1.7"), vlan("Vlan12"), none;
  [[maybe_unused]] const auto dynamic = tunnel.intfId();
  const Vantor::IpGenAddr v4("192.0.2.1"), v6("2001:db8::1");
  const Vantor::IpGenPrefix prefix("10.0.0.0/8");
  const Vantor::EthAddr mac("00:1c:73:00:00:99");
  const U32 labels[] = {16, 20};
  const Vantor::MplsLabelOperation push(Vantor::MplsOperation::push, labels);
  Kop::RbTreeMap<Kop::String, U32> ordered;
  for (const char* key : {"b", "c", "a"})
    ordered.insert(key, static_cast<U32>(*key));
  const auto config = Decap::configInputFactory("cli");
  const auto group = config->decapGroupIs("edge");
  group->tunnelTypeIs(Decap::gre);
  group->decapIpIs(v4, true);
  config->globalDestPortToPayloadTypeIs(4754, Decap::ipvx);
  Kop::HSet<Vantor::IntfId> set;
  set.is(vlan);
  const Kop::Ptr<Decap::DecapGroup> null;
  stopHere();
  return 0;
}
