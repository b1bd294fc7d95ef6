#include <sstream>

#include <gmock/gmock.h>

#include "Hivel/Client.h"
#include "apps/tunnelctl/Json.h"
#include "tests/tunnelctl/Processes.h"

namespace Tunnelctl {
namespace {

using testing::HasSubstr;
using testing::Not;

const std::string router = HOUSE_SOURCE_DIR "/examples/edge-router.json";
const std::string change = HOUSE_SOURCE_DIR "/examples/edge-router-change.json";

// Catches a change that does not reach another process, and a copy that is not equal.
TEST_F(ProcessesThreads, whatOneAppliesAnotherFollowsAndAThirdShows) {
  const std::string held = directory_ + "/held.json";
  auto monitor = startMonitor({"tunnel", "--state", held});

  Result applied = ctl({"apply", router});
  ASSERT_EQ(applied.status, 0) << applied.err;
  EXPECT_THAT(applied.out,
              HasSubstr("3 paths: 3 paths made, 9 attributes set, 21 entries added"));
  EXPECT_THAT(ctl({"apply", router}).out, HasSubstr("3 paths: nothing changed"));
  EXPECT_EQ(ctl({"apply", "--check", router}).status, 0);

  // Shown, it can be applied again.
  const Result shown = ctl({"-j", "show", "/"});
  ASSERT_EQ(shown.status, 0) << shown.err;
  EXPECT_THAT(ctl({"apply", file("shown.json", shown.out)}).out,
              HasSubstr("nothing changed"));

  const Result differs = ctl({"apply", "--check", change});
  EXPECT_EQ(differs.status, 1);
  EXPECT_THAT(differs.out, HasSubstr("- decapGroup mpls-over-udp"));
  EXPECT_EQ(ctl({"-j", "show", "/"}).out, shown.out) << "a check wrote";

  applied = ctl({"apply", change});
  ASSERT_EQ(applied.status, 0) << applied.err;
  EXPECT_THAT(applied.out,
              HasSubstr("1 attribute set, 1 entry added, 1 entry changed, 2 entries"));
  EXPECT_EQ(ctl({"apply", "--check", change}).status, 0);
  EXPECT_EQ(ctl({"apply", "--check", router}).status, 1);

  const Result last = ctl({"-j", "show", "tunnel"});
  EXPECT_THAT(last.out, Not(HasSubstr("mpls-over-udp")));
  ASSERT_TRUE(eventually([&] {
    return monitor->out().find("+ decapGroup.gre-core.decapIp 192.0.2.3") !=
           std::string::npos;
  })) << monitor->out();
  EXPECT_THAT(monitor->out(), HasSubstr("~ decapGroup.gre-core.dynamic  false -> true"));
  EXPECT_EQ(monitor->end(SIGTERM), 0) << monitor->err();
  EXPECT_EQ(contents(held), last.out);
  EXPECT_THAT(ctl({"show"}).out, HasSubstr("tunnel/mpls/config"));
  EXPECT_THAT(ctl({"show", "tunnel/mpls"}).out, HasSubstr("entropyLabelPush  true"));
  EXPECT_THAT(ctl({"show", "tunnel/decap"}).out,
              HasSubstr("Loopback0 ipv4  addressType all, oldConfig false\n"));
  EXPECT_EQ(ctl({"show", "frob"}).status, 1);
}

// Catches nested values, ordered maps and records as keys that do not survive being shown.
TEST_F(ProcessesThreads, aWholeRouterIsShownAsItWasApplied) {
  const std::string tunnels = HOUSE_SOURCE_DIR "/examples/whole-router.json";
  auto monitor = startMonitor({"tunnel"});
  const Result applied = ctl({"apply", tunnels});
  ASSERT_EQ(applied.status, 0) << applied.err;
  EXPECT_THAT(applied.out,
              HasSubstr("9 paths: 9 paths made, 5 attributes set, 25 entries"));
  EXPECT_EQ(ctl({"apply", "--check", tunnels}).status, 0);
  const Result shown = ctl({"-j", "show", "/"});
  EXPECT_THAT(ctl({"apply", file("shown.json", shown.out)}).out,
              HasSubstr("nothing changed"));
  const std::string text = ctl({"show", "tunnel"}).out;
  EXPECT_THAT(text, HasSubstr("192.0.2.1 Ethernet1 push[100016]: true, "));
  EXPECT_THAT(text,
              HasSubstr("protocol 2048, oFlags checksumFlag|keyFlag, iFlags keyFlag"));
  EXPECT_THAT(text, HasSubstr("igpMetric 4000000000"));

  std::ifstream in(tunnels);
  std::string changed((std::istreambuf_iterator<char>(in)), {});
  const std::string label = "\"push[100044]\"";
  changed.replace(changed.find(label), label.size(), "\"push[100045]\"");
  EXPECT_THAT(ctl({"apply", file("changed.json", changed)}).out,
              HasSubstr("9 paths: 1 entry changed"));
  EXPECT_TRUE(eventually([&] {
    return monitor->out().find("push[100045]: true") != std::string::npos;
  })) << monitor->out();
  EXPECT_EQ(monitor->end(SIGTERM), 0);
}

// Catches a bad file that is applied in part.
TEST_F(ProcessesThreads, aBadFileLeavesEverythingAsItWas) {
  ASSERT_EQ(ctl({"apply", router}).status, 0);
  const std::string before = ctl({"-j", "show", "/"}).out;
  const std::string bad =
      file("bad.json",
           "[{\"path\": \"tunnel/mpls/config\", \"type\": "
           "\"Tunnel::MplsTunnelConfig\", \"entropyLabelPush\": false},\n"
           "{\"path\": \"new\", \"type\": \"Tunnel::MplsTunnelConfig\", "
           "\"entropyLabelPush\": 1}]");
  const Result result = ctl({"apply", bad});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "tunnelctl: " + bad +
                            ":2: entropyLabelPush: found 1, expected true or false\n");
  // Another type at a path is refused by the server; the good half must not be applied.
  const std::string other =
      file("other.json",
           "[{\"path\": \"new\", \"type\": \"Tunnel::MplsTunnelConfig\"},\n"
           "{\"path\": \"tunnel/mpls/config\", \"type\": "
           "\"Tunnel::Decap::ConfigInput\"}]");
  const Result refused = ctl({"apply", other});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err, HasSubstr("tunnel/mpls/config: "));
  EXPECT_EQ(ctl({"-j", "show", "/"}).out, before);
}

