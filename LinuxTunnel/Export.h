#pragma once

// Marks what libLinuxTunnel shows to others; everything else is hidden by the build.
#define LINUXTUNNEL_EXPORT [[gnu::visibility("default")]]
