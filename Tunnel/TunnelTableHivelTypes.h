#pragma once

#include "Brel/ChipSet.h"
#include "Kop/Entity.h"
#include "Tunnel/TunnelRibId.h"
#include "Tunnel/TunnelTableEntry.h"
#include "Vantor/EthAddr.h"
#include "Vantor/GreKeyType.h"
#include "Vantor/MplsLabelOperation.h"
#include "Vxlan/VniExt.h"

// Tunnel tables: what their rows are is in TunnelTableEntry.h; here is which tables there are,
// what the tunnels in them are called, how far the tunnel RIBs have got, and the two tables
// of tunnels that end at one next hop.

namespace Tunnel::TunnelTable {

// A host behind a remote VXLAN tunnel end point.
class TUNNEL_EXPORT EvpnVxlanTunnelEntry : public Kop::Value<EvpnVxlanTunnelEntry> {
  KOP_VALUE(EvpnVxlanTunnelEntry);

  KOP_ATTR(2, TunnelId, key);
  KOP_ATTR(3, Vantor::EthAddr, mac);
  KOP_ATTR(4, U32, vlanId);
  KOP_ATTR(5, Vxlan::VniExt, vni);
  KOP_ATTR(6, Vantor::IpGenAddr, vtepAddr);
  KOP_ATTR(7, Vantor::IntfId, vti);

 public:
  explicit EvpnVxlanTunnelEntry(const TunnelId& key) : key_(key) {}
};

// Where a tunnel table is. A table that is told by name and type is mounted at
// "tunnel/table/<tableName>"; a later change of the name does not move it.
class TUNNEL_EXPORT TunnelTableInfo : public Kop::Value<TunnelTableInfo> {
  KOP_VALUE(TunnelTableInfo);

  KOP_ATTR(2, Kop::String, tableName);
  KOP_ATTR(3, Kop::String, tableType);  // what its writer calls the kind of its tunnels
  KOP_ATTR(4, Kop::String, mountPath);

 public:
  TunnelTableInfo(const Kop::String& tableName, const Kop::String& tableType);
};

// A tunnel and what it is called. Ordered by tunnelId, then by the name, shorter first.
class TUNNEL_EXPORT TunnelIdNamePair : public Kop::Value<TunnelIdNamePair> {
  KOP_VALUE(TunnelIdNamePair);

  KOP_ATTR(2, TunnelId, tunnelId);
  KOP_ATTR(3, Kop::String, tunnelName);
  KOP_FUNCTION(4, U32, hash, U32 seed);
};

}  // namespace Tunnel::TunnelTable

// Collections of pairs have a seed of their own.
template <>
inline U32 Kop::KeyOps<Tunnel::TunnelTable::TunnelIdNamePair>::hash(
    const Tunnel::TunnelTable::TunnelIdNamePair& pair) {
  return pair.hash(Kop::hashSeed32() ^ 0xf5ac7603);
}

namespace Tunnel::TunnelTable {

// What a tunnel to one next hop puts around a packet.
class TUNNEL_EXPORT NexthopTunnelL3Info : public Kop::Value<NexthopTunnelL3Info> {
  KOP_VALUE(NexthopTunnelL3Info);

  KOP_ATTR(2, NexthopType, groupType);
  KOP_ATTR(3, U32, ttl);
  KOP_ATTR(4, Vantor::IpGenAddr, sourceIp);
  KOP_ATTR(5, Vantor::IpGenAddr, destinationIp);
  KOP_ATTR(6, Vantor::MplsLabelOperation, mplsLabelStack);
  KOP_ATTR(7, Vantor::GreKeyType, greKeyType);
  KOP_ATTR(8, Vantor::IntfId, l3Intf);
  KOP_ATTR(9, Vantor::IntfId, l2Intf);
  KOP_ATTR(10, Vantor::EthAddr, macAddr);
  KOP_ATTR(11, TunnelCounterId, tunnelCounterId);
  KOP_FUNCTION(12, U32, hash, U32 seed);
};

// What the hardware knows of a tunnel to one next hop. Has neither order nor hash.
class TUNNEL_EXPORT NexthopTunnelL2Info : public Kop::Value<NexthopTunnelL2Info> {
  KOP_VALUE(NexthopTunnelL2Info);

  KOP_ATTR(2, U32, vlanId);
  KOP_ATTR(3, Vantor::IntfId, l2Intf);
  KOP_ATTR(4, Vantor::EthAddr, macAddr);
  KOP_ATTR(5, Vantor::IpGenPrefix, route);
  KOP_ATTR(6, Vantor::IpGenAddr, hop);
  KOP_ATTR(7, Vantor::IntfId, l3Intf);
  KOP_ATTR(8, TunnelCounterId, tunnelCounterId);
  KOP_ATTR(9, U64, counterIndex);
  KOP_ATTR(10, Brel::ChipSet, chipMask);  // the chips that have the tunnel
  KOP_ATTR(11, U64, packets);
  KOP_ATTR(12, U64, bytes);
  friend bool operator<(const NexthopTunnelL2Info&, const NexthopTunnelL2Info&) = delete;
};

// Whether tunnels of the type go into the tunnel RIB; false for a number that is no type.
constexpr bool contributeToTunnelRib(TunnelType type) {
  constexpr U32 contributing =
      1u << bgpLuTunnel | 1u << ldpTunnel | 1u << staticTunnel | 1u << srTunnel |
      1u << nexthopGroupTunnel | 1u << ospfSrTunnel | 1u << srTePolicyTunnel |
      1u << rsvpLerTunnel | 1u << isisFlexAlgoTunnel | 1u << mldpTunnel;
  return type < 32 && (contributing >> type & 1) != 0;
}

// What every tunnel table says of itself; its rows are elsewhere.
class TUNNEL_EXPORT TunnelTableBase : public Kop::Entity {
  KOP_ENTITY(TunnelTableBase);
  KOP_FACTORY(TunnelTableBase);

