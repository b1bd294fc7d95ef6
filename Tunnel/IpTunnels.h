#pragma once

#include "Kop/Entity.h"
#include "Kop/Hash.h"
#include "Kop/Value.h"
#include "Tunnel/Export.h"
#include "Tunnel/TunnelIds.h"
#include "Vantor/IntfId.h"
#include "Vantor/IpGenAddr.h"

// What the outer headers of IP tunnels are made of, and tables that publish which ones are
// in use.
//
// Hashes are one-at-a-time without a seed, each field as wide as it is and an address as its
// own hash. A derived type starts anew with its base's finished hash as 4 bytes, then folds
// in what it adds.

namespace Tunnel {

// A plain IP-in-IP tunnel, and what the others share.
class TUNNEL_EXPORT L3TunnelInfo : public Kop::Value<L3TunnelInfo> {
  KOP_VALUE(L3TunnelInfo);

  KOP_ATTR(2, Vantor::IpGenAddr, src);  // of the outer header
  KOP_ATTR(3, Vantor::IpGenAddr, dst);
  KOP_ATTR(4, U8, tos);
  KOP_ATTR(5, U8, ttl);
  KOP_ATTR(6, bool, pathMtuDiscovery);
  // What tos and ttl are called in IPv6: the same two bytes.
  KOP_FUNCTION(7, U8, dscp);
  KOP_FUNCTION(8, U8, hoplimit);
  KOP_FUNCTION(9, U32, hash);

 public:
  void dscpIs(const U8& v) { tosIs(v); }
  void hoplimitIs(const U8& v) { ttlIs(v); }
};

// A GRE tunnel. Ordered by dst, src, oKey, iKey, tos, ttl, pathMtuDiscovery, oFlags, iFlags,
// protocol: what tells the tunnels of one peer apart comes first.
class TUNNEL_EXPORT GreTunnelInfo : public L3TunnelInfo {
  KOP_VALUE(GreTunnelInfo, L3TunnelInfo);

  KOP_ATTR(130, U16, protocol);            // the EtherType in the GRE header
  KOP_ATTR(131, GreHdrFlagsType, oFlags);  // any combination; of headers sent
  KOP_ATTR(132, GreHdrFlagsType, iFlags);  // and of headers received
  KOP_ATTR(133, U32, oKey);
  KOP_ATTR(134, U32, iKey);
  KOP_REDEFINED(9, U32, hash);
};
TUNNEL_EXPORT bool valueLess(const GreTunnelInfo& a, const GreTunnelInfo& b);

// A GRE tunnel under IPsec. Has its base's order, which leaves ipsecTableIndex out: two that
// differ in it alone are unequal, and neither is less.
class TUNNEL_EXPORT IpsecGreTunnelInfo : public GreTunnelInfo {
  KOP_VALUE(IpsecGreTunnelInfo, GreTunnelInfo);

  KOP_ATTR(258, U32, ipsecTableIndex);  // of the security associations
  KOP_REDEFINED(9, U32, hash);

 public:
  explicit operator bool() const;  // differs from the default
};
TUNNEL_EXPORT bool valueLess(const IpsecGreTunnelInfo& a, const IpsecGreTunnelInfo& b);

// An IPsec virtual tunnel interface. Has its base's order, as above.
class TUNNEL_EXPORT IpsecVtiTunnelInfo : public L3TunnelInfo {
  KOP_VALUE(IpsecVtiTunnelInfo, L3TunnelInfo);

  KOP_ATTR(130, U32, ipsecTableIndex);
  KOP_REDEFINED(9, U32, hash);
};
TUNNEL_EXPORT bool valueLess(const IpsecVtiTunnelInfo& a, const IpsecVtiTunnelInfo& b);

// A VXLAN tunnel to one peer.
class TUNNEL_EXPORT VxlanTunnelInfo : public Kop::Value<VxlanTunnelInfo> {
  KOP_VALUE(VxlanTunnelInfo);

  KOP_ATTR(2, Vantor::IpGenAddr, destIp);  // the remote VTEP
  KOP_ATTR(3, Vantor::IntfId, srcVti);     // our VXLAN interface
  KOP_FUNCTION(4, Kop::String, toStrep);   // "10.0.0.1,Vxlan1"
  KOP_FUNCTION(5, U32, hash, U32 seed);
};

// The tunnels in use, by kind. An entry counts whatever its boolean says.

class TUNNEL_EXPORT L3TunnelInfoTable : public Kop::Entity {  // those of any kind
  KOP_ENTITY(L3TunnelInfoTable);
  KOP_FACTORY(L3TunnelInfoTable);

  KOP_SET_MAP(258, entry, Entry, L3TunnelInfo);
};
KOP_FACTORY_FUNCTION(l3TunnelInfoTableFactory, L3TunnelInfoTable);

class TUNNEL_EXPORT GreTunnelInfoTable : public Kop::Entity {  // GRE
  KOP_ENTITY(GreTunnelInfoTable);
  KOP_FACTORY(GreTunnelInfoTable);

  KOP_SET_MAP(258, entry, Entry, GreTunnelInfo);
};
KOP_FACTORY_FUNCTION(greTunnelInfoTableFactory, GreTunnelInfoTable);

class TUNNEL_EXPORT IpsecGreTunnelInfoTable : public Kop::Entity {  // GRE under IPsec
  KOP_ENTITY(IpsecGreTunnelInfoTable);
  KOP_FACTORY(IpsecGreTunnelInfoTable);

  KOP_SET_MAP(258, entry, Entry, IpsecGreTunnelInfo);
};
KOP_FACTORY_FUNCTION(ipsecGreTunnelInfoTableFactory, IpsecGreTunnelInfoTable);

class TUNNEL_EXPORT IpsecVtiTunnelInfoTable : public Kop::Entity {  // IPsec interfaces
  KOP_ENTITY(IpsecVtiTunnelInfoTable);
  KOP_FACTORY(IpsecVtiTunnelInfoTable);

  KOP_SET_MAP(258, entry, Entry, IpsecVtiTunnelInfo);
};
KOP_FACTORY_FUNCTION(ipsecVtiTunnelInfoTableFactory, IpsecVtiTunnelInfoTable);

inline U8 L3TunnelInfo::dscp() const {
  return tos();
}
inline U8 L3TunnelInfo::hoplimit() const {
  return ttl();
}

inline U32 L3TunnelInfo::hash() const {
  return Kop::OneAtATime()
      .u32(src().hash())
      .u32(dst().hash())
      .byte(tos())
      .byte(ttl())
      .byte(pathMtuDiscovery())
      .result();
}
inline U32 GreTunnelInfo::hash() const {
  return Kop::OneAtATime()
      .u32(L3TunnelInfo::hash())
      .u16(protocol())
      .u32(oFlags())
      .u32(iFlags())
      .u32(oKey())
      .u32(iKey())
      .result();
}
inline U32 IpsecGreTunnelInfo::hash() const {
  return Kop::OneAtATime().u32(GreTunnelInfo::hash()).u32(ipsecTableIndex()).result();
}
inline U32 IpsecVtiTunnelInfo::hash() const {
  return Kop::OneAtATime().u32(L3TunnelInfo::hash()).u32(ipsecTableIndex()).result();
}

}  // namespace Tunnel
