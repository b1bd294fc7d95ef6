#pragma once

#include <string>
#include <vector>

#include "apps/tunnelctl/Verbs.h"

namespace CLI {
class App;
}

namespace Tunnelctl {

// Prints what may stand for the last of the words of a command line, for the shells' own
// completion: one candidate on each line, whole, and after a tab what it is. A line that
// begins with a tab asks for names of files.
//
// What stands in the database comes from the one that the words name. Whatever fails, or is
// not told within a moment, leaves candidates out; nothing is an error.
void complete(const CLI::App& app,
              const std::vector<std::string>& words,
              const Context& context);

}  // namespace Tunnelctl
