#pragma once

#include <atomic>
#include <iosfwd>
#include <string>
#include <vector>

namespace Tunnelgen {

// The whole command: reads the arguments (without the program's name), does what they say
// and returns the exit status: 0, 1 failed, 2 wrong arguments. Errors are one line on err.
//
// Threads  `stop` may be set by any thread or signal handler: the command ends in order then,
//          with status 0, within some 100 ms and one answer of the database.
int run(const std::vector<std::string>& arguments,
        std::ostream& out,
        std::ostream& err,
        const std::atomic<bool>& stop);

}  // namespace Tunnelgen
