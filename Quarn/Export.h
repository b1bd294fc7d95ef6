#pragma once

// Marks what libQuarn shows to others; everything else is hidden by the build.
#define QUARN_EXPORT [[gnu::visibility("default")]]
