#pragma once

// Marks what libVantor shows to others; everything else is hidden by the build.
#define VANTOR_EXPORT [[gnu::visibility("default")]]
