#include <csignal>
#include <iostream>

#include <unistd.h>

#include "apps/tunnelctl/CommandLine.h"

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  std::signal(SIGPIPE, SIG_IGN);  // a closed pipe is an error of writing, told as one
  return Tunnelctl::run({argv + 1, argv + argc},
                        {std::cout, std::cerr, isatty(STDOUT_FILENO) == 1});
}
