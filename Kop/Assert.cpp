#include "Kop/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Kop {

void assertFail(const char* expression,
                const char* source,
                const char* function) noexcept {
  std::fprintf(stderr, "%s: %s: Assertion \"%s\" failed.\n", source, function,
               expression);
  std::fflush(stderr);
  std::abort();
}

}  // namespace Kop
