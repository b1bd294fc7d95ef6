#pragma once

#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Hivel/Client.h"

// Commands and the state database, each in a process of its own, over a real socket.

namespace Support {

std::string contents(const std::string& file);

// Whether it holds before patience, 20 s, is over.
bool eventually(const std::function<bool()>& holds);

// A running command with its output in files. Killed when it goes out of scope.
class Process {
 public:
  Process(const std::vector<std::string>& command, const std::string& output);
  ~Process() {
    if (pid_ > 0) end(SIGKILL);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // Its exit status, or 128 and the signal it died of.
  int join();
  void send(int signal) const { ::kill(pid_, signal); }
  int end(int signal) {
    send(signal);
    return join();
  }
  std::string out() const { return contents(output_ + ".out"); }
  std::string err() const { return contents(output_ + ".err"); }
  std::string said() const { return out() + err(); }
  // Whether it has said something, or does so in time.
  testing::AssertionResult says(const std::string& words) const;

 private:
  std::string output_;
  pid_t pid_ = -1;
};

// A state database in a directory of its own; the socket, the tables made under it and
// everything else go with it.
class WithDatabase : public testing::Test {
 protected:
  WithDatabase();
  ~WithDatabase() override;
  void SetUp() override { startDaemon(); }
  void startDaemon();
  void killDaemon() { daemon_.reset(); }  // as in a crash: nothing is kept
  // A command of ours, or one with its folder.
  std::unique_ptr<Process> startCommand(const std::string& name,
                                        const std::vector<std::string>& arguments);
  std::string file(const std::string& name, const std::string& text) const;
  Hivel::ClientOptions clientOptions(const std::string& name = "test") const;

  std::string directory_, socket_;
  std::unique_ptr<Process> daemon_;
  int runs_ = 0;
};

}  // namespace Support
