#include <cerrno>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>

#include "tests/tunnelctl/Processes.h"

// The command against a kernel, in a network namespace of the test's own, and a daemon.

namespace Tunnelctl {
namespace {

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
    daemon_.reset();
    startDaemon();
  }
  void startDaemonWithoutVxlan() {
    daemon_.reset();
    daemon_ = std::make_unique<Process>(
        std::vector<std::string>{HOUSE_BIN_DIR "/hiveld", "--socket", socket_, "--types",
                                 HOUSE_LIB_DIR "/libTunnelHivelTypes.so.0"},
        directory_ + "/hiveld");
    ASSERT_TRUE(eventually([&] { return ctl({"status"}).status == 0; }))
        << daemon_->err();
  }
  std::unique_ptr<Process> startWatch(const std::string& interval) {
    auto watch = start({"import-linux", "--watch", "--interval", interval});
    EXPECT_TRUE(eventually([&] {
      return watch->out().find("changes from here on") != std::string::npos;
    })) << watch->err();
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

  std::string table(const std::string& kind) {
    return ctl({"-br", "show", "tunnel/" + kind + "/linux"}).out;
  }
  using Tunnels = std::set<std::pair<std::string, std::string>>;  // peer and interface
  Tunnels shown() {
    Tunnels tunnels;
    std::istringstream lines(table("vxlanTunnelInfo"));
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
  startDaemonWithoutVxlan();
  Result result = ctl({"import-linux"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("not imported: the server has no type"), std::string::npos);
  EXPECT_NE(result.out.find(" 0 imported: nothing changed"), std::string::npos)
      << result.out;

  restartDaemon();
  result = ctl({"-j", "import-linux"});
  EXPECT_NE(result.out.find("\"imported\":1,\"entriesAdded\":1,\"entriesRemoved\":0"),
            std::string::npos)
      << result.out;
  EXPECT_NE(result.out.find("\"reason\":\"names no peer\""), std::string::npos)
      << result.out;
  EXPECT_EQ(shown(), (Tunnels{
                         {"10.0.0.2", "Vxlan5"}
  }));
  EXPECT_NE(ctl({"import-linux"}).out.find("1 imported: nothing changed"),
            std::string::npos);
  ASSERT_EQ(batch("link del x1\nlink set x2 type vxlan remote 10.0.0.3\n"), "");
  EXPECT_NE(ctl({"import-linux"}).out.find("1 entry added, 1 entry removed"),
            std::string::npos);
  EXPECT_EQ(shown(), (Tunnels{
                         {"10.0.0.3", "Vxlan6"}
  }));

  const auto watch = startWatch(forever);
  result = ctl({"import-linux"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("tunnel/l3TunnelInfo/linux: it is written by tunnelctl"),
            std::string::npos)
      << result.err;
  EXPECT_EQ(ctl({"import-linux", "--name", "other"}).status, 0);
  EXPECT_EQ(ctl({"import-linux", "--for", "1"}).status, 2);
  EXPECT_EQ(ctl({"import-linux", "--name", "a/b"}).status, 2);
  EXPECT_EQ(ctl({"import-linux", "--name", ""}).status, 2);
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
  EXPECT_NE(watch->out().find("events were lost"), std::string::npos);

  daemon_->end(SIGKILL);
  change(20);
  restartDaemon();
  EXPECT_TRUE(agrees()) << watch->said();
  EXPECT_NE(watch->out().find("connected again"), std::string::npos);
  change(20);
  EXPECT_TRUE(agrees());

  // Without a list every now and then a change of what is down would not be seen.
  watch->send(SIGTERM);
  EXPECT_EQ(watch->join(), 0) << watch->err();
  ASSERT_EQ(ip("link add down0 type vxlan id 9999 remote 10.0.0.1 dstport 4789"), "");
  const auto lister = startWatch("0.05");
  ASSERT_EQ(ip("link set down0 type vxlan remote 10.9.9.9"), "");
  model["down0"] = {"10.9.9.9", "Vxlan9999"};
  EXPECT_TRUE(agrees()) << lister->said();
  lister->send(SIGINT);
  EXPECT_EQ(lister->join(), 0) << lister->err();
}

// Catches a kind that goes into another table than it should, on a kernel that has it.
TEST_F(ImportLinux, knowsTheKindsOfThisKernel) {
  const std::string ends = " local 10.0.0.1 remote 10.0.0.2",
                    ends6 = " local fd00::1 remote fd00::2";
  struct Row {
    std::string command;
    const char* table;
    const char* entry;
  };
  const Row rows[] = {
      {"gre" + ends + " ttl 9 key 7", "greTunnelInfo",      "dst 10.0.0.2, tos 0, ttl 9"},
      {"ip6gre" + ends6 + " ttl 9",   "greTunnelInfo",      "dst fd00::2, tos 0, ttl 9" },
      {"ipip" + ends + " ttl 9",      "l3TunnelInfo",       "dst 10.0.0.2, tos 0, ttl 9"},
      {"sit" + ends + " ttl 8",       "l3TunnelInfo",       "dst 10.0.0.2, tos 0, ttl 8"},
      {"ip6tnl" + ends6 + " ttl 8",   "l3TunnelInfo",       "dst fd00::2, tos 0, ttl 8" },
      {"vti" + ends + " key 3",       "ipsecVtiTunnelInfo", "ipsecTableIndex 3"         },
      {"vti6" + ends6 + " key 4",     "ipsecVtiTunnelInfo", "ipsecTableIndex 4"         },
  };
  std::string missing;
  for (const Row& row : rows) {
    const std::string said = ip("link add k0 type " + row.command);
    if (!said.empty()) {
      missing += "\n" + row.command + ": " + said;
      continue;
    }
    EXPECT_EQ(ctl({"import-linux"}).status, 0);
    EXPECT_NE(table(row.table).find(row.entry), std::string::npos) << row.command;
    ip("link del k0");
  }
  if (!missing.empty()) GTEST_SKIP() << "this kernel lacks" << missing;
}

}  // namespace
}  // namespace Tunnelctl
