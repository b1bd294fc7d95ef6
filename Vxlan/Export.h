#pragma once

// Marks what libVxlan shows to others; everything else is hidden by the build.
#define VXLAN_EXPORT [[gnu::visibility("default")]]
