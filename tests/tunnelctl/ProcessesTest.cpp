#include "apps/tunnelctl/Json.h"
#include "tests/Support/Testing.h"
#include "tests/tunnelctl/Processes.h"

namespace Tunnelctl {
namespace {

using namespace std::chrono_literals;
using ApplyProcesses = CtlProcesses;

// Catches a change that does not reach another process, a copy that is not equal, a path that
// stays after its deletion, and limits of a follower that are ignored.
TEST_F(ApplyProcesses, whatOneAppliesAnotherFollowsAndAThirdShows) {
  const auto limited = startMonitor("--count 3"),
             monitor = startMonitor("tunnel --state held.json");
  play("tunnelctl/apply.txt");
  EXPECT_EQ(limited->join(), 0);
  for (const char* change :
       {"+ decapGroup.gre-core.decapIp 192.0.2.3", "tunnel/mpls/config  removed",
        "~ decapGroup.gre-core.dynamic  false -> true"})
    EXPECT_TRUE(monitor->says(change));
  EXPECT_EQ(monitor->end(SIGTERM), 0) << monitor->err();
  EXPECT_EQ(contents(directory_ + "/held.json"), ctl("-j show tunnel").out);
}

// Catches nested values, ordered maps and records as keys that do not survive being shown.
TEST_F(ApplyProcesses, aWholeRouterIsShownAsItWasApplied) {
  play("tunnelctl/whole.txt");
}

// Catches a file that is applied in part: because it is bad, because the server refuses a
// type, or because another process writes one of its paths.
TEST_F(ApplyProcesses, whatCannotBeAppliedLeavesEverythingAsItWas) {
  constexpr const char* path = "tunnel/mpls/config";
  Hivel::Client holder(clientOptions("holder"));
  holder.mountAndWait(path, Hivel::Mode::adopt,
                      {nullptr, "Tunnel::MplsTunnelConfig", true}, 10s);
  const std::string empty = ctl("-j show /").out;
  const Result held = ctl("apply $EXAMPLES/edge-router.json");
  EXPECT_EQ(held.status, 1);
  EXPECT_THAT(held.err, testing::ContainsRegex("tunnel/mpls/config: .*holder"));
  EXPECT_EQ(ctl("-j show /").out, empty);
  holder.unmount(path);
  ASSERT_TRUE(holder.syncAndWait(10s));
  play("tunnelctl/refused.txt");
}

// Catches a follower that dies with the server, or that keeps what the new server lost.
TEST_F(ApplyProcesses, aFollowerSurvivesTheServer) {
  ASSERT_EQ(ctl("apply $EXAMPLES/edge-router.json").status, 0);
  auto monitor = startMonitor("-j --state held.json");
  EXPECT_TRUE(monitor->says("\"event\":\"snapshot\",\"path\":\"tunnel/decap/config\""));
  killDaemon();
  ASSERT_TRUE(monitor->says("\"event\":\"lost\""));
  startDaemon();
  ASSERT_TRUE(monitor->says("\"event\":\"connected\""));
  ASSERT_EQ(ctl("apply $EXAMPLES/edge-router.json").status, 0);
  ASSERT_EQ(ctl("apply $EXAMPLES/edge-router-change.json").status, 0);
  ASSERT_TRUE(monitor->says("192.0.2.3"));
  EXPECT_EQ(monitor->end(SIGINT), 0);
  EXPECT_EQ(contents(directory_ + "/held.json"), ctl("-j show /").out);
  // Every line is one JSON object with a time and an event.
  std::istringstream lines(monitor->out());
  for (std::string line; std::getline(lines, line);) {
    const Json event = parseJson(line);
    EXPECT_TRUE(event.find("time") && event.find("event")) << line;
  }
}

}  // namespace
}  // namespace Tunnelctl
