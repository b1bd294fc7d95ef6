#include "Harness.h"
#include "tests/Support/Processes.h"
#include "tests/Support/Testing.h"

// The agent and the state database, each in a process of its own; what they hold is read by a
// third, through the database and through shared memory.

namespace FpmTest {
namespace {

using namespace std::chrono_literals;
using testing::UnorderedElementsAreArray;

class FpmProcesses : public Support::WithDatabase {
 protected:
  auto replay(const std::string& name, const std::string& options = "") {
    return start("fpmagent --replay $EXAMPLES/fpm/" + name + ".fpm " + options);
  }
  auto listener() {
    auto running = start("fpmagent --listen 127.0.0.1:0 --quiet-time 0.5");
    EXPECT_TRUE(running->says("listening on 127.0.0.1 port "));
    const std::string log = running->err();
    port_ = static_cast<U16>(std::stoul(log.substr(log.rfind(' '))));
    return running;
  }
  Support::Published seen() { return Support::publishedBy("fpm", clientOptions()); }
  U16 port_ = 0;
};

// Catches state that does not arrive as the stream said, identifiers that a restart loses,
// and an end before everything is handed over.
TEST_F(FpmProcesses, aReplayArrivesWholeAndARestartKeepsIdentifiers) {
  for (const std::string& name : {recordings[2], recordings[1]}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(replay(name)->join(), 0);
    const auto first = seen();
    EXPECT_THAT(Support::linesOf(first.paths),
                UnorderedElementsAreArray(FpmTest::linesOf(recording(name))));
    const auto again = replay(name, "--pace 5000");
    EXPECT_EQ(again->join(), 0) << again->err();
    EXPECT_TRUE(again->says("; 0 stale paths deleted"));
    EXPECT_EQ(seen().ids, first.ids);
  }
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
  EXPECT_THAT(Support::linesOf(first.paths),
              UnorderedElementsAreArray(FpmTest::linesOf(stream)));

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
  EXPECT_THAT(Support::linesOf(last.paths),
              UnorderedElementsAreArray(FpmTest::linesOf(part)));
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
// calls a stream whole that is not, or leaves behind what was to be removed.
TEST_F(FpmProcesses, answersWithStatusAndText) {
  play("fpmagent/commands.txt");
  Hivel::Client client(clientOptions());
  EXPECT_TRUE(client.listAndWait("tunnel", 20s).empty());
}

}  // namespace
}  // namespace FpmTest
