#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "apps/agent/Directory.h"
#include "apps/tunnelgen/CommandLine.h"
#include "apps/tunnelgen/GraphMl.h"
#include "apps/tunnelgen/Mesh.h"
#include "tests/tunnelctl/Processes.h"

// The command in this process, and against the daemon in processes of their own.

namespace Tunnelgen {
namespace {

using testing::HasSubstr;
using namespace std::chrono_literals;
using Tunnel::TunnelTable::TunnelType;
using Tunnelctl::eventually;
using Tunnelctl::Process;

const std::string abilene = HOUSE_SOURCE_DIR "/examples/abilene.graphml";

struct Result {
  int status;
  std::string out, err;
};

Result command(const std::vector<std::string>& arguments, bool stopped = false) {
  std::ostringstream out, err;
  const std::atomic<bool> stop = stopped;
  const int status = run(arguments, out, err, stop);
  return {status, out.str(), err.str()};
}

// Catches a wrong argument that is taken for another one, and an error without its cause.
TEST(Command, refusesWhatItCannotDo) {
  const struct {
    std::vector<std::string> arguments;
    int status;
    const char* error;
  } rows[] = {
      {{},                                                          2, "GRAPH is required"                                 },
      {{abilene, "--frob"},                                         2, "--frob"                                            },
      {{abilene, "--kind", "gre"},
       2,                                                              "'gre' is none of bgpLuPushTunnel, bgpLuTunnel, ldp"},
      {{abilene, "--kind", "nexthopTunnel"},                        2, "--kind: 'nexthopTunnel' is none of"                },
      {{abilene, "--metric", "miles"},                              2, "miles"                                             },
      {{abilene, "--stack", "2"},                                   2, "--stack"                                           },
      {{abilene, "--fail-rate", "0/s"},                             2, "--fail-rate"                                       },
      {{abilene, "--down", "0"},                                    2, "--down"                                            },
      {{abilene, "--dry-run", "--socket", "/tmp/x"},                2, "--socket excludes --dry-run"                       },
      {{abilene, "--router", "Oslo"},                               1, "router 'Oslo': no name, identifier or label"       },
      {{"/nonexistent"},                                            1, "/nonexistent: open: No such file or directory"     },
      {{abilene, "--socket", "/nonexistent/h", "--timeout", "0.1"}, 1, "/nonexistent/h"                                    },
  };
  for (const auto& row : rows) {
    const Result result = command(row.arguments);
    EXPECT_EQ(result.status, row.status) << row.error;
    EXPECT_THAT(result.err, HasSubstr(row.error));
    EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
  }
}

// Catches counts of something else, and a run that does not end when it should.
TEST(Command, computesWithoutADatabase) {
  EXPECT_THAT(command({"--help"}).out, HasSubstr("--fail-seconds"));
  Result result = command({abilene, "--dry-run", "--metric", "hops", "--json"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("\"routers\":11,\"links\":14,\"parallelLinks\":0"));
  EXPECT_THAT(result.out, HasSubstr("{\"event\":\"computed\",\"tunnels\":110,"));
  EXPECT_THAT(command({abilene, "--router", "New York"}).out, HasSubstr("10 tunnels, "));

  result = command({abilene, "--changes", "20", "--fail-rate", "1000/s", "--verbose"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr(" fails: "));
  EXPECT_THAT(result.out, HasSubstr(" to end with none down"));
  result = command({abilene, "--fail-seconds", "0.05", "--json"});
  EXPECT_THAT(result.out, HasSubstr("\"leftDown\":0"));
  // Without end, were it not stopped.
  EXPECT_EQ(command({abilene, "--fail-rate", "10", "--hold"}, true).status, 0);
}

using Paths = std::map<std::string, Agent::Path>;

struct Held final : Sink {
  void pathIs(const Agent::Path& path) override { paths[std::string(path.name)] = path; }
  void pathDel(TunnelType, const Kop::String& name) override {
    paths.erase(std::string(name));
  }
  Paths paths;
};

class CommandThreads : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/tunnelgenXXXXXX";
    ASSERT_TRUE(mkdtemp(name));
    directory_ = name;
    socket_ = directory_ + "/hivel.sock";
    startDaemon();
  }
  void startDaemon() {
    daemon_ = std::make_unique<Process>(
        std::vector<std::string>{HOUSE_BIN_DIR "/hiveld", "--socket", socket_, "--types",
                                 HOUSE_LIB_DIR "/libTunnelHivelTypes.so.0"},
        directory_ + "/hiveld");
    ASSERT_TRUE(eventually([&] {
      return daemon_->said().find("listening") != std::string::npos;
    })) << daemon_->said();
  }
  void TearDown() override {
    if (!daemon_) startDaemon();
    const auto last = start({abilene, "--router", "sttl", "--withdraw"});
    EXPECT_EQ(last->join(), 0) << last->said();
    EXPECT_FALSE(std::filesystem::exists(
        "/dev/shm" + Agent::shmName(socket_, Agent::tablePath("srTunnelTable"))));
    daemon_.reset();
    std::filesystem::remove_all(directory_);
  }
  std::unique_ptr<Process> start(std::vector<std::string> arguments) {
    std::vector<std::string> command = {HOUSE_BIN_DIR "/tunnelgen", "--socket", socket_};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<Process>(command,
                                     directory_ + "/run" + std::to_string(++runs_));
  }
  // What readers see of all tunnels of the kind, after its agent has gone or still at work.
  Paths seen(TunnelType type) {
    Hivel::ClientOptions options;
    options.socketPath = socket_;
    Hivel::Client client(options);
    Agent::TableDirectory directory(client, socket_);
    EXPECT_TRUE(directory.wait(10s));
    directory.follow("tunnelgen");
    EXPECT_TRUE(directory.wait(10s));
    Paths paths;
    const auto hops = directory.nextHops("tunnelgen");
    if (!hops) return paths;
    for (const Agent::TableRef& table : directory.tables()) {
      if (table.type != type) continue;
      directory.open(table)->forEachRow(
          [&](U64, const Tunnel::TunnelTable::TunnelTableEntry& row) {
            Agent::Path& path = paths[std::string(row.getName())];
            path.type = row.tunnelId().tunnelType();
            path.name = row.getName();
            path.endpoint = row.tep();
            path.metric = row.entryMetric();
            const Agent::Hops found = Agent::hopsOf(*hops, row);
            EXPECT_TRUE(found.arrived) << path.name;
            for (const auto& hop : found.infos)
              path.nextHops.push_back(
                  {hop.destinationIp(), hop.l3Intf(), hop.mplsLabelStack()});
          });
    }
    return paths;
  }
  Paths computed(Mesh::Options options, Metric metric) {
    Topology topology = readGraphMl(abilene);
    topology.metricIs(metric, 100);
    if (options.router) options.router = topology.router("sttl");
    Held held;
    Mesh(topology, options).tell(held, 0, Mesh::maxTunnels);
    return held.paths;
  }

  std::string directory_, socket_;
  std::unique_ptr<Process> daemon_;
  int runs_ = 0;
};

// Catches tunnels that do not reach other processes as they were computed, those that a
// failure changed and a return did not restore, and old ones that stay.
TEST_F(CommandThreads, othersReadWhatIsPublished) {
  auto first = start({abilene, "--stack", "explicit", "--metric", "hops", "--changes",
                      "30", "--down", "6"});
  EXPECT_EQ(first->join(), 0);
  EXPECT_THAT(first->said(), HasSubstr("published  110 tunnels in "));
  EXPECT_THAT(first->said(), HasSubstr("latency"));
  Mesh::Options options;
  options.stack = Stack::adjacencies;
  EXPECT_EQ(seen(Tunnel::TunnelTable::srTunnel), computed(options, Metric::hops));

  // Started again with less it takes the tunnels over, and goes when it is told to.
  auto second = start({abilene, "--router", "Seattle", "--hold"});
  EXPECT_TRUE(eventually([&] {
    return second->said().find("holding") != std::string::npos;
  })) << second->said();
  EXPECT_THAT(second->said(), HasSubstr("100 of an earlier run deleted"));
  options.stack = Stack::node;
  options.router = 0;
  EXPECT_EQ(seen(Tunnel::TunnelTable::srTunnel), computed(options, Metric::distance));
  EXPECT_EQ(second->end(SIGTERM), 0) << second->said();
  EXPECT_THAT(second->said(), HasSubstr("ending on a signal"));

  EXPECT_EQ(start({abilene, "--withdraw"})->join(), 0);
  EXPECT_TRUE(seen(Tunnel::TunnelTable::srTunnel).empty());
}

// Catches tunnels that a signal in the midst of changes leaves without their next hops, a
// database that returns without them, and one that is waited for without end.
TEST_F(CommandThreads, endsInTheMidstOfChanges) {
  const auto says = [&](Process& process, const char* text) {
    return eventually([&] { return process.said().find(text) != std::string::npos; });
  };
  auto failing = start({abilene, "--kind", "ldpTunnel", "--fail-rate", "500/s"});
  EXPECT_TRUE(says(*failing, "published")) << failing->said();
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(failing->end(SIGINT), 0) << failing->said();
  EXPECT_THAT(failing->said(), HasSubstr("ending on a signal"));
  EXPECT_FALSE(seen(Tunnel::TunnelTable::ldpTunnel).empty());
  EXPECT_EQ(start({abilene, "--kind", "ldpTunnel", "--withdraw"})->join(), 0);

  // One link at a time cuts nobody off here.
  auto survivor = start({abilene, "--fail-rate", "50", "--down", "1"});
  ASSERT_TRUE(says(*survivor, "published")) << survivor->said();
  daemon_.reset();
  startDaemon();
  EXPECT_TRUE(says(*survivor, "the database is back")) << survivor->said();
  EXPECT_EQ(survivor->end(SIGINT), 0) << survivor->said();
  EXPECT_EQ(seen(Tunnel::TunnelTable::srTunnel).size(), 110u);

  auto orphan = start({abilene, "--fail-rate", "50", "--timeout", "0.5"});
  ASSERT_TRUE(says(*orphan, "published")) << orphan->said();
  daemon_.reset();
  EXPECT_EQ(orphan->join(), 1);
  EXPECT_THAT(orphan->said(), HasSubstr("the database is lost: "));
  EXPECT_THAT(orphan->said(), HasSubstr("did not acknowledge"));
}

}  // namespace
}  // namespace Tunnelgen
