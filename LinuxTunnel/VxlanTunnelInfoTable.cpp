#include "LinuxTunnel/VxlanTunnelInfoTable.h"

#include "Kop/EntityImpl.h"
#include "Kop/ModuleImpl.h"

KOP_MODULE(LinuxTunnelTypes, 8a3d6837cbf1d5e4, LinuxTunnel::VxlanTunnelInfoTable);
KOP_INSTANTIATE_ENTITY(LinuxTunnel, VxlanTunnelInfoTable);
