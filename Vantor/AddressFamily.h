#pragma once

#include <ostream>

#include "Kop/Enum.h"
#include "Vantor/Export.h"

namespace Vantor {

// Which kind of address stands in an IpGenAddr. Numbers are wire format: append only.
KOP_ENUM(AddressFamily, U32, noAddressFamily = 0, ipv4 = 1, ipv6 = 2);

}  // namespace Vantor
