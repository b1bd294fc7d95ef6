#include "Tunnel/NexthopGroupTunnelConfigInput.h"

#include "Kop/EntityImpl.h"
#include "Kop/ModuleImpl.h"

namespace Tunnel::NexthopGroup {

NexthopGroupTunnelConfigEntry::operator bool() const {
  return !(*this == NexthopGroupTunnelConfigEntry());
}

U32 valueHash(const NexthopGroupTunnelConfigEntry&, U32) = delete;

}  // namespace Tunnel::NexthopGroup

KOP_MODULE(NexthopGroupTunnelConfigInput,
           c655dba6d1d743de,
           Tunnel::NexthopGroup::NexthopGroupTunnelConfigEntry,
           Tunnel::NexthopGroup::ConfigInput);
KOP_INSTANTIATE_VALUE(Tunnel::NexthopGroup::NexthopGroupTunnelConfigEntry);
KOP_INSTANTIATE_ENTITY(Tunnel::NexthopGroup, ConfigInput);
