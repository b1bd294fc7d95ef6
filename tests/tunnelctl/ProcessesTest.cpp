#include <chrono>
#include <sstream>

#include <gmock/gmock.h>

#include "apps/tunnelctl/Json.h"
#include "tests/tunnelctl/Processes.h"

namespace Tunnelctl {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

const std::string router = HOUSE_SOURCE_DIR "/examples/edge-router.json";
const std::string change = HOUSE_SOURCE_DIR "/examples/edge-router-change.json";
constexpr const char* config = "tunnel/mpls/config";

class ApplyProcesses : public CtlProcesses {
 protected:
  void expectApplied(const std::string& from, const std::string& says) {
    const Result result = ctl({"apply", from});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr(says));
  }
  std::string shown(const std::string& path = "/") {
    return ctl({"-j", "show", path}).out;
  }
};

// Catches a change that does not reach another process, and a copy that is not equal.
TEST_F(ApplyProcesses, whatOneAppliesAnotherFollowsAndAThirdShows) {
  const std::string held = directory_ + "/held.json";
  auto monitor = startMonitor({"tunnel", "--state", held});
  expectApplied(router, "3 paths: 3 paths made, 9 attributes set, 21 entries added");
  expectApplied(router, "3 paths: nothing changed");
  EXPECT_EQ(ctl({"apply", "--check", router}).status, 0);
  const std::string before = shown();

  const Result differs = ctl({"apply", "--check", change});
  EXPECT_EQ(differs.status, 1);
  EXPECT_THAT(differs.out, HasSubstr("- decapGroup mpls-over-udp"));
  EXPECT_EQ(shown(), before) << "a check wrote";
  expectApplied(change, "1 attribute set, 1 entry added, 1 entry changed, 2 entries");
  EXPECT_EQ(ctl({"apply", "--check", change}).status, 0);
  EXPECT_EQ(ctl({"apply", "--check", router}).status, 1);

  const std::string last = shown("tunnel");
  EXPECT_THAT(last, Not(HasSubstr("mpls-over-udp")));
  EXPECT_TRUE(monitor->says("+ decapGroup.gre-core.decapIp 192.0.2.3"));
  EXPECT_TRUE(monitor->says("~ decapGroup.gre-core.dynamic  false -> true"));
  EXPECT_EQ(monitor->end(SIGTERM), 0) << monitor->err();
  EXPECT_EQ(contents(held), last);
  EXPECT_THAT(ctl({"show"}).out, HasSubstr(config));
  EXPECT_THAT(ctl({"show", "tunnel/mpls"}).out, HasSubstr("entropyLabelPush  true"));
  EXPECT_THAT(ctl({"show", "tunnel/decap"}).out,
              HasSubstr("Loopback0 ipv4  addressType all, oldConfig false\n"));
  EXPECT_EQ(ctl({"show", "frob"}).status, 1);
}

// Catches nested values, ordered maps and records as keys that do not survive being shown.
TEST_F(ApplyProcesses, aWholeRouterIsShownAsItWasApplied) {
  expectApplied(HOUSE_SOURCE_DIR "/examples/whole-router.json",
                "9 paths: 9 paths made, 5 attributes set, 25 entries");
  expectApplied(file("shown.json", shown()), "nothing changed");
  const std::string text = ctl({"show", "tunnel"}).out;
  for (const char* part : {"192.0.2.1 Ethernet1 push[100016]: true, ",
                           "protocol 2048, oFlags checksumFlag|keyFlag, iFlags keyFlag",
                           "igpMetric 4000000000"})
    EXPECT_THAT(text, HasSubstr(part));
}

