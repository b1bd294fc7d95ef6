#include <memory>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Harness.h"
#include "apps/agent/Directory.h"
#include "tests/tunnelctl/Processes.h"

// The agent and the state database, each in a process of its own; what they hold is read by a
// third, through the database and through shared memory.

namespace FpmTest {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using Tunnel::TunnelTable::TunnelTableEntry;

using Tunnelctl::Process;

// Whether a process has said or will say something.
bool says(const Process& process, const std::string& words) {
  return Tunnelctl::eventually(
      [&] { return process.err().find(words) != std::string::npos; });
}

class FpmProcessesThreads : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/fpmagentXXXXXX";
    ASSERT_TRUE(::mkdtemp(name));
    directory = name;
    socket = directory + "/hivel.sock";
    ::setenv("HIVEL_SOCKET", socket.c_str(), 1);
    database = start({HOUSE_BIN_DIR "/hiveld", "--socket", socket, "--types",
                      HOUSE_LIB_DIR "/libTunnelHivelTypes.so.0"});
    ASSERT_TRUE(says(*database, "listening on")) << database->err();
  }
  void TearDown() override {
    agent({"--replay", pair, "--remove"})->join();  // no table outlives the test
    database.reset();
    std::filesystem::remove_all(directory);
  }
  std::unique_ptr<Process> start(std::vector<std::string> command) {
    return std::make_unique<Process>(std::move(command),
                                     directory + "/log" + std::to_string(++logs));
  }
  std::unique_ptr<Process> agent(const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {HOUSE_BIN_DIR "/fpmagent"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return start(command);
  }

  // What another process sees: a line per tunnel as the sink would write it, and the
  // identifier of each name.
  struct Seen {
    std::vector<std::string> lines;
    std::map<std::string, U64> ids;
    U64 converged = 0;
  };
  Seen look() {
    Hivel::ClientOptions options;
    options.socketPath = socket;
    Hivel::Client client(options);
    Agent::TableDirectory tables(client, socket);
    tables.follow("fpm");
    EXPECT_TRUE(tables.wait(20s));
    Seen seen;
    const auto nextHops = tables.nextHops("fpm");
    const auto names = tables.names("fpm");
    U64 hopCount = 0;
    for (const Agent::TableRef& table : tables.tables()) {
      if (!table.hasRows()) continue;
      const auto status = names->localTunnelNameStatus(table.type);
      tables.open(table)->forEachRow([&](U64 key, const TunnelTableEntry& row) {
        Agent::Path path;
        path.type = table.type;
        path.name = row.getName();
        path.endpoint = row.tep();
        path.metric = row.entryMetric();
        path.ipv6 = row.tunnelId().tunnelAf() == Vantor::ipv6;
        for (const auto& info : Agent::hopsOf(*nextHops, row).infos)
          path.nextHops.push_back(
              {info.destinationIp(), info.l3Intf(), info.mplsLabelStack()});
        hopCount += path.nextHops.size();
        seen.lines.push_back(lineOf(path));
        seen.ids[std::string(path.name)] = key;
        EXPECT_EQ(status->tunnelNameToId(path.name).value(), key);
      });
    }
    EXPECT_EQ(nextHops->entryCount(), hopCount) << "next hops of no row";
    if (const auto converged = tables.bgpLuConvergence("fpm"))
      seen.converged = converged->bgpLuConvergenceSeqno();
    return seen;
  }
  static std::vector<std::string> linesOf(const std::vector<Bytes>& frames) {
    Memory sink;
    const Session::Options options;
    Session session(sink, options, {});
    feed(session, join(frames));
    return sink.lines();
  }

  const std::string pair = HOUSE_SOURCE_DIR "/examples/fpm/pair-evpn-vxlan+srte.fpm";
  const std::string ring =
      HOUSE_SOURCE_DIR "/examples/fpm/ring4-isis-sr-flap+3000-static.fpm";
  std::string directory, socket;
  std::unique_ptr<Process> database;
  int logs = 0;
};

void sendTo(int fd, const Bytes& bytes) {
  ASSERT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(bytes.size()));
}

