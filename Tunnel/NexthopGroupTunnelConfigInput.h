#pragma once

#include "Kop/Entity.h"
#include "Kop/Value.h"
#include "Tunnel/Export.h"
#include "Vantor/IpGenPrefix.h"

// Tunnels whose packets go to a configured group of next hops.

namespace Tunnel::NexthopGroup {

// The group for one end point, and how the tunnel stands against others to it. Unhashable;
// has no order.
class TUNNEL_EXPORT NexthopGroupTunnelConfigEntry
    : public Kop::Value<NexthopGroupTunnelConfigEntry> {
  KOP_VALUE(NexthopGroupTunnelConfigEntry);

  KOP_ATTR(2, Vantor::IpGenPrefix, tep);
  KOP_ATTR(3, Kop::String, nhgName);  // of the next-hop group
  KOP_ATTR(4, U8, igpPref);
  KOP_ATTR(5, U32, igpMetric);

 public:
  explicit operator bool() const;  // differs from the default
  friend bool operator<(const NexthopGroupTunnelConfigEntry&,
                        const NexthopGroupTunnelConfigEntry&) = delete;
};

// The next-hop-group tunnels, by end point.
class TUNNEL_EXPORT ConfigInput : public Kop::Entity {
  KOP_ENTITY(ConfigInput);
  KOP_FACTORY(ConfigInput);

  KOP_INTERNAL_MAP(
      258, entry, Entry, Vantor::IpGenPrefix, NexthopGroupTunnelConfigEntry, tep);
};
KOP_FACTORY_FUNCTION(configInputFactory, ConfigInput);

}  // namespace Tunnel::NexthopGroup
