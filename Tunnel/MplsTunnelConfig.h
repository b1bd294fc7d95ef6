#pragma once

#include "Kop/Entity.h"
#include "Tunnel/Export.h"

namespace Tunnel {

// What is configured for all MPLS tunnels alike.
class TUNNEL_EXPORT MplsTunnelConfig : public Kop::Entity {
  KOP_ENTITY(MplsTunnelConfig);
  KOP_FACTORY(MplsTunnelConfig);

  // Push an entropy label, onto the tunnels that support it.
  KOP_SCALAR(258, bool, entropyLabelPush);
};
KOP_FACTORY_FUNCTION(mplsTunnelConfigFactory, MplsTunnelConfig);

}  // namespace Tunnel