// Catches a file that is applied in part because another process writes one of its paths.
TEST_F(ProcessesThreads, aPathThatSomebodyElseWritesStopsTheWhole) {
  Hivel::ClientOptions options;
  options.socketPath = socket_;
  options.name = "holder";
  Hivel::Client holder(options);
  Hivel::MountOptions mount;
  mount.type = "Tunnel::MplsTunnelConfig";
  holder.mountAndWait("tunnel/mpls/config", Hivel::Mode::adopt, mount,
                      std::chrono::seconds(10));
  const std::string before = ctl({"-j", "show", "/"}).out;
  const Result refused = ctl({"apply", router});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err, HasSubstr("tunnel/mpls/config: "));
  EXPECT_THAT(refused.err, HasSubstr("holder"));
  EXPECT_EQ(ctl({"-j", "show", "/"}).out, before);
  holder.unmount("tunnel/mpls/config");
  ASSERT_TRUE(holder.syncAndWait(std::chrono::seconds(10)));
  EXPECT_EQ(ctl({"apply", router}).status, 0);
}

// Catches a path that stays after its deletion, here or at a follower.
TEST_F(ProcessesThreads, pathsAreDeleted) {
  ASSERT_EQ(ctl({"apply", router}).status, 0);
  auto monitor = startMonitor({"--count", "1", "--state", directory_ + "/held.json"});
  const std::string deletion =
      file("delete.json", "{\"path\": \"tunnel/mpls/config\", \"delete\": true}");
  const Result result = ctl({"apply", deletion});
  EXPECT_THAT(result.out, HasSubstr("1 path: 1 path deleted")) << result.err;
  EXPECT_THAT(ctl({"apply", deletion}).out, HasSubstr("nothing changed"));
  EXPECT_THAT(ctl({"show"}).out, Not(HasSubstr("tunnel/mpls/config")));
  EXPECT_EQ(monitor->join(), 0);
  EXPECT_THAT(monitor->out(), HasSubstr("tunnel/mpls/config  removed"));
  EXPECT_THAT(contents(directory_ + "/held.json"), Not(HasSubstr("tunnel/mpls/config")));
}

// Catches a follower that dies with the server, or that keeps what the new server lost.
TEST_F(ProcessesThreads, aFollowerSurvivesTheServer) {
  ASSERT_EQ(ctl({"apply", router}).status, 0);
  auto monitor = startMonitor({"-j", "--state", directory_ + "/held.json"});
  EXPECT_THAT(monitor->out(),
              HasSubstr("\"event\":\"snapshot\",\"path\":\"tunnel/decap/config\""));
  daemon_->end(SIGKILL);
  ASSERT_TRUE(eventually(
      [&] { return monitor->out().find("\"event\":\"lost\"") != std::string::npos; }));
  startDaemon();
  ASSERT_TRUE(eventually([&] {
    return monitor->out().find("\"event\":\"connected\"") != std::string::npos;
  }));
  ASSERT_EQ(ctl({"apply", router}).status, 0);
  ASSERT_EQ(ctl({"apply", change}).status, 0);
  ASSERT_TRUE(eventually([&] {
    return monitor->out().find("192.0.2.3") != std::string::npos;
  })) << monitor->out();
  const std::string shown = ctl({"-j", "show", "/"}).out;
  EXPECT_EQ(monitor->end(SIGINT), 0);
  EXPECT_EQ(contents(directory_ + "/held.json"), shown);
  // Every line is one JSON object with a time and an event.
  std::istringstream lines(monitor->out());
  for (std::string line; std::getline(lines, line);) {
    const Json event = parseJson(line);
    EXPECT_TRUE(event.find("time") && event.find("event")) << line;
  }
}

// Catches an end that comes late, and limits that are ignored.
TEST_F(ProcessesThreads, monitorEndsByItself) {
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(ctl({"monitor", "--for", "0.2"}).status, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  auto monitor = startMonitor({"--count", "3"});
  ASSERT_EQ(ctl({"apply", router}).status, 0);
  EXPECT_EQ(monitor->join(), 0);
}

}  // namespace
}  // namespace Tunnelctl
