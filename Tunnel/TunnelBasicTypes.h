#pragma once

// What every part of the tunnel system speaks of.
#include "Tunnel/IpTunnels.h"
#include "Tunnel/TunnelIds.h"
#include "Tunnel/Vias.h"
