#pragma once

#include <string_view>

#include "Vantor/IpGenAddr.h"

// The spelling of addresses, read and written without an allocation. Not installed.
//
//   quad   n.n.n.n, n from 0 to 255 without leading zeros
//   IPv6   eight groups of one to four hex digits, separated by ':'. Once, one or more zero
//          groups may be written as "::". The last two groups may be a quad.

namespace Vantor {

enum class Spelling { good, malformed, outOfRange };

// Reads a whole text; the empty text is the empty address.
Spelling addrRead(std::string_view text, IpGenAddr& addr);

// For the constructors. Errors   Kop::Exception, Kop::RangeException.
IpGenAddr addrOf(std::string_view text);

}  // namespace Vantor
