#include <atomic>
#include <iostream>

#include <signal.h>

#include "apps/tunnelgen/CommandLine.h"

namespace {

std::atomic<bool> stop = false;
static_assert(std::atomic<bool>::is_always_lock_free);

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  struct sigaction action {};
  action.sa_handler = [](int) { stop = true; };
  action.sa_flags = static_cast<int>(SA_RESETHAND);  // a second one ends it at once
  for (const int signal : {SIGTERM, SIGINT, SIGHUP})
    ::sigaction(signal, &action, nullptr);
  ::signal(SIGPIPE, SIG_IGN);  // a closed pipe is an error of writing, told as one
  return Tunnelgen::run({argv + 1, argv + argc}, std::cout, std::cerr, stop);
}
