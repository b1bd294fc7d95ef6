#include "Kop/Hash.h"

#include <cstdlib>
#include <random>

namespace Kop {

U32 hashSeed32() {
  static const U32 seed = [] {
    if (const char* fixed = std::getenv("KOP_HASH_SEED"))
      return static_cast<U32>(std::strtoul(fixed, nullptr, 0));
    return static_cast<U32>(std::random_device{}());
  }();
  return seed;
}

}  // namespace Kop
