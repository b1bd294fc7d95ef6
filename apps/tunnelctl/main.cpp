#include <csignal>
#include <iostream>

#include <unistd.h>

#include "apps/tunnelctl/CommandLine.h"

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  // A closed pipe and a file that may not grow are errors of writing, told as such.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  return Tunnelctl::run({argv + 1, argv + argc},
                        {std::cout, std::cerr, isatty(STDOUT_FILENO) == 1});
}
