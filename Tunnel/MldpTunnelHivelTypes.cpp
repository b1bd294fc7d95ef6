#include "Tunnel/MldpTunnelHivelTypes.h"

#include "Kop/EntityImpl.h"
#include "Kop/ModuleImpl.h"

namespace Tunnel::TunnelTable {

U32 MldpTunnelRibEntry::hash(U32 seed) const {
  return MulticastTunnelTableEntry::hash(seed);
}

Kop::String MldpTunnelRib::mountPath() {
  return "tunnel/tunnelMrib/mldp";
}

}  // namespace Tunnel::TunnelTable

KOP_MODULE(MldpTunnelHivelTypes,
           26cdb47121b1c5b2,
           Tunnel::TunnelTable::MldpTunnelRibEntry,
           Tunnel::TunnelTable::MldpTunnelRib);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::MldpTunnelRibEntry);
KOP_INSTANTIATE_ENTITY(Tunnel::TunnelTable, MldpTunnelRib);
