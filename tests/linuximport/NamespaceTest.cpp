#include <cerrno>
#include <regex>

#include <sched.h>

#include "tests/Support/Testing.h"
#include "tests/tunnelctl/Processes.h"

// The command against a kernel, in a network namespace of the test's own, and a daemon.

namespace Tunnelctl {
namespace {

using testing::HasSubstr;

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
    if (const std::string said = batch("link set lo up\n"
                                       "link add probe type vxlan id 1 dstport 4789\n"
                                       "link del probe\n");
        !said.empty())
      GTEST_SKIP() << "this kernel makes no VXLAN interface: " << said;
  }
  std::unique_ptr<Process> startWatch(const std::string& interval) {
    auto watch = start("tunnelctl import-linux --watch --interval " + interval);
    EXPECT_TRUE(watch->says("changes from here on"));
    return watch;
  }
  // Many commands in one process, which ends at the first that fails. What it had to say.
  std::string batch(const std::string& commands) {
    const auto ip = start("ip -batch " + file("batch", commands));
    return ip->join() == 0 ? "" : ip->said();
  }
  using Tunnels = std::set<std::string>;  // peer and interface
  static Tunnels found(const std::string& text, const char* pattern, const char* as) {
    const std::regex one(pattern);
    Tunnels tunnels;
    for (std::sregex_iterator at(text.begin(), text.end(), one), end; at != end; ++at)
      tunnels.insert(at->format(as));
    return tunnels;
  }
  Tunnels shown() {
    return found(ctl("-br show tunnel/vxlanTunnelInfo/linux").out,
                 R"(([0-9.]{7,}) +(Vxlan[0-9]+))", "$1 $2");
  }
  // Waits until the tunnels are those that `ip` shows.
  bool agrees() {
    const auto ip = start("ip -d -o link show type vxlan");
    EXPECT_EQ(ip->join(), 0);
    const Tunnels wanted =
        found(ip->out(), "vxlan id ([0-9]+) remote ([^ ]+)", "$2 Vxlan$1");
    EXPECT_GT(wanted.size(), 2u);
    return eventually([&] { return shown() == wanted; });
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
  killDaemon();
  daemon_ = startDaemonAt(socket_, "--types libTunnelHivelTypes.so.0");
  EXPECT_THAT(ctl("import-linux").out,
              testing::AllOf(HasSubstr("not imported: the server has no type"),
                             HasSubstr(" 0 imported: nothing changed")));
  killDaemon();
  startDaemon();
  play("linuximport/import.txt");
  const auto watch = startWatch(forever);
  const Result refused = ctl("import-linux");
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err,
              HasSubstr("tunnel/l3TunnelInfo/linux: it is written by tunnelctl"));
  EXPECT_EQ(ctl("import-linux --name other").status, 0);
}

// Catches an event that is lost or applied to the wrong interface: random changes of the
// kernel's interfaces while the watch runs, is stopped so that its socket overruns, and loses
// its database.
TEST_F(ImportLinux, followsTheKernel) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  std::vector<std::string> interfaces;
  int number = 0;
  const auto change = [&](int count) {
    std::string commands;
    for (int i = 0; i < count; ++i) {
      const std::string peer = " remote 10.0.0." + std::to_string(1 + random() % 200);
      const std::string id = std::to_string(++number);
      const auto at = interfaces.empty() ? 0 : random() % interfaces.size();
      const auto kind = interfaces.size() < 5 ? 0 : random() % 5;
      const std::string set = kind < 2 ? "" : "link set " + interfaces[at];
      if (kind < 2) {
        commands +=
            "link add x" + id + " up type vxlan id " + id + peer + " dstport 4789\n";
        interfaces.push_back("x" + id);
      } else if (kind == 2) {
        commands += "link del " + interfaces[at] + "\n";
        interfaces.erase(interfaces.begin() + static_cast<long>(at));
      } else if (kind == 3) {
        // Older kernels rename only what is down.
        commands +=
            set + " down\n" + set + " name x" + id + "\nlink set x" + id + " up\n";
        interfaces[at] = "x" + id;
      } else {
        commands += set + " type vxlan" + peer + "\n";
      }
    }
    ASSERT_EQ(batch(commands), "");
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
  startDaemon();
  EXPECT_TRUE(agrees()) << watch->said();
  EXPECT_THAT(watch->out(), HasSubstr("connected again"));
  change(20);
  EXPECT_TRUE(agrees());

  // Without a list every now and then a change of what is down would not be seen.
  EXPECT_EQ(watch->end(SIGTERM), 0) << watch->err();
  ASSERT_EQ(batch("link add down0 type vxlan id 9999 remote 10.0.0.1 dstport 4789\n"),
            "");
  const auto lister = startWatch("0.05");
  ASSERT_EQ(batch("link set down0 type vxlan remote 10.9.9.9\n"), "");
  EXPECT_TRUE(agrees()) << lister->said();
  EXPECT_EQ(lister->end(SIGINT), 0) << lister->err();
}

}  // namespace
}  // namespace Tunnelctl
