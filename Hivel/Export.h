#pragma once

// Marks what libHivel shows to others; everything else is hidden by the build.
#define HIVEL_EXPORT [[gnu::visibility("default")]]
