#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Hivel/Client.h"
#include "apps/tunnelctl/Json.h"

// The command against the daemon, each in a process of its own, over a real socket.

namespace Tunnelctl {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string contents(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool eventually(const std::function<bool()>& holds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// A running command with its output in files. Killed when it goes out of scope.
class Process {
 public:
  Process(const std::vector<std::string>& command, const std::string& output)
      : output_(output) {
    std::vector<char*> argv;
    for (const std::string& word : command)
      argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      const int out = open((output + ".out").c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
      const int err = open((output + ".err").c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
      dup2(out, STDOUT_FILENO);
      dup2(err, STDERR_FILENO);
      execv(argv[0], argv.data());
      _exit(127);
    }
  }
  ~Process() {
    if (pid_ > 0) end(SIGKILL);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // Its exit status, or 128 and the signal it died of.
  int join() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  int end(int signal) {
    kill(pid_, signal);
    return join();
  }
  std::string out() const { return contents(output_ + ".out"); }
  std::string err() const { return contents(output_ + ".err"); }

 private:
  std::string output_;
  pid_t pid_ = -1;
};

struct Result {
  int status;
  std::string out, err;
};

class ProcessesThreads : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/tunnelctlXXXXXX";
    ASSERT_TRUE(mkdtemp(name));
    directory_ = name;
    socket_ = directory_ + "/hivel.sock";
    startDaemon();
  }
  void TearDown() override {
    daemon_.reset();
    std::filesystem::remove_all(directory_);
  }
  void startDaemon() {
    daemon_ = std::make_unique<Process>(
        std::vector<std::string>{HOUSE_BIN_DIR "/hiveld", "--socket", socket_, "--types",
                                 HOUSE_LIB_DIR "/libTunnelHivelTypes.so.0"},
        directory_ + "/hiveld");
    ASSERT_TRUE(eventually([&] { return ctl({"status"}).status == 0; }))
        << daemon_->err();
  }
  std::unique_ptr<Process> start(std::vector<std::string> arguments) {
    std::vector<std::string> command = {HOUSE_BIN_DIR "/tunnelctl", "-s", socket_};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<Process>(command,
                                     directory_ + "/run" + std::to_string(++runs_));
  }
  Result ctl(std::vector<std::string> arguments) {
    const auto process = start(std::move(arguments));
    const int status = process->join();
    return {status, process->out(), process->err()};
  }
  std::string file(const std::string& name, const std::string& text) {
    std::ofstream(directory_ + "/" + name) << text;
    return directory_ + "/" + name;
  }
  std::unique_ptr<Process> startMonitor(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "monitor");
    auto monitor = start(std::move(arguments));
    EXPECT_TRUE(eventually([&] {
      const std::string out = monitor->out();
      return out.find("changes from here on") != out.npos ||
             out.find("\"mark\"") != out.npos;
    })) << monitor->err();
    return monitor;
  }

  const std::string router = HOUSE_SOURCE_DIR "/examples/edge-router.json";
  const std::string change = HOUSE_SOURCE_DIR "/examples/edge-router-change.json";
  std::string directory_, socket_;
  std::unique_ptr<Process> daemon_;
  int runs_ = 0;
};

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
