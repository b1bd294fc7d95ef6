#pragma once

#include "Hivel/Client.h"
#include "tests/Support/Process.h"
#include "tests/Support/Testing.h"

// Commands and the state database, each in a process of its own, over a real socket.

namespace Support {

// A state database in a directory of its own; the socket, the tables made under it and
// everything else go with it.
class WithDatabase : public testing::Test {
 protected:
  ~WithDatabase() override;
  void SetUp() override { startDaemon(); }
  void startDaemon() { daemon_ = startDaemonAt(socket_); }
  std::unique_ptr<Process> startDaemonAt(const std::string& socket,
                                         const std::string& types =
                                             "--types libTunnelHivelTypes.so.0 "
                                             "--types libLinuxTunnel.so.0");
  void killDaemon() { daemon_.reset(); }  // as in a crash: nothing is kept
  // A command as a shell has it, in directory_: ours are in its path, the database is at
  // $HIVEL_SOCKET, the examples in $EXAMPLES.
  std::unique_ptr<Process> start(const std::string& line) {
    return shell("exec " + line);
  }
  std::unique_ptr<Process> shell(const std::string& line);
  // Runs a table of tests/: each row a line of the shell, its exit status and what it says
  // somewhere, where all white space is alike.
  void play(const std::string& rows);
  std::string file(const std::string& name, const std::string& text) const;
  Hivel::ClientOptions clientOptions(const std::string& name = "test") const;

  const TempDir dir_;
  const std::string& directory_ = dir_.path();
  std::string socket_ = dir_.path("hivel.sock");
  std::unique_ptr<Process> daemon_;
  int runs_ = 0;
};

}  // namespace Support
