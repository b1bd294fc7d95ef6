#include <algorithm>
#include <fstream>

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Harness.h"

namespace HivelTest {
namespace {

using namespace Hivel;

class DaemonProcesses : public testing::Test {
 protected:
  // Runs it to its end.
  int run(const std::vector<std::string>& arguments) {
    Daemon other(log());
    other.start(arguments);
    return other.wait();
  }
  std::string log() const { return logs.path("other"); }
  std::string said() const { return Daemon(log()).log(); }
  void forget() const { std::ofstream(log(), std::ios::trunc); }

  TempDir dir, logs;
  const std::string socket = dir.path("hivel.sock");
  Daemon daemon{logs.path("hiveld")};
};

// Catches a daemon that leaves its socket behind, or that is stopped by what one left behind.
TEST_F(DaemonProcesses, startsOnceAndLeavesNothing) {
  daemon.startServing(socket);
  for (const int signal : {SIGTERM, SIGINT}) {
    Client client(clientOptions(dir));
    ASSERT_TRUE(client.wait([&] { return client.state() == Client::State::connected; },
                            patience));
    daemon.signal(signal);
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_TRUE(dir.names().empty());
    EXPECT_TRUE(
        client.wait([&] { return client.state() == Client::State::lost; }, patience));
    EXPECT_EQ(client.reason(), "the server says: the server ends");
    daemon.startServing(socket);
  }
  daemon.signal(SIGKILL);
  EXPECT_EQ(daemon.wait(), -SIGKILL);
  EXPECT_FALSE(dir.names().empty());
  daemon.startServing(socket);
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.wait(), 0);
  EXPECT_TRUE(dir.names().empty());
}

// Catches a daemon that claims to be ready while clients are still refused: a service
// manager would start them too early.
TEST_F(DaemonProcesses, tellsItsServiceManagerWhenItIsReady) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string notified = logs.path("notify");
  notified.copy(address.sun_path, sizeof address.sun_path - 1);
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const timeval limit{10, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setenv("NOTIFY_SOCKET", notified.c_str(), 1);
  daemon.start({"--socket", socket});
  ::unsetenv("NOTIFY_SOCKET");
  const auto next = [&] {
    char text[256];
    const ssize_t size = ::recv(fd, text, sizeof text, 0);
    return std::string(text, size > 0 ? static_cast<std::size_t>(size) : 0);
  };
  EXPECT_EQ(next(), "READY=1\nSTATUS=listening on " + socket);
  Client client(clientOptions(dir));
  EXPECT_TRUE(
      client.wait([&] { return client.state() != Client::State::connecting; }, patience));
  EXPECT_EQ(client.state(), Client::State::connected);
  daemon.signal(SIGTERM);
  EXPECT_EQ(next(), "STOPPING=1");
  EXPECT_EQ(daemon.wait(), 0);
  ::close(fd);
}

// Catches an error without a reason or with another status than a script expects.
TEST_F(DaemonProcesses, saysWhatIsWrongWithItsArguments) {
  daemon.startServing(socket);
  const std::string taken = "error: another server listens on " + socket + "\n";
  const struct {
    std::vector<std::string> arguments;
    int status;
    std::string text;
  } rows[] = {
      {{"--socket", socket},                                 1, taken                                         },
      {{"--help"},                                           0, "--socket"                                    },
      {{"--version"},                                        0, "hiveld "                                     },
      {{"--no-such"},                                        2, "--no-such"                                   },
      {{"extra"},                                            2, "extra"                                       },
      {{"--mode", "999"},                                    2, "'999' is not an octal mode"                  },
      {{"--allow", "a:b"},                                   2, "rule 'a:b': two ':' are needed"              },
      {{"--max-connections", "0"},                           2, "0"                                           },
      {{"--socket", dir.path("x"), "--types", "libNone.so"},
       1,                                                       "libNone.so: cannot open"                     },
      {{"--socket", "/proc/none/x"},                         1, "mkdir /proc/none: No such file or directory" },
      {{"--socket", "/proc/x"},                              1, "open /proc/x.lock: No such file or directory"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.arguments.front());
    forget();
    EXPECT_EQ(run(row.arguments), row.status);
    EXPECT_NE(said().find(row.text), std::string::npos) << said();
  }
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"hivel.sock", "hivel.sock.lock"}));
}

// A server that dies while its clients write and read. Catches a copy that differs
// afterwards, that keeps what was deleted meanwhile, that is emptied while nobody serves it,
// or that is another object; and a client that gives up or has to be told.
TEST_F(DaemonProcesses, copiesAreEqualAfterTheServerIsKilled) {
  daemon.startServing(socket);
  Client writer(clientOptions(dir, "writer")), reader(clientOptions(dir, "reader"));
  Loop loop;
  loop.add(writer);
  loop.add(reader);
  const auto plot = Plot::PlotIs("p");
  // A writer that would adopt, and a reader that would not wait: not after a reconnection.
  const Mount& out = writer.mount("a", Mode::adopt, {plot, {}, true});
  ASSERT_TRUE(loop.until([&] { return out.settled() && writer.drained(); }));
  const Mount& in = reader.mount("a", Mode::read, {nullptr, {}, false});
  ASSERT_TRUE(loop.until([&] { return in.state() == Mount::State::live; }));
  const auto replica = Ptr<Plot>(dynamic_cast<Plot*>(in.entity().get()));
  std::minstd_rand random(7);
  for (int round = 0; round < 4; ++round) {
    SCOPED_TRACE(round);
    const Kop::String doomed("doomed" + std::to_string(round));
    plot->bedIs(doomed);
    for (int step = 0; step < 1500; ++step) {
      scribble(*plot, random);
      if (step % 20 == 0) loop.run(0ms);
      if (step == 600) {
        ASSERT_TRUE(loop.until([&] { return replica->bedHas(doomed); }));
      }
      if (step == 700) {
        daemon.signal(SIGKILL);
        daemon.wait();
        ASSERT_TRUE(loop.until([&] { return reader.state() == Client::State::lost; }));
        EXPECT_TRUE(replica->bedHas(doomed));
        plot->bedDel(doomed);
      }
      if (step == 1100) daemon.startServing(socket);
    }
    bool applied = false;
    writer.sync([&](bool yes) { applied = yes; });
    ASSERT_TRUE(loop.until([&] { return applied; })) << daemon.log();
    EXPECT_TRUE(loop.until([&] {
      return in.state() == Mount::State::live && dump(in.entity()) == dump(plot);
    }));
    EXPECT_EQ(in.entity(), replica);
    EXPECT_EQ(reader.state(), Client::State::connected);
  }
}

}  // namespace
}  // namespace HivelTest
