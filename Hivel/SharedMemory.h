#pragma once

#include <string>
#include <string_view>

#include "Hivel/Export.h"

// Rows that are too many or change too fast for the database stand in tables in shared memory
// (Quarn/Table.h). The path of what describes such a table gives the name of its memory, so
// that writers and readers find each other without asking.

namespace Hivel {

// Where a server listens when nobody says otherwise.
inline constexpr std::string_view defaultSocketPath = "/run/hivel/hivel.sock";

// '/' and the path with '.' for '/', then, unless the database is the default one, '@' and 8
// hexadecimal digits of a hash of its socket's absolute path with symbolic links resolved. So
// tables of several databases on one machine do not meet.
HIVEL_EXPORT std::string shmName(const std::string& socketPath,
                                 std::string_view mountPath);

}  // namespace Hivel
