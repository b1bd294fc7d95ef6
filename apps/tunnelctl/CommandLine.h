#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace Tunnelctl {

struct Terminal {
  std::ostream& out;
  std::ostream& err;
  bool isTerminal = false;  // of out: colour is allowed
};

// The whole command: reads the arguments (without the program's name), does what they say
// and returns the exit status: 0, 1 failed, 2 wrong arguments. Errors are one line on err.
int run(const std::vector<std::string>& arguments, const Terminal& terminal);

}  // namespace Tunnelctl
