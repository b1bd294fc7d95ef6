#pragma once

#include "Kop/Entity.h"
#include "Tunnel/Export.h"

// The tunnel RIBs by number and by name.

namespace Tunnel::TunnelTable {

using Kop::strepToValue;

// Names a tunnel RIB: four fixed ones of the system, from maxSystemTunnelRibId on up to
// below `null` those that a user named. Ordered by number.
//
// The default is 0, which is the system's RIB and valid, though false as a truth; only `null`
// names no RIB. So "is there one" is asked of a collection, never of the value.
class TUNNEL_EXPORT TunnelRibId : public Kop::Value<TunnelRibId> {
  KOP_VALUE(TunnelRibId);

  KOP_WRAPPED(2, U32, value);
  KOP_CONSTANT(3, U32, systemTunnelRibId, 0);
  KOP_CONSTANT(4, U32, systemColoredTunnelRibId, 1);
  KOP_CONSTANT(5, U32, systemTunnelingLdpTunnelRibId, 2);
  KOP_CONSTANT(6, U32, systemIgpShortcutTunnelRibId, 3);
  KOP_CONSTANT(7, U32, maxSystemTunnelRibId, 3);
  KOP_CONSTANT(8, U32, null, 4294967295);
  KOP_CONSTANT(9, Kop::String, systemTunnelRibName, "system-tunnel-rib");
  KOP_CONSTANT(10, Kop::String, systemColoredTunnelRibName, "system-colored-tunnel-rib");
  KOP_CONSTANT(11,
               Kop::String,
               systemTunnelingLdpTunnelRibName,
               "system-tunneling-ldp-tunnel-rib");
  KOP_CONSTANT(12,
               Kop::String,
               systemIgpShortcutTunnelRibName,
               "system-igp-shortcut-tunnel-rib");
  KOP_FUNCTION(13, bool, isValid);  // not null
  KOP_FUNCTION(14, bool, isSystemColoredRibId);

 public:
  explicit TunnelRibId(U32 value) : value_(value) {}
};

inline bool TunnelRibId::isValid() const {
  return value_ != null;
}
inline bool TunnelRibId::isSystemColoredRibId() const {
  return value_ == systemColoredTunnelRibId;
}

}  // namespace Tunnel::TunnelTable

template <>
inline constexpr bool Kop::equalIsBitwise<Tunnel::TunnelTable::TunnelRibId> = true;

namespace Tunnel::TunnelTable {

// Gives numbers to the names of tunnel RIBs. A name keeps its number until it is removed; a
// number is never given twice, so a name that comes back has a new one.
//
// The map knows no system RIBs of itself. Its owner enters their names by nameToIdIs and
// moves currentId past maxSystemTunnelRibId before it has any other named; without that the
// first name is given the number of the system's RIB.
//
// What it does is traced at level 8 of the default handle.
class TUNNEL_EXPORT TunnelRibNameIdMap : public Kop::Entity {
  KOP_ENTITY(TunnelRibNameIdMap);
  KOP_FACTORY(TunnelRibNameIdMap);

  KOP_VALUE_MAP(258, nameToId, NameToId, Kop::String, TunnelRibId);
  KOP_SCALAR(259, TunnelRibId, currentId);  // the next number to give

 public:
  // Takes the next number. When all are given, the process ends by an assertion.
  TunnelRibId getFreeId();
  KOP_METHOD(260, getFreeId);

  // The number of a name, a new one when the name has none or null. Tells currentId before
  // nameToId.
  TunnelRibId tunnelRibNameIs(Kop::String name);
  KOP_METHOD(261, tunnelRibNameIs);

  // Removes a name and returns its number. A name that has none, or the number of a system
  // RIB, is an assertion.
  TunnelRibId tunnelRibNameDel(Kop::String name);
  KOP_METHOD(262, tunnelRibNameDel);

  // Removes all names but those of system RIBs; currentId stays.
  void removeNonSystemTunnelRibs();
  KOP_METHOD(263, removeNonSystemTunnelRibs);

  // The first name with the number in the order of nameToId, or empty. Looks through all.
  KOP_FUNCTION(264, Kop::String, tunnelName, TunnelRibId id);

  // Adds to currentId, modulo 2^32.
  void currentIdInc(U32 n);
  KOP_METHOD(265, currentIdInc);
};
KOP_FACTORY_FUNCTION(tunnelRibNameIdMapFactory, TunnelRibNameIdMap);

}  // namespace Tunnel::TunnelTable
