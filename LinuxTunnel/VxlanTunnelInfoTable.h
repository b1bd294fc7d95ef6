#pragma once

#include "Kop/Entity.h"
#include "LinuxTunnel/Export.h"
#include "Tunnel/IpTunnels.h"

// What the tunnels of a Linux kernel need beside the tables of Tunnel/IpTunnels.h. A library
// of its own: a database that is to hold it loads it, `hiveld --types libLinuxTunnel.so.0`.

namespace LinuxTunnel {

// The VXLAN tunnels in use, each to one peer. An entry counts whatever its boolean says.
class LINUXTUNNEL_EXPORT VxlanTunnelInfoTable : public Kop::Entity {
  KOP_ENTITY(VxlanTunnelInfoTable);
  KOP_FACTORY(VxlanTunnelInfoTable);

  KOP_SET_MAP(258, entry, Entry, Tunnel::VxlanTunnelInfo);
};
KOP_FACTORY_FUNCTION(vxlanTunnelInfoTableFactory, VxlanTunnelInfoTable);

}  // namespace LinuxTunnel
