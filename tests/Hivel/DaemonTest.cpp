#include <unistd.h>

#include "Harness.h"
#include "tests/Support/Rows.h"
#include "tests/Support/Testing.h"

namespace HivelTest {
namespace {

using Support::Process;

class DaemonProcesses : public testing::Test {
 protected:
  std::unique_ptr<Process> start(const std::string& arguments) {
    return std::make_unique<Process>("exec '" HOUSE_BIN_DIR "/hiveld' " + arguments,
                                     logs.path(std::to_string(++runs)));
  }
  void startServing() {
    daemon = start("--socket " + socket + " --types '" HIVEL_TEST_TYPES "'");
    ASSERT_TRUE(daemon->says("listening"));
  }
  static bool reaches(Client& client, Client::State state) {
    return client.wait([&] { return client.state() == state; }, patience);
  }

  TempDir dir, logs;
  const std::string socket = dir.path("hivel.sock");
  std::unique_ptr<Process> daemon;
  int runs = 0;
};

// Catches a daemon that leaves its socket behind, or that is stopped by what one left behind.
TEST_F(DaemonProcesses, startsOnceAndLeavesNothing) {
  startServing();
  for (const int signal : {SIGTERM, SIGINT}) {
    Client client(clientOptions(dir));
    ASSERT_TRUE(reaches(client, Client::State::connected));
    EXPECT_EQ(daemon->end(signal), 0);
    EXPECT_TRUE(dir.names().empty());
    EXPECT_TRUE(reaches(client, Client::State::lost));
    EXPECT_EQ(client.reason(), "the server says: the server ends");
    startServing();
  }
  EXPECT_EQ(daemon->end(SIGKILL), 128 + SIGKILL);
  EXPECT_FALSE(dir.names().empty());
  startServing();
  EXPECT_EQ(daemon->end(SIGTERM), 0);
  EXPECT_TRUE(dir.names().empty());
}

// Catches a daemon that claims to be ready while clients are still refused: a service
// manager would start them too early. And modes that are not those that were asked for.
TEST_F(DaemonProcesses, tellsItsServiceManagerWhenItIsReady) {
  const Support::ServiceManager manager(logs.path("notify"));
  const std::string folder = dir.path("new"), made = folder + "/deep/x.sock";
  daemon = start("--socket " + made + " --mode 0600 --directory-mode 710");
  EXPECT_EQ(manager.told(), "READY=1\nSTATUS=listening on " + made);
  ClientOptions options = clientOptions(dir);
  options.socketPath = made;
  Client client(options);
  EXPECT_TRUE(
      client.wait([&] { return client.state() != Client::State::connecting; }, patience));
  EXPECT_EQ(client.state(), Client::State::connected);
  const auto modeOf = [](const std::string& path) {
    return static_cast<U32>(std::filesystem::status(path).permissions());
  };
  EXPECT_EQ(modeOf(made), 0600u);
  EXPECT_EQ(modeOf(folder), 0710u);
  EXPECT_EQ(daemon->end(SIGTERM), 0);
  EXPECT_EQ(manager.told(), "STOPPING=1");
}

// Catches an error without a reason or with another status than a script expects, a socket
// that is taken over while somebody listens, and files that stay behind.
TEST_F(DaemonProcesses, saysWhatIsWrongWithItsArguments) {
  startServing();
  const std::string rows = R"(
--socket DIR/hivel.sock             | 1 | error: another server listens on DIR/hivel.sock\n
--socket DIR/hivel.sock.lock        | 1 | bind DIR/hivel.sock.lock: it exists and is not a socket
--socket DIR/LONG                   | 1 | at most 107
--socket /proc/none/x               | 1 | mkdir /proc/none: No such file or directory
--socket /proc/x                    | 1 | open /proc/x.lock: No such file or directory
--socket DIR/x --types libNone.so   | 1 | libNone.so: cannot open
--help                              | 0 | --socket
--version                           | 0 | hiveld 
--no-such                           | 2 | --no-such
extra                               | 2 | extra
--mode 999                          | 2 | '999' is not an octal mode
--allow a:b                         | 2 | rule 'a:b': two ':' are needed
--max-connections 0                 | 2 | 0
)";
  const auto expectSaid = [&](const std::string& command, int status,
                              const std::string& text) {
    SCOPED_TRACE(command);
    const auto process = start(command);
    EXPECT_EQ(process->join(), status);
    EXPECT_THAT(process->said(), testing::HasSubstr(text));
  };
  const auto spelt = [&](const std::string& text) {
    return Support::replaced(Support::replaced(text, "LONG", std::string(200, 'x')),
                             "DIR", dir.path());
  };
  for (const auto& row : Support::rowsOf(spelt(rows)))
    expectSaid(row[0], std::stoi(row[1]), row[2]);
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"hivel.sock", "hivel.sock.lock"}));
  // Also when the other has lost its lock file.
  ::unlink((socket + ".lock").c_str());
  expectSaid("--socket " + socket, 1, "another server listens on " + socket);
}

// A server that dies while its clients write and read. Catches a copy that differs
// afterwards, that keeps what was deleted meanwhile, that is emptied while nobody serves it,
// or that is another object; and a client that gives up or has to be told.
TEST_F(DaemonProcesses, copiesAreEqualAfterTheServerIsKilled) {
  startServing();
  Client writer(clientOptions(dir, "writer")), reader(clientOptions(dir, "reader"));
  Loop loop;
  loop.add(writer);
  loop.add(reader);
  const auto plot = Plot::PlotIs("p");
  // A writer that would adopt, and a reader that would not wait: not after a reconnection.
  const Mount& out = writer.mount("a", Mode::adopt, {plot, {}, true});
  ASSERT_TRUE(loop.until([&] { return out.settled() && writer.drained(); }));
  const Mount& in = reader.mount("a", Mode::read, {nullptr, {}, false});
  ASSERT_TRUE(loop.until([&] { return isLive(in); }));
  const Ptr<Plot> replica = plotOf(in.entity());
  std::minstd_rand random(7);
  for (int step = 0; step < 6000; ++step) {
    SCOPED_TRACE(step);
    scribble(*plot, random);
    if (step % 20 == 0) loop.run(0ms);
    if (step % 1500 == 700) {
      daemon.reset();
      ASSERT_TRUE(loop.until([&] { return reader.state() == Client::State::lost; }));
      EXPECT_GT(dump(replica).size(), 1u);
    }
    if (step % 1500 == 1100) startServing();
    if (step % 1500 != 600 && step % 1500 != 1499) continue;
    EXPECT_TRUE(loop.until([&] { return isLive(in) && dump(in.entity()) == dump(plot); }))
        << daemon->err();
    EXPECT_EQ(in.entity(), replica);
  }
}

}  // namespace
}  // namespace HivelTest
