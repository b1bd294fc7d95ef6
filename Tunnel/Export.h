#pragma once

// Marks what libTunnelHivelTypes shows to others; everything else is hidden by the build.
#define TUNNEL_EXPORT [[gnu::visibility("default")]]