  KOP_SCALAR(258, TunnelType, tableType);  // of the tunnels in it
  KOP_SCALAR(259, TunnelTableIdentifier, tunnelTableId);
  KOP_FUNCTION(260, bool, contributeToTunnelRib);  // by tableType
};
KOP_FACTORY_FUNCTION(tunnelTableBaseFactory, TunnelTableBase);

// The tunnel tables of one agent.
class TUNNEL_EXPORT TunnelTableInfoCollection : public Kop::Entity {
  KOP_ENTITY(TunnelTableInfoCollection);
  KOP_FACTORY(TunnelTableInfoCollection);

  KOP_INTERNAL_MAP(258, tableInfo, TableInfo, Kop::String, TunnelTableInfo, tableName);
};
KOP_FACTORY_FUNCTION(tunnelTableInfoCollectionFactory, TunnelTableInfoCollection);

// Whether BGP labelled unicast has told all that it learned at start, and up to where.
class TUNNEL_EXPORT BgpLuConvergence : public Kop::Entity {
  KOP_ENTITY(BgpLuConvergence);
  KOP_FACTORY(BgpLuConvergence);

  KOP_SCALAR(258, bool, bgpLuConverged);
  KOP_SCALAR(259, U64, bgpLuConvergenceSeqno);
};
KOP_FACTORY_FUNCTION(bgpLuConvergenceFactory, BgpLuConvergence);

// The sequence number up to which each tunnel RIB has converged.
class TUNNEL_EXPORT TunnelConvergence : public Kop::Entity {
  KOP_ENTITY(TunnelConvergence);
  KOP_FACTORY(TunnelConvergence);

  KOP_VALUE_MAP(
      258, tunnelRibConvergenceSeqno, TunnelRibConvergenceSeqno, TunnelRibId, U64);
};
KOP_FACTORY_FUNCTION(tunnelConvergenceFactory, TunnelConvergence);

// The names of the tunnels of one type, to be looked up both ways and followed as pairs. A
// name is that of one tunnel at most, a tunnel has one name at most, and the three
// collections say the same as long as they are only written by the two functions below.
// Lives in a ProtocolTunnelNameStatus.
class TUNNEL_EXPORT TunnelNameStatus : public Kop::Entity {
  KOP_KEYED_ENTITY(TunnelNameStatus, TunnelType, tunnelType);

  KOP_VALUE_MAP(258, tunnelNameToId, TunnelNameToId, Kop::String, TunnelId);
  KOP_VALUE_MAP(259, tunnelIdToName, TunnelIdToName, TunnelId, Kop::String);
  KOP_VALUE_SET(260, tunnelIdNamePair, TunnelIdNamePair, TunnelTable::TunnelIdNamePair);

  // Writes the collections in the order of their numbers; a pair that is there already
  // changes nothing. A tunnel or a name that is already paired otherwise is an assertion:
  // who renames a tunnel removes it first.
  void addTunnelIdNamePair(const TunnelId& tunnelId, const Kop::String& tunnelName);
  KOP_METHOD(261, addTunnelIdNamePair);

  // Removes a tunnel and its name, in the same order; nothing when it has none.
  void delTunnelIdNamePair(const TunnelId& tunnelId);
  KOP_METHOD(262, delTunnelIdNamePair);
};

// The names of all tunnels of one protocol's agent, by type.
class TUNNEL_EXPORT ProtocolTunnelNameStatus : public Kop::Entity {
  KOP_ENTITY(ProtocolTunnelNameStatus);
  KOP_FACTORY(ProtocolTunnelNameStatus);

  KOP_CHILDREN(258,
               localTunnelNameStatus,
               LocalTunnelNameStatus,
               TunnelType,
               TunnelNameStatus,
               tunnelType);
};
KOP_FACTORY_FUNCTION(protocolTunnelNameStatusFactory, ProtocolTunnelNameStatus);

// Tunnels to one next hop, as the agent that makes them knows them.
class TUNNEL_EXPORT NexthopTunnelTable : public TunnelTableBase {
  KOP_ENTITY(NexthopTunnelTable, TunnelTableBase);
  KOP_FACTORY(NexthopTunnelTable);

  KOP_VALUE_MAP(386, entry, Entry, TunnelId, NexthopTunnelL3Info);
  // Kept for the agent that allocates tunnel indices; the table makes nothing of it.
  KOP_SCALAR(387, U32, nextAvailableIndex);
};
KOP_FACTORY_FUNCTION(nexthopTunnelTableFactory, NexthopTunnelTable);

// The same tunnels as the hardware knows them. The writer keeps the two collections in step.
class TUNNEL_EXPORT NexthopHwTunnelTable : public TunnelTableBase {
  KOP_ENTITY(NexthopHwTunnelTable, TunnelTableBase);
  KOP_FACTORY(NexthopHwTunnelTable);

  KOP_VALUE_MAP(386, entry, Entry, TunnelId, NexthopTunnelL2Info);
  KOP_VALUE_MAP(387, hwKeyToTunnelId, HwKeyToTunnelId, HwTunnelKey, TunnelId);

  // The tunnel that a chip knows by the key. None for a key that nobody entered, and always
  // none for the invalid chip.
  KOP_FUNCTION(388, TunnelId, tunnelIdFromPlatformKey, U64 key, Brel::ChipId chipId);
};
KOP_FACTORY_FUNCTION(nexthopHwTunnelTableFactory, NexthopHwTunnelTable);

}  // namespace Tunnel::TunnelTable
