#include <cerrno>
#include <map>
#include <random>

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

class ImportLinux : public ProcessesThreads {
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
    ProcessesThreads::SetUp();
    ip("link set lo up");
    if (const std::string said = ip("link add probe type vxlan id 1 dstport 4789");
        !said.empty())
      GTEST_SKIP() << "this kernel makes no VXLAN interface: " << said;
    ip("link del probe");
  }
  void startWholeDaemon() {
    daemon_.reset();
    daemon_ = std::make_unique<Process>(
        std::vector<std::string>{HOUSE_BIN_DIR "/hiveld", "--socket", socket_, "--types",
                                 HOUSE_LIB_DIR "/libTunnelHivelTypes.so.0", "--types",
                                 HOUSE_LIB_DIR "/libLinuxTunnel.so.0"},
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
  // By name: VNI and peer.
  using Model = std::map<std::string, std::pair<int, std::string>>;
  static std::string show(const Model& model) {
    std::set<std::pair<std::string, int>> keys;
    for (const auto& [name, tunnel] : model)
      keys.emplace(tunnel.second, tunnel.first);
    std::string text;
    for (const auto& [peer, vni] : keys)
      text += peer + " " + std::to_string(vni) + "\n";
    return text;
  }
  std::string shown() {
    std::set<std::pair<std::string, int>> keys;
    std::istringstream lines(table("vxlanTunnelInfo"));
    for (std::string peer, intf; lines >> peer;)
      if (peer.find('.') != peer.npos && lines >> intf)
        keys.emplace(peer, std::stoi(intf.substr(5)));
    std::string text;
    for (const auto& [peer, vni] : keys)
      text += peer + " " + std::to_string(vni) + "\n";
    return text;
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
  Result result = ctl({"import-linux"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("not imported: the server has no type"), std::string::npos);
  EXPECT_NE(result.out.find("2 tunnels, 0 imported: nothing changed"), std::string::npos)
      << result.out;

  startWholeDaemon();
  result = ctl({"-j", "import-linux"});
  EXPECT_NE(result.out.find("\"imported\":1,\"entriesAdded\":1,\"entriesRemoved\":0"),
            std::string::npos)
      << result.out;
  EXPECT_NE(result.out.find("\"reason\":\"names no peer\""), std::string::npos)
      << result.out;
  EXPECT_EQ(shown(), "10.0.0.2 5\n");
  EXPECT_NE(ctl({"import-linux"}).out.find("1 imported: nothing changed"),
            std::string::npos);
  ASSERT_EQ(batch("link del x1\nlink set x2 type vxlan remote 10.0.0.3\n"), "");
  EXPECT_NE(ctl({"import-linux"}).out.find("1 entry added, 1 entry removed"),
            std::string::npos);
  EXPECT_EQ(shown(), "10.0.0.3 6\n");

  const auto watch = startWatch(forever);
  result = ctl({"import-linux"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("tunnel/l3TunnelInfo/linux: it is written by tunnelctl"),
            std::string::npos)
      << result.err;
  EXPECT_EQ(ctl({"import-linux", "--name", "other"}).status, 0);
  EXPECT_EQ(ctl({"import-linux", "--for", "1"}).status, 2);
  EXPECT_EQ(ctl({"import-linux", "--name", "a/b"}).status, 2);
}

// Catches an event that is lost or applied to the wrong interface: random changes of the
// kernel's interfaces while the watch runs, is stopped so that its socket overruns, and loses
// its database.
TEST_F(ImportLinux, followsTheKernel) {
  startWholeDaemon();
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  Model model;
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
          model[name] = {vnis, peer};
          break;
        case 2:
          commands += "link del " + at->first + "\n";
          model.erase(at);
          break;
        case 3: {
          commands += "link set " + at->first + " name " + name + "\n";
          auto node = model.extract(at);
          node.key() = name;
          model.insert(std::move(node));
          break;
        }
        case 4:
          commands += "link set " + at->first + " type vxlan remote " + peer + "\n";
          at->second.second = peer;
          break;
      }
    }
    ASSERT_EQ(batch(commands), "");
  };
  const auto agrees = [&] { return eventually([&] { return shown() == show(model); }); };

  change(10);
  const auto watch = startWatch(forever);
  EXPECT_EQ(shown(), show(model));
  change(60);
  EXPECT_TRUE(agrees()) << shown() << "instead of\n" << show(model) << watch->said();

  watch->send(SIGSTOP);
  change(400);
  watch->send(SIGCONT);
  EXPECT_TRUE(agrees()) << shown() << "instead of\n" << show(model) << watch->said();
  EXPECT_NE(watch->out().find("events were lost"), std::string::npos);

  daemon_->end(SIGKILL);
  change(20);
  startWholeDaemon();
  EXPECT_TRUE(agrees()) << shown() << "instead of\n" << show(model) << watch->said();
  EXPECT_NE(watch->out().find("connected again"), std::string::npos);
  change(20);
  EXPECT_TRUE(agrees());

  // Without a list every now and then a change of what is down would not be seen.
  watch->send(SIGTERM);
  EXPECT_EQ(watch->join(), 0) << watch->err();
  ASSERT_EQ(ip("link add down0 type vxlan id 9999 remote 10.0.0.1 dstport 4789"), "");
  const auto lister = startWatch("0.05");
  ASSERT_EQ(ip("link set down0 type vxlan remote 10.9.9.9"), "");
  model["down0"] = {9999, "10.9.9.9"};
  EXPECT_TRUE(agrees()) << lister->said();
  lister->send(SIGINT);
  EXPECT_EQ(lister->join(), 0) << lister->err();
}

// Catches a kind that is put into another table by a kernel that has it.
TEST_F(ImportLinux, knowsTheKindsOfThisKernel) {
  const std::string ends = " local 10.0.0.1 remote 10.0.0.2";
  const std::string ends6 = " local fd00::1 remote fd00::2";
  const std::string text = "src 10.0.0.1, dst 10.0.0.2, tos 0, ttl ";
  const std::string text6 = "src fd00::1, dst fd00::2, tos 0, ttl ";
  struct Row {
    std::string command;
    const char* table;
    std::string entry;
  };
  const Row rows[] = {
      {"gre" + ends + " ttl 9 key 7", "greTunnelInfo",
       text + "9, pathMtuDiscovery true, protocol 0, oFlags keyFlag, iFlags keyFlag, "
              "oKey 7, iKey 7"                                                                },
      {"ip6gre" + ends6 + " ttl 9",   "greTunnelInfo",
       text6 + "9, pathMtuDiscovery true, protocol 0, oFlags noFlag"                          },
      {"ipip" + ends + " ttl 9",      "l3TunnelInfo",       text + "9, pathMtuDiscovery true" },
      {"sit" + ends + " ttl 8",       "l3TunnelInfo",       text + "8, pathMtuDiscovery true" },
      {"ip6tnl" + ends6 + " ttl 8",   "l3TunnelInfo",       text6 + "8, pathMtuDiscovery true"},
      {"vti" + ends + " key 3",       "ipsecVtiTunnelInfo",
       text + "0, pathMtuDiscovery false, ipsecTableIndex 3"                                  },
      {"vti6" + ends6 + " key 3",     "ipsecVtiTunnelInfo",
       text6 + "0, pathMtuDiscovery true, ipsecTableIndex 3"                                  },
  };
  std::string missing;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.command);
    if (const std::string said = ip("link add k0 type " + row.command); !said.empty()) {
      missing += row.command.substr(0, row.command.find(' ')) + ": " + said;
      continue;
    }
    EXPECT_EQ(ctl({"import-linux"}).status, 0);
    EXPECT_NE(table(row.table).find(row.entry), std::string::npos) << table(row.table);
    ip("link del k0");
  }
  if (!missing.empty()) GTEST_SKIP() << "this kernel lacks\n" << missing;
}

}  // namespace
}  // namespace Tunnelctl
