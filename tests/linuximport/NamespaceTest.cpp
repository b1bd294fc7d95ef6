#include <cerrno>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>

#include <gmock/gmock.h>

#include "tests/Support/Rows.h"
#include "tests/tunnelctl/Processes.h"

// The command against a kernel, in a network namespace of the test's own, and a daemon.

namespace Tunnelctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

void write(const char* file, const std::string& text) {
  std::ofstream(file) << text;
}

class ImportLinux : public CtlProcesses {
 protected:
  void SetUp() override {
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (unshare(uid == 0 ? CLONE_NEWNET : CLONE_NEWUSER | CLONE_NEWNET) != 0)
      GTEST_SKIP() << "no network namespace of its own: " << strerror(errno);
    if (uid != 0) {
      write("/proc/self/setgroups", "deny");
      write("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
      write("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
    CtlProcesses::SetUp();
    ip("link set lo up");
    if (const std::string said = ip("link add probe type vxlan id 1 dstport 4789");
        !said.empty())
      GTEST_SKIP() << "this kernel makes no VXLAN interface: " << said;
    ip("link del probe");
  }
  void restartDaemon() {
    killDaemon();
    startDaemon();
  }
  std::unique_ptr<Process> startWatch(const std::string& interval) {
    auto watch = start({"import-linux", "--watch", "--interval", interval});
    EXPECT_TRUE(watch->says("changes from here on"));
    return watch;
  }

  // What `ip` had to say: nothing when it did what it was told.
  std::string ip(const std::string& command) { return run("ip " + command); }
  // Many commands in one process, which ends at the first that fails.
  std::string batch(const std::string& commands) {
    return run("ip -batch " + file("batch", commands));
  }
  std::string run(const std::string& command) {
    const std::string said = directory_ + "/ip";
    const int status = std::system(
        (command + " >" + said + " 2>&1").c_str());  // NOLINT: a test's own text
    const std::string text = contents(said);
    return status == 0 ? "" : text.empty() ? "status " + std::to_string(status) : text;
  }

  using Tunnels = std::set<std::pair<std::string, std::string>>;  // peer and interface
  Tunnels shown() {
    Tunnels tunnels;
    std::istringstream lines(ctl({"-br", "show", "tunnel/vxlanTunnelInfo/linux"}).out);
    for (std::string word, intf; lines >> word;)
      if (word.find('.') != word.npos && lines >> intf) tunnels.emplace(word, intf);
    return tunnels;
  }
};

constexpr const char* forever = "3600";  // seconds between two lists: events alone

// Catches what remains of a tunnel that is gone, an exit status that hides a failure, tables
// half written when one of them is another's, and a daemon without VXLAN tables that stops
// all others.
TEST_F(ImportLinux, makesTablesEqualOnce) {
  ASSERT_EQ(batch("link add x1 type vxlan id 5 remote 10.0.0.2 dstport 4789\n"
                  "link add x2 type vxlan id 6 dstport 4789\n"),
            "");
  const auto expectImport = [&](const std::string& arguments, int status,
                                const std::vector<const char*>& says) {
    SCOPED_TRACE(arguments);
    const Result result = ctl(Support::wordsOf(arguments));
    EXPECT_EQ(result.status, status);
    for (const char* words : says)
      EXPECT_THAT(result.out + result.err, HasSubstr(words));
  };
  killDaemon();
  daemon_ = startDaemonAt(socket_, {"libTunnelHivelTypes.so.0"});
  expectImport("import-linux", 0,
               {"not imported: the server has no type", " 0 imported: nothing changed"});

  restartDaemon();
  expectImport("-j import-linux", 0,
               {"\"imported\":1,\"entriesAdded\":1,\"entriesRemoved\":0",
                "\"reason\":\"names no peer\""});
  expectImport("-j show", 0,
               {R"("tunnel/greTunnelInfo/linux","type":"Tunnel::GreTunnelInfoTable")",
                R"("tunnel/ipsecVtiTunnelInfo/linux","type":"Tunnel::IpsecVti)"});
  EXPECT_THAT(shown(), ElementsAre(Pair("10.0.0.2", "Vxlan5")));
  expectImport("import-linux", 0, {"1 imported: nothing changed"});
  ASSERT_EQ(batch("link del x1\nlink set x2 type vxlan remote 10.0.0.3\n"), "");
  expectImport("import-linux", 0, {"1 entry added, 1 entry removed"});
  EXPECT_THAT(shown(), ElementsAre(Pair("10.0.0.3", "Vxlan6")));

  const auto watch = startWatch(forever);
  expectImport("import-linux", 1,
               {"tunnel/l3TunnelInfo/linux: it is written by tunnelctl"});
  expectImport("import-linux --name other", 0, {});
  for (const char* wrong : {"--for 1", "--name a/b", "--name ''"})
    expectImport(std::string("import-linux ") + wrong, 2, {});
}

// Catches an event that is lost or applied to the wrong interface: random changes of the
// kernel's interfaces while the watch runs, is stopped so that its socket overruns, and loses
// its database.
TEST_F(ImportLinux, followsTheKernel) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  std::map<std::string, std::pair<std::string, std::string>> model;  // by name
  int names = 0, vnis = 0;
  const auto change = [&](int count) {
    std::string commands;
    for (int i = 0; i < count; ++i) {
      const std::string peer = "10.0.0." + std::to_string(1 + random() % 200);
      auto at = model.begin();
      if (!model.empty()) std::advance(at, static_cast<long>(random() % model.size()));
      const std::string name = "x" + std::to_string(++names);
      switch (model.size() < 5 ? 0 : random() % 5) {
        case 0:
        case 1:
          commands += "link add " + name + " up type vxlan id " + std::to_string(++vnis) +
                      " remote " + peer + " dstport 4789\n";
          model[name] = {peer, "Vxlan" + std::to_string(vnis)};
          break;
        case 2:
          commands += "link del " + at->first + "\n";
          model.erase(at);
          break;
        case 3: {
          // Older kernels rename only what is down.
          const std::string set = "link set " + at->first;
          commands +=
              set + " down\n" + set + " name " + name + "\nlink set " + name + " up\n";
          auto node = model.extract(at);
          node.key() = name;
          model.insert(std::move(node));
          break;
        }
        case 4:
          commands += "link set " + at->first + " type vxlan remote " + peer + "\n";
          at->second.first = peer;
          break;
      }
    }
    ASSERT_EQ(batch(commands), "");
  };
  const auto agrees = [&] {
    return eventually([&] {
      Tunnels wanted;
      for (const auto& [name, tunnel] : model)
        wanted.insert(tunnel);
      return shown() == wanted;
    });
  };

  change(10);
  const auto watch = startWatch(forever);
  EXPECT_TRUE(agrees());
  change(60);
  EXPECT_TRUE(agrees()) << watch->said();

  watch->send(SIGSTOP);
  change(400);
  watch->send(SIGCONT);
  EXPECT_TRUE(agrees()) << watch->said();
  EXPECT_THAT(watch->out(), HasSubstr("events were lost"));

  daemon_->end(SIGKILL);
  change(20);
  restartDaemon();
  EXPECT_TRUE(agrees()) << watch->said();
  EXPECT_THAT(watch->out(), HasSubstr("connected again"));
  change(20);
  EXPECT_TRUE(agrees());

  // Without a list every now and then a change of what is down would not be seen.
  EXPECT_EQ(watch->end(SIGTERM), 0) << watch->err();
  ASSERT_EQ(ip("link add down0 type vxlan id 9999 remote 10.0.0.1 dstport 4789"), "");
  const auto lister = startWatch("0.05");
  ASSERT_EQ(ip("link set down0 type vxlan remote 10.9.9.9"), "");
  model["down0"] = {"10.9.9.9", "Vxlan9999"};
  EXPECT_TRUE(agrees()) << lister->said();
  EXPECT_EQ(lister->end(SIGINT), 0) << lister->err();
}

}  // namespace
}  // namespace Tunnelctl
