#pragma once

#include "Kop/Types.h"

namespace Kop {

// Ends the process because a promise inside it was broken: prints
//   <source>: <function>: Assertion "<expression>" failed.
// to standard error and aborts, in every build type. Never for what came from outside the
// process. `source` is a module path such as "Tunnel/TunnelBasicTypes"; the expression is
// printed as it is given, which need not be the C++ that was evaluated.
[[noreturn]] KOP_EXPORT void assertFail(const char* expression,
                                        const char* source,
                                        const char* function) noexcept;

}  // namespace Kop

// KOP_ASSERT(condition, "text printed", "Kop/HashMap2018"): stays active under NDEBUG.
#define KOP_ASSERT(condition, text, source) \
  ((condition) ? void() : Kop::assertFail(text, source, __func__))