// Catches state that does not arrive as the stream said, identifiers that a restart loses,
// and an end before everything is handed over.
TEST_F(FpmProcessesThreads, aReplayArrivesWholeAndARestartKeepsIdentifiers) {
  for (const std::string& file : {ring, pair}) {
    SCOPED_TRACE(file);
    auto running = agent({"--replay", file});
    EXPECT_EQ(running->join(), 0) << running->err();
    const Seen first = look();
    EXPECT_THAT(first.lines,
                testing::UnorderedElementsAreArray(linesOf({contents(file)})));
    EXPECT_GT(first.converged, 0u);

    running = agent({"--replay", file});
    EXPECT_EQ(running->join(), 0) << running->err();
    EXPECT_THAT(running->err(), HasSubstr("; 0 stale paths deleted"));
    const Seen second = look();
    EXPECT_EQ(second.ids, first.ids);
    EXPECT_GT(second.converged, first.converged);
  }
  EXPECT_EQ(agent({"--replay", pair, "--remove"})->join(), 0);
  Hivel::ClientOptions options;
  options.socketPath = socket;
  Hivel::Client client(options);
  EXPECT_TRUE(client.listAndWait("tunnel", 20s).empty());
}

// Catches a daemon's return that renumbers tunnels or leaves what it no longer tells.
TEST_F(FpmProcessesThreads, aDaemonThatComesBackFindsItsTunnels) {
  const auto running = agent({"--listen", "127.0.0.1:0", "--quiet", "0.5"});
  ASSERT_TRUE(says(*running, "listening on 127.0.0.1 port ")) << running->err();
  const std::string log = running->err();
  const auto port = static_cast<U16>(std::stoul(log.substr(log.rfind(' '))));
  const auto connect = [&] {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
    return fd;
  };
  const Bytes stream = recording("abilene-r1-sr-flap");
  const auto all = linesOf({stream});

  int fd = connect();
  sendTo(fd, stream);
  ASSERT_TRUE(says(*running, "; 0 stale paths deleted")) << running->err();
  const Seen first = look();
  EXPECT_THAT(first.lines, testing::UnorderedElementsAreArray(all));

  sendTo(fd, {stream.begin(), stream.begin() + 30});  // breaks in the middle of a frame
  ::close(fd);
  ASSERT_TRUE(says(*running, "in the middle of a frame"));
  fd = connect();
  sendTo(fd, {9, 9, 9, 9});
  ASSERT_TRUE(says(*running, "nothing is withdrawn"));
  ::close(fd);
  EXPECT_EQ(look().ids, first.ids);

  fd = connect();
  std::vector<Bytes> rest = {
      {stream.begin() + 60, stream.end()}
  };  // without label 15001
  for (const U32 label : {16004u, 16005u, 16006u})
    rest.push_back(framed(RouteMessage{false, true, label, {}, 254, 0, 0, 0, {}}));
  rest.push_back(framed(RouteMessage{true, true, 16005, {}, 254, 193, 0, 0, {Hop{}}}));
  sendTo(fd, join(rest));
  ASSERT_TRUE(says(*running, "; 1 stale paths deleted")) << running->err();
  EXPECT_EQ(running->end(SIGTERM), 0) << running->err();
  ::close(fd);
  const Seen last = look();
  EXPECT_THAT(last.lines, testing::UnorderedElementsAreArray(linesOf(rest)));
  for (const auto& [name, id] : last.ids)
    if (name != "ldp-label-16005") {
      EXPECT_EQ(id, first.ids.at(name)) << name;
    }
}

// Catches a wrong command line that is guessed at, and a failure with status 0.
TEST_F(FpmProcessesThreads, saysWhatIsWrong) {
  struct Row {
    std::vector<std::string> arguments;
    int status;
    const char* words;
  };
  const Row rows[] = {
      {{"--listen", "127.0.0.1"},                                           2, "found '127.0.0.1', expected ADDR:PORT"      },
      {{"--listen", "::1:2620"},                                            2, "found '::1:2620', expected ADDR:PORT"       },
      {{"--listen", "127.0.0.1:65536"},                                     2, "found '127.0.0.1:65536', expected ADDR:PORT"},
      {{"--interface", "3"},                                                2, "found '3', expected INDEX=NAME"             },
      {{"--interface", "3=Ethernet5000"},                                   2, "3=Ethernet5000: "                           },
      {{"--mode", "0999"},                                                  2, "found '0999', expected an octal mode"       },
      {{"--pace", "5"},                                                     2, "--pace requires --replay"                   },
      {{"--listen", "192.0.2.1:2620"},                                      1, "bind 192.0.2.1 port 2620: "                 },
      {{"--replay", "/nowhere"},                                            1, "/nowhere: No such file"                     },
      {{"--replay", HOUSE_SOURCE_DIR "/README.md"},                         1, "offset 0: frame version: found"             },
      {{"--socket", "/nowhere/sock", "--timeout", "0.1", "--replay", pair},
       1,                                                                      "/nowhere/sock"                              },
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.words);
    const auto running = agent(row.arguments);
    EXPECT_EQ(running->join(), row.status);
    EXPECT_THAT(running->err(), HasSubstr(row.words));
  }
}

}  // namespace
}  // namespace FpmTest