// Catches a file that is applied in part: because it is bad, because the server refuses a
// type, or because another process writes one of its paths.
TEST_F(ApplyProcesses, whatCannotBeAppliedLeavesEverythingAsItWas) {
  Hivel::Client holder(clientOptions("holder"));
  holder.mountAndWait(config, Hivel::Mode::adopt,
                      {nullptr, "Tunnel::MplsTunnelConfig", true}, 10s);
  const std::string empty = shown();
  const Result held = ctl({"apply", router});
  EXPECT_EQ(held.status, 1);
  EXPECT_THAT(held.err, testing::ContainsRegex("tunnel/mpls/config: .*holder"));
  EXPECT_EQ(shown(), empty);
  holder.unmount(config);
  ASSERT_TRUE(holder.syncAndWait(10s));

  ASSERT_EQ(ctl({"apply", router}).status, 0);
  const std::string before = shown();
  const std::string bad = file("bad.json", R"([{"path": "tunnel/mpls/config",
 "type": "Tunnel::MplsTunnelConfig", "entropyLabelPush": false},
{"path": "new", "type": "Tunnel::MplsTunnelConfig", "entropyLabelPush": 1}])");
  Result refused = ctl({"apply", bad});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err, "tunnelctl: " + bad +
                             ":3: entropyLabelPush: found 1, expected true or false\n");
  refused = ctl({"apply", file("other.json", R"([
 {"path": "new", "type": "Tunnel::MplsTunnelConfig"},
 {"path": "tunnel/mpls/config", "type": "Tunnel::Decap::ConfigInput"}])")});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err,
              HasSubstr("tunnel/mpls/config: it holds an entity of type "
                        "Tunnel::MplsTunnelConfig, not Tunnel::Decap::ConfigInput"));
  EXPECT_EQ(shown(), before);
}

// Catches a path that stays after its deletion, here or at a follower, and limits of a
// follower that are ignored.
TEST_F(ApplyProcesses, pathsAreDeleted) {
  auto limited = startMonitor({"--count", "3"});
  ASSERT_EQ(ctl({"apply", router}).status, 0);
  EXPECT_EQ(limited->join(), 0);
  EXPECT_EQ(ctl({"monitor", "--for", "0.2"}).status, 0);
  auto monitor = startMonitor({"--count", "1", "--state", directory_ + "/held.json"});
  const std::string deletion =
      file("delete.json", R"({"path": "tunnel/mpls/config", "delete": true})");
  expectApplied(deletion, "1 path: 1 path deleted");
  expectApplied(deletion, "nothing changed");
  EXPECT_THAT(ctl({"show"}).out, Not(HasSubstr(config)));
  EXPECT_EQ(monitor->join(), 0);
  EXPECT_THAT(monitor->out(), HasSubstr("tunnel/mpls/config  removed"));
  EXPECT_THAT(contents(directory_ + "/held.json"), Not(HasSubstr(config)));
}

// Catches a follower that dies with the server, or that keeps what the new server lost.
TEST_F(ApplyProcesses, aFollowerSurvivesTheServer) {
  ASSERT_EQ(ctl({"apply", router}).status, 0);
  auto monitor = startMonitor({"-j", "--state", directory_ + "/held.json"});
  EXPECT_THAT(monitor->out(),
              HasSubstr("\"event\":\"snapshot\",\"path\":\"tunnel/decap/config\""));
  killDaemon();
  ASSERT_TRUE(monitor->says("\"event\":\"lost\""));
  startDaemon();
  ASSERT_TRUE(monitor->says("\"event\":\"connected\""));
  ASSERT_EQ(ctl({"apply", router}).status, 0);
  ASSERT_EQ(ctl({"apply", change}).status, 0);
  ASSERT_TRUE(monitor->says("192.0.2.3"));
  EXPECT_EQ(monitor->end(SIGINT), 0);
  EXPECT_EQ(contents(directory_ + "/held.json"), shown());
  // Every line is one JSON object with a time and an event.
  std::istringstream lines(monitor->out());
  for (std::string line; std::getline(lines, line);) {
    const Json event = parseJson(line);
    EXPECT_TRUE(event.find("time") && event.find("event")) << line;
  }
}

}  // namespace
}  // namespace Tunnelctl
