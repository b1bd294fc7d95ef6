#pragma once

#include "Kop/Entity.h"
#include "Kop/Hash.h"
#include "Kop/Value.h"
#include "Tunnel/Export.h"
#include "Vantor/AddressFamily.h"
#include "Vantor/IntfId.h"
#include "Vantor/IpGenAddr.h"

// Which tunnelled packets the router takes out of their tunnels: by destination address, by
// interface and address family, less excluded interfaces. Configuration makes decap groups;
// the platform says beforehand what it can do and afterwards whether it is full.

namespace Tunnel::Decap {

using Kop::strepToValue;

// Which tunnels end here. Not TunnelTable::TunnelType, which tells tunnels that begin here.
KOP_ENUM(TunnelType, U8, unknown = 0, gre = 1, ipip = 2, udp = 3);
// What is inside of them.
KOP_ENUM(PayloadType, U8, unknownPayload = 0, mpls = 1, ipvx = 2);
// Where the addresses of a group come from.
KOP_ENUM(TunnelDecapIpSrc, U8, ip = 0, intf = 1);
// Which of an interface's addresses count.
KOP_ENUM(AddressType, U8, primary = 0, all = 1);

// An interface and a family: names one row of a group's interface collections.
class TUNNEL_EXPORT DecapIntfKey : public Kop::Value<DecapIntfKey> {
  KOP_VALUE(DecapIntfKey);

  KOP_ATTR(2, Vantor::IntfId, intfId);
  KOP_ATTR(3, Vantor::AddressFamily, addressFamily);
  KOP_FUNCTION(4, Kop::String, stringValue);  // " Intf: Vlan1 address-family: ipv4"
  KOP_FUNCTION(5, U32, hash);
};

// What is decapsulated on an interface. Unhashable.
class TUNNEL_EXPORT DecapIntf : public Kop::Value<DecapIntf> {
  KOP_VALUE(DecapIntf);

  KOP_ATTR(2, DecapIntfKey, decapIntfKey);
  KOP_ATTR(3, AddressType, addressType);
  KOP_ATTR(4, bool, oldConfig);  // from the older form of the configuration
  KOP_FUNCTION(5,
               Kop::String,
               stringValue);  // the key's, " address-type: all oldConfig: 0"
};

// The interfaces on which the packets of a key are left alone. Unhashable; has no text that
// could be read back: its string constructor is an assertion.
class TUNNEL_EXPORT DecapExcludeIntfSet : public Kop::Value<DecapExcludeIntfSet> {
  KOP_VALUE(DecapExcludeIntfSet);

  KOP_ATTR(2, DecapIntfKey, decapIntfKey);
  KOP_SET(3, excludeIntf, ExcludeIntf, Vantor::IntfId);

 public:
  explicit DecapExcludeIntfSet(const DecapIntfKey& key) : decapIntfKey_(key) {}
  explicit operator bool() const;  // differs from the default
};

// Orders the sets first and the keys last: fewer members before more, then by the first
// place of the walks where the members differ.
// Errors   an assertion when a set changes under the walk.
TUNNEL_EXPORT bool valueLess(const DecapExcludeIntfSet& a, const DecapExcludeIntfSet& b);

// One named set of rules. Lives in a ConfigInput.
class TUNNEL_EXPORT DecapGroup : public Kop::Entity {
  KOP_ENTITY(DecapGroup);

  // Destination addresses. An entry counts whatever its boolean says.
  KOP_SET_MAP(258, decapIp, DecapIp, Vantor::IpGenAddr);
  // Interfaces whose addresses are destinations. The key within a value is only stored.
  KOP_VALUE_MAP(259, decapIntf, DecapIntf, DecapIntfKey, Decap::DecapIntf);
  KOP_VALUE_MAP(260,
                decapExcludeIntfSet,
                DecapExcludeIntfSet,
                DecapIntfKey,
                Decap::DecapExcludeIntfSet);
  KOP_SCALAR(261, TunnelType, tunnelType);
  KOP_SCALAR(262, U16, destinationPort);  // UDP, 0 for none
  KOP_SCALAR(263, PayloadType, payloadType);
  KOP_SCALAR(264, bool, dynamic);
};

// The decap groups of one source of configuration.
class TUNNEL_EXPORT ConfigInput : public Kop::Entity {
  KOP_ENTITY(ConfigInput);
  KOP_FACTORY(ConfigInput);

  // What comes in on a UDP port, whatever the group.
  KOP_VALUE_MAP(
      258, globalDestPortToPayloadType, GlobalDestPortToPayloadType, U16, PayloadType);
  KOP_CHILDREN(259, decapGroup, DecapGroup, Kop::String, Decap::DecapGroup, name);
};
KOP_FACTORY_FUNCTION(configInputFactory, ConfigInput);

// Asks for the decapsulation counters of addresses to be cleared.
class TUNNEL_EXPORT CountersClearConfig : public Kop::Entity {
  KOP_ENTITY(CountersClearConfig);
  KOP_FACTORY(CountersClearConfig);

  KOP_SET_MAP(258, clearCountersRequest, ClearCountersRequest, Vantor::IpGenAddr);
};
KOP_FACTORY_FUNCTION(countersClearConfigFactory, CountersClearConfig);

namespace Hardware {

// What the platform can decapsulate. A fresh one claims nothing.
class TUNNEL_EXPORT Capability : public Kop::Entity {
  KOP_ENTITY(Capability);
  KOP_FACTORY(Capability);

  KOP_SCALAR(258, bool, ip6DecapFeatureWarning);  // warn when IPv6 is configured
  KOP_SCALAR(259, bool, decapSupported);          // groups at all
  KOP_SCALAR(260, bool, decapPrefixSupported);    // a destination may be a prefix
  KOP_SET_MAP(261, decapIpSrcSupported, DecapIpSrcSupported, TunnelDecapIpSrc);
  KOP_SET_MAP(262, decapTunnelTypeSupported, DecapTunnelTypeSupported, TunnelType);
  KOP_SET_MAP(263,
              decapTunnelIp6DestinationSupported,
              DecapTunnelIp6DestinationSupported,
              TunnelType);
  KOP_SCALAR(264, bool, multiDecapIpSupported);  // several addresses in a group
  KOP_SCALAR(265, bool, perDecapGroupUdpDestPortSupported);
  KOP_SCALAR(266, bool, globalUdpDestPortSupported);
};
KOP_FACTORY_FUNCTION(capabilityFactory, Capability);

// What the platform has come to.
class TUNNEL_EXPORT Status : public Kop::Entity {
  KOP_ENTITY(Status);
  KOP_FACTORY(Status);

  KOP_SCALAR(258, bool, hwResourceFull);
};
KOP_FACTORY_FUNCTION(statusFactory, Status);

}  // namespace Hardware

inline U32 DecapIntfKey::hash() const {
  return Kop::OneAtATime().u32(intfId().hash()).u32(addressFamily()).result();
}

}  // namespace Tunnel::Decap
