#pragma once

// Marks what libBrel shows to others; everything else is hidden by the build.
#define BREL_EXPORT [[gnu::visibility("default")]]
