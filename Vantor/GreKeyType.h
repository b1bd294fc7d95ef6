#pragma once

#include <ostream>

#include "Kop/Enum.h"
#include "Vantor/Export.h"

namespace Vantor {

// Where the key of a GRE header comes from. Numbers are wire format: append only.
KOP_ENUM(GreKeyType, U32, noGreKey = 0, configuredGreKey = 1);

}  // namespace Vantor
