#pragma once

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "tests/Support/Processes.h"

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
  std::unique_ptr<Process> start(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"-s", socket_});
    return startCommand("tunnelctl", arguments);
  }
  Result ctl(std::vector<std::string> arguments) {
    const auto process = start(std::move(arguments));
    const int status = process->join();
    return {status, process->out(), process->err()};
  }
  std::unique_ptr<Process> startMonitor(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "monitor");
    auto monitor = start(std::move(arguments));
    EXPECT_TRUE(eventually([&] {
      return monitor->out().find("changes from here on") != std::string::npos ||
             monitor->out().find("\"mark\"") != std::string::npos;
    })) << monitor->err();
    return monitor;
  }
};

}  // namespace Tunnelctl
