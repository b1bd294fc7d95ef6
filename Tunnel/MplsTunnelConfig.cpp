#include "Tunnel/MplsTunnelConfig.h"

#include "Kop/EntityImpl.h"
#include "Kop/ModuleImpl.h"

KOP_MODULE(MplsTunnelConfig, 4483395730fe0431, Tunnel::MplsTunnelConfig);
KOP_INSTANTIATE_ENTITY(Tunnel, MplsTunnelConfig);
