#pragma once

#include <csignal>

#include <sys/types.h>
#include <sys/un.h>

#include "tests/Support/Testing.h"

// Commands in processes of their own, and what they leave in files and say through sockets.

namespace Support {

std::string contents(const std::string& file);
// Those of a file of the tree. Throws when there are none.
std::vector<unsigned char> bytesIn(const std::string& file);

// Whether it holds before patience, 20 s, is over.
bool eventually(const std::function<bool()>& holds);

sockaddr_un addressOf(const std::string& path);

// A directory that goes with all it holds.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }
  std::string path(const std::string& name) const { return path_ + "/" + name; }
  std::vector<std::string> names() const;

 private:
  std::string path_;
};

// A running line of the shell with its output in files. Killed when it goes out of scope: so is
// a command behind `exec`.
class Process {
 public:
  Process(const std::string& line, const std::string& output);
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

// Where a service manager hears of the services that are started while it is there.
class ServiceManager {
 public:
  explicit ServiceManager(const std::string& path);
  ~ServiceManager();
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;
  std::string told() const;  // the next message

 private:
  int fd_;
};

}  // namespace Support
