#pragma once

#include <string>
#include <string_view>

#include "Quarn/TableCore.h"
#include "Quarn/TableLayout.h"

// How a writer comes by its table. Not installed.

namespace Quarn {

// The log2 of an index that takes so many rows without being rebuilt.
U32 log2For(U64 rows);

// The descriptor of the table of that name, which is locked for this writer; it is made when
// it is not there, or when who began to make it did not come to the end. The caller owns the
// descriptor; the lock goes with it.
//
// Errors   TableException: a live writer (with its pid), a kind that is too long, or a system
//          call. What was made is taken away again.
int tableForWriter(const std::string& name,
                   std::string_view kind,
                   const TableOptions& options);

}  // namespace Quarn
