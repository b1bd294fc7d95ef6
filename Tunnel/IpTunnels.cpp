#include "Tunnel/IpTunnels.h"

#include <compare>

#include "Kop/ValueImpl.h"

namespace Tunnel {

bool valueLess(const GreTunnelInfo& a, const GreTunnelInfo& b) {
  auto order = a.dst() <=> b.dst();
  if (order == 0) order = a.src() <=> b.src();
  if (order == 0) order = a.oKey() <=> b.oKey();
  if (order == 0) order = a.iKey() <=> b.iKey();
  if (order == 0) order = a.tos() <=> b.tos();
  if (order == 0) order = a.ttl() <=> b.ttl();
  if (order == 0) order = a.pathMtuDiscovery() <=> b.pathMtuDiscovery();
  if (order == 0) order = U32{a.oFlags()} <=> U32{b.oFlags()};
  if (order == 0) order = U32{a.iFlags()} <=> U32{b.iFlags()};
  if (order == 0) order = a.protocol() <=> b.protocol();
  return order < 0;
}

bool valueLess(const IpsecGreTunnelInfo& a, const IpsecGreTunnelInfo& b) {
  return static_cast<const GreTunnelInfo&>(a) < static_cast<const GreTunnelInfo&>(b);
}
IpsecGreTunnelInfo::operator bool() const {
  return !(*this == IpsecGreTunnelInfo());
}

bool valueLess(const IpsecVtiTunnelInfo& a, const IpsecVtiTunnelInfo& b) {
  return static_cast<const L3TunnelInfo&>(a) < static_cast<const L3TunnelInfo&>(b);
}

Kop::String VxlanTunnelInfo::toStrep() const {
  Kop::TextOut out;
  destIp().bareWrite(out);
  out.append(',');
  srcVti().bareWrite(out);
  return out.string();
}

U32 VxlanTunnelInfo::hash(U32 seed) const {
  return Kop::ValueOps<VxlanTunnelInfo>::recordHash(*this, seed);
}

}  // namespace Tunnel
