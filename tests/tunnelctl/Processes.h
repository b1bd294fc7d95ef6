#pragma once

#include "tests/Support/Processes.h"
#include "tests/Support/Testing.h"

// The command against the daemon, each in a process of its own, over a real socket.

namespace Tunnelctl {

using Support::contents;
using Support::eventually;
using Support::Process;

struct Result {
  int status;
  std::string out, err;
};

class CtlProcesses : public Support::WithDatabase {
 protected:
  Result ctl(const std::string& arguments) {
    const auto process = start("tunnelctl " + arguments);
    const int status = process->join();
    return {status, process->out(), process->err()};
  }
  std::unique_ptr<Process> startMonitor(const std::string& arguments) {
    auto monitor = start("tunnelctl monitor " + arguments);
    EXPECT_TRUE(
        monitor->says(arguments.starts_with("-j") ? "\"mark\"" : "changes from here on"));
    return monitor;
  }
};

}  // namespace Tunnelctl
