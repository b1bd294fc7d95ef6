#include "Tunnel/StaticTunnelConfig.h"

#include "Kop/EntityImpl.h"
#include "Kop/ModuleImpl.h"

namespace Tunnel::Static {

StaticTunnelConfigEntry::operator bool() const {
  return !(*this == StaticTunnelConfigEntry());
}

U32 valueHash(const StaticTunnelConfigEntry&, U32) = delete;

void valueParse(StaticTunnelConfigEntry&, Kop::TextIt&, const Kop::TextIt&) {
  Kop::noStringConstructor(
      "!\"No String constructor for StaticTunnelConfigEntry - has collection\"",
      "Tunnel/StaticTunnelConfig");
}

}  // namespace Tunnel::Static

KOP_MODULE(StaticTunnelConfig,
           862c3f1242acd376,
           Tunnel::Static::StaticTunnelConfigEntry,
           Tunnel::Static::Config);
KOP_INSTANTIATE_VALUE(Tunnel::Static::StaticTunnelConfigEntry);
KOP_INSTANTIATE_ENTITY(Tunnel::Static, Config);
