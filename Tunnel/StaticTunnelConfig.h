#pragma once

#include "Kop/Entity.h"
#include "Kop/Value.h"
#include "Tunnel/Export.h"
#include "Tunnel/Vias.h"
#include "Vantor/IpGenPrefix.h"

// Tunnels that are configured by name instead of being signalled.

namespace Tunnel::Static {

// One static tunnel: where it ends and over which hops it is reached. Unhashable; has no
// order, and no text that could be read back: its string constructor is an assertion.
class TUNNEL_EXPORT StaticTunnelConfigEntry : public Kop::Value<StaticTunnelConfigEntry> {
  KOP_VALUE(StaticTunnelConfigEntry);

  KOP_ATTR(2, Kop::String, name);
  KOP_ATTR(3, Vantor::IpGenPrefix, tep);  // the end point
  // Primary hops, each with a flag, in the order of MplsVia: interface by interface. Unlike
  // those of BgpLuVia the flags count when two entries are compared.
  KOP_ORDERED_MAP(4, via, Via, TunnelTable::MplsVia, bool);
  KOP_ATTR(5, TunnelTable::MplsVia, backupVia);
  KOP_ATTR(6, bool, inStaticTunnelMode);  // configured in the mode of its own

 public:
  explicit StaticTunnelConfigEntry(const Kop::String& name) : name_(name) {}

  // Survives any change of the map. Deleting what it stands on leaves it at its place.
  KopViaMap::Iterator viaIterator() { return via_.iterator(); }
  void viaDel(const KopViaMap::Iterator& it) { via_.del(it); }

  explicit operator bool() const;  // differs from the entry of the empty name
  friend bool operator<(const StaticTunnelConfigEntry&,
                        const StaticTunnelConfigEntry&) = delete;
};
[[noreturn]] TUNNEL_EXPORT void valueParse(StaticTunnelConfigEntry& entry,
                                           Kop::TextIt& it,
                                           const Kop::TextIt& end);

// The static tunnels, by name.
class TUNNEL_EXPORT Config : public Kop::Entity {
  KOP_ENTITY(Config);
  KOP_FACTORY(Config);

  KOP_INTERNAL_MAP(258, entry, Entry, Kop::String, StaticTunnelConfigEntry, name);
};
KOP_FACTORY_FUNCTION(configFactory, Config);

}  // namespace Tunnel::Static
