#include <chrono>
#include <optional>
#include <thread>

#include <gmock/gmock.h>

#include "Harness.h"
#include "tests/Support/Processes.h"
#include "tests/Support/Rows.h"

// The agent and the state database, each in a process of its own; what they hold is read by a
// third, through the database and through shared memory.

namespace FpmTest {
namespace {

using namespace std::chrono_literals;
using Support::Process;
using testing::HasSubstr;
using testing::UnorderedElementsAreArray;

class FpmProcesses : public Support::WithDatabase {
 protected:
  void SetUp() override {
    WithDatabase::SetUp();
    ::setenv("HIVEL_SOCKET", socket_.c_str(), 1);
  }
  std::unique_ptr<Process> agent(const std::vector<std::string>& arguments) {
    return startCommand("fpmagent", arguments);
  }
  std::unique_ptr<Process> listener() {
    auto running = agent({"--listen", "127.0.0.1:0", "--quiet-time", "0.5"});
    EXPECT_TRUE(running->says("listening on 127.0.0.1 port "));
    const std::string log = running->err();
    port_ = static_cast<U16>(std::stoul(log.substr(log.rfind(' '))));
    return running;
  }
  Support::Published seen() { return Support::publishedBy("fpm", clientOptions()); }
  static std::vector<std::string> linesOf(const Support::Published& published) {
    std::vector<std::string> lines;
    for (const auto& [key, path] : published.paths)
      lines.push_back(Support::lineOf(path));
    return lines;
  }
  U16 port_ = 0;
};

// Catches state that does not arrive as the stream said, identifiers that a restart loses,
// and an end before everything is handed over.
TEST_F(FpmProcesses, aReplayArrivesWholeAndARestartKeepsIdentifiers) {
  for (const std::string& name : {recordings[2], recordings[1]}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(agent({"--replay", fileOf(name)})->join(), 0);
    const auto first = seen();
    EXPECT_THAT(linesOf(first),
                UnorderedElementsAreArray(FpmTest::linesOf(recording(name))));
    const auto again = agent({"--replay", fileOf(name), "--pace", "5000"});
    EXPECT_EQ(again->join(), 0) << again->err();
    EXPECT_TRUE(again->says("; 0 stale paths deleted"));
    EXPECT_EQ(seen().ids, first.ids);
  }
  const auto begin = std::chrono::steady_clock::now();
  const auto last = agent({"--replay", fileOf(recordings[1]), "--pace", "100", "--hold",
                           "--remove", "--log", "debug", "--status-interval", "0.1"});
  EXPECT_TRUE(last->says("everything"));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 22 * 10ms);
  EXPECT_TRUE(last->says("3 tunnels (isis 2, srte 1)")) << "at an interval";
  EXPECT_EQ(last->end(SIGTERM), 0) << last->err();
  EXPECT_THAT(last->err(), HasSubstr("debug: new switched path 5555 srte"));
  Hivel::Client client(clientOptions());
  EXPECT_TRUE(client.listAndWait("tunnel", 20s).empty());
}

// Catches a connection that breaks and takes paths with it, and a daemon's return that
// renumbers tunnels or leaves what it no longer tells.
TEST_F(FpmProcesses, aDaemonThatComesBackFindsItsTunnels) {
  const auto running = listener();
  const Bytes stream = recording(recordings[0]);
  std::optional<Daemon> daemon(std::in_place, port_);
  daemon->send(stream);
  ASSERT_TRUE(running->says("; 0 stale paths deleted"));
  const auto first = seen();
  EXPECT_THAT(linesOf(first), UnorderedElementsAreArray(FpmTest::linesOf(stream)));

  daemon.emplace(port_);
  daemon->send(head(stream, 1000));
  daemon.reset();
  ASSERT_TRUE(running->says("in the middle of a frame"));
  std::this_thread::sleep_for(700ms);  // no sweep of a session that has ended
  daemon.emplace(port_);
  daemon->send({9, 9, 9, 9});
  ASSERT_TRUE(running->says("nothing is withdrawn"));
  EXPECT_EQ(seen().ids, first.ids);

  daemon.emplace(port_);
  const Bytes part = head(stream, 120);  // two of the switched paths
  daemon->send(part);
  ASSERT_TRUE(running->says("; 18 stale paths deleted"));
  EXPECT_EQ(running->end(SIGTERM), 0) << running->err();
  const auto last = seen();
  EXPECT_THAT(linesOf(last), UnorderedElementsAreArray(FpmTest::linesOf(part)));
  for (const auto& [key, id] : last.ids)
    EXPECT_EQ(id, first.ids.at(key)) << key.second;
}

// Catches a scanner of ports that ends the daemon's session, and a daemon that comes back
// and has to wait for its old connection to be seen dead.
TEST_F(FpmProcesses, aSecondConnectionTakesOverWhenItSends) {
  const auto running = listener();
  const auto closed = [](const Daemon& daemon) {
    return Support::eventually([&] { return daemon.closed(); });
  };
  const Bytes stream = recording(recordings[0]);
  const Daemon first(port_);
  first.send(stream);
  ASSERT_TRUE(running->says("; 0 stale paths deleted"));
  const Daemon silent(port_), bad(port_);
  EXPECT_TRUE(closed(silent));
  bad.send({2, 2, 2, 2});
  EXPECT_TRUE(closed(bad));
  EXPECT_FALSE(first.closed());
  first.send(frameOf("24 1c140000fec10001 1=0004d100 9=0800000000000000"));
  EXPECT_TRUE(Support::eventually([&] {
    return seen().ids.contains({Tunnel::TunnelTable::ldpTunnel, "ldp-label-77"});
  }));
  std::optional<Daemon> second(std::in_place, port_);
  second->send(stream);
  EXPECT_TRUE(closed(first));
  EXPECT_TRUE(running->says("; 1 stale paths deleted"));
  EXPECT_EQ(seen().paths.size(), 20u);
  // To send nothing is an answer as well when nobody else is there.
  second.reset();
  const Daemon empty(port_);
  EXPECT_TRUE(running->says("; 20 stale paths deleted"));
}

// Catches a service that counts as started before a daemon can connect, or never.
TEST_F(FpmProcesses, tellsTheServiceManagerWhenADaemonCanConnect) {
  const Support::ServiceManager manager(directory_ + "/notify");
  const auto running = listener();
  EXPECT_EQ(manager.told(), "READY=1");
  EXPECT_EQ(running->end(SIGTERM), 0);
  EXPECT_EQ(manager.told(), "STOPPING=1");
}

// Catches a wrong command line that is guessed at, a failure with status 0, and a replay that
// calls a stream whole that is not.
TEST_F(FpmProcesses, saysWhatIsWrong) {
  const std::string pair = fileOf(recordings[1]);
  const Bytes cut = head(recording(recordings[1]), 130);
  const std::string rows = R"(
--listen 127.0.0.1            | 2 | found '127.0.0.1', expected ADDR:PORT
--listen ::1:2620             | 2 | found '::1:2620', expected ADDR:PORT
--listen 127.0.0.1:65536      | 2 | found '127.0.0.1:65536', expected ADDR:PORT
--interface 3                 | 2 | found '3', expected INDEX=NAME
--interface 3=Ethernet5000    | 2 | 3=Ethernet5000: 
--mode 0999                   | 2 | found '0999', expected an octal mode
--pace 5                      | 2 | --pace requires --replay
--listen 192.0.2.1:2620       | 1 | bind 192.0.2.1 port 2620: 
--replay /nowhere             | 1 | /nowhere: No such file
--replay /                    | 1 | cannot be read; nothing is withdrawn
)"
                           "--replay " HOUSE_SOURCE_DIR
                           "/README.md | 1 | offset 0: frame version: found\n"
                           "--replay " +
                           file("cut", {cut.begin(), cut.end()}) +
                           " | 1 | in the middle of a frame; nothing is withdrawn\n" +
                           "--socket /nowhere/sock --timeout 0.1 --replay " + pair +
                           " | 1 | /nowhere/sock\n";
  for (const auto& row : Support::rowsOf(rows)) {
    SCOPED_TRACE(row[0]);
    const auto running = agent(Support::wordsOf(row[0]));
    EXPECT_EQ(running->join(), std::stoi(row[1]));
    EXPECT_THAT(running->err(), HasSubstr(row[2]));
  }
}

}  // namespace
}  // namespace FpmTest
