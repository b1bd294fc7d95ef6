#pragma once

// Marks what libRoutingMulticast shows to others; everything else is hidden by the build.
#define ROUTING_MULTICAST_EXPORT [[gnu::visibility("default")]]
