#include "Quarn/Table.h"
#include "Tunnel/TunnelTableHivelTypes.h"
#include "apps/agent/Publisher.h"
#include "apps/tunnelctl/Json.h"
#include "tests/Support/Testing.h"
#include "tests/tunnelctl/Processes.h"

namespace Tunnelctl {
namespace {

using namespace std::chrono_literals;
using namespace Tunnel::TunnelTable;
using testing::HasSubstr;
using testing::Not;
using Vantor::IpGenPrefix;

Agent::NextHop hop(const char* address, const char* intf, std::vector<U32> labels) {
  return {Vantor::IpGenAddr(Kop::String(address)), Vantor::IntfId(Kop::String(intf)),
          Vantor::MplsLabelOperation(Vantor::push, labels)};
}
Agent::Path path(TunnelType type,
                 const char* name,
                 const char* endpoint,
                 U32 metric,
                 const std::vector<Agent::NextHop>& hops = {}) {
  return {type,
          name,
          IpGenPrefix(Kop::String(endpoint)),
          metric,
          hops.size() == 1 ? 1.5f : 0,
          strchr(endpoint, ':') != nullptr,
          hops};
}
// An agent in this process beside the daemon, and the command in processes of its own.
class TablesProcesses : public CtlProcesses {
 protected:
  void SetUp() override {
    CtlProcesses::SetUp();
    publish();
  }
  void publish() {
    Agent::Publisher::Options options;
    options.socketPath = socket_;
    publisher_ = std::make_unique<Agent::Publisher>(options);
  }
  void tell(const Agent::Path& path) {
    publisher_->pathIs(path);
    ASSERT_TRUE(publisher_->finish(10s));
  }
  void tellAll() {
    const Agent::NextHop one = hop("10.1.0.1", "Ethernet1", {16001}),
                         two = hop("10.1.0.5", "Ethernet2", {16002, 16001});
    for (const Agent::Path& each :
         {path(srTunnel, "node-1", "10.0.0.1/32", 20, {one, two}),
          path(srTunnel, "node-10", "10.0.0.2/32", 5, {hop("10.1.0.1", "Ethernet1", {})}),
          path(srTunnel, "node-2", "", 10),
          path(srTunnel, "node-3", "2001:db8::1/128", 10),
          path(ldpTunnel, "ldp", "10.0.0.1/32", 100),
          path(rsvpFrrTunnel, "bypass", "10.0.0.1/32", 1)})
      publisher_->pathIs(each);
    ASSERT_TRUE(publisher_->finish(10s));
  }

  // Plays the commands of a transcript; what they say is all that it has.
  void expectTranscript(const std::string& file) {
    const std::string text = contents(HOUSE_SOURCE_DIR "/tests/tunnelctl/" + file);
    std::istringstream lines(text);
    std::string played;
    for (std::string line; std::getline(lines, line);) {
      if (line[0] != '$' && line[0] != '#') continue;
      played += line + "\n";
      if (line[0] == '$') played += ctl(line.substr(2)).out;
    }
    EXPECT_EQ(played, text);
  }
  std::unique_ptr<Agent::Publisher> publisher_;
};

// Catches rows out of order, columns that moved, next hops that are not found, rows that a
// pattern should have left out, a worse tunnel that is called the best, and tables that do
// not contribute.
TEST_F(TablesProcesses, areShown) {
  tellAll();
  expectTranscript("tables.transcript");
  play("tunnelctl/tables.txt");
}

// Catches a table of another process whose damage ends the command, or is not told.
TEST_F(TablesProcesses, faultsOfRowsAreToldAndEndNothing) {
  tellAll();
  publisher_.reset();  // leaves its tables
  const std::string memory = Agent::shmName(socket_, "tunnel/table/srTunnelTable");
  {
    Quarn::TableWriter<TunnelTableEntry> writer(memory);
    const U64 odd = U64{25} << TunnelIdConstants::tunnelTypePos | 7;
    writer.rowIs(odd, TunnelTableEntry(TunnelId(odd), TunnelEntryPref(1)));
    writer.rowIs(99, TunnelTableEntry(TunnelId(5), TunnelEntryPref(1)));
    TunnelTableEntry foreign(TunnelId(TunnelId::convertToTunnelValue(ldpTunnel, 7)),
                             TunnelEntryPref(1));
    foreign.tunnelBwIs(TunnelBandwidth(std::numeric_limits<float>::quiet_NaN()));
    writer.rowIs(foreign.tunnelId().value(), foreign);
  }
  play("tunnelctl/odd-rows.txt");
}

// Catches changes of rows that are not seen or are told without what changed, and a best tunnel
// that changed without being told, also one whose row stays as it is because only its next
// hops are others.
TEST_F(TablesProcesses, monitorsFollowRowsAndTheBestOfEachEndpoint) {
  tellAll();
  const auto rows = startMonitor("-d tunnel/table/srTunnelTable"),
             best = startMonitor("-d --rib 10.0.0.0/8");
  EXPECT_TRUE(rows->says("via 10.1.0.5  Ethernet2  push 16002 16001"));
  publisher_->pathDel(ldpTunnel, "ldp");
  EXPECT_TRUE(
      best->says("~ best 10.0.0.1/32  tunnel LDP tunnel index 1 -> IS-IS SR "
                 "tunnel index 1, preference 55 -> 65, metric 100 -> 20"));
  const Agent::NextHop one = hop("10.1.0.1", "Ethernet1", {16001});
  tell(path(srTunnel, "node-1", "10.0.0.1/32", 20, {one, one}));
  const std::string hops =
      "  next hops 10.1.0.1 Ethernet1 push 16001, 10.1.0.5 Ethernet2 push 16002 16001 -> "
      "10.1.0.1 Ethernet1 push 16001, 10.1.0.1 Ethernet1 push 16001\n";
  EXPECT_TRUE(best->says("~ best 10.0.0.1/32" + hops));
  EXPECT_TRUE(rows->says("~ row IS-IS SR tunnel index 1" + hops));
  tell(path(srTunnel, "node-10", "10.0.0.2/32", 6));
  EXPECT_TRUE(best->says("~ best 10.0.0.2/32  metric 5 -> 6, bandwidth 1.5 -> 0.0"));
  tell(path(srTunnel, "new", "10.0.0.7/32", 1, {hop("10.1.0.9", "Ethernet3", {17})}));
  EXPECT_TRUE(rows->says(
      "+ row IS-IS SR tunnel index 5  endpoint 10.0.0.7/32, preference 65, metric 1,"));
  EXPECT_TRUE(rows->says("    via 10.1.0.9  Ethernet3  push 17\n"));
  EXPECT_TRUE(best->says("+ best 10.0.0.7/32  tunnel IS-IS SR tunnel index 5"));
  publisher_->pathDel(srTunnel, "new");
  EXPECT_TRUE(rows->says("- row IS-IS SR tunnel index 5  endpoint 10.0.0.7/32"));
  EXPECT_TRUE(best->says("- best 10.0.0.7/32  tunnel IS-IS SR tunnel index 5"));
  tell(path(srTunnel, "node-2", "10.0.0.9/32", 30));
  EXPECT_TRUE(rows->says(
      "~ row IS-IS SR tunnel index 3  endpoint - -> 10.0.0.9/32, metric 10 -> 30\n"));
  EXPECT_THAT(best->out(), Not(HasSubstr("2001:db8")));
  for (const auto& monitor : {rows.get(), best.get()})
    EXPECT_EQ(monitor->end(SIGTERM), 0) << monitor->err();
}

// Catches a follower that loses a change when more changed than the table remembers, or when
// another table takes the place of the one it looks at.
TEST_F(TablesProcesses, monitorSurvivesOverrunAndRestart) {
  tellAll();
  auto monitor = startMonitor("-j tunnel/table/srTunnelTable");
  monitor->send(SIGSTOP);
  Agent::Path busy = path(srTunnel, "node-2", "", 10);
  for (U32 i = 0; i < 70'000; ++i) {
    busy.metric = i;
    publisher_->pathIs(busy);
  }
  monitor->send(SIGCONT);
  EXPECT_TRUE(monitor->says("\"event\":\"overrun\""));
  EXPECT_TRUE(monitor->says("\"metric\":69999"));
  ASSERT_TRUE(publisher_->withdraw(10s));
  publisher_.reset();
  EXPECT_TRUE(monitor->says("\"event\":\"removed\""));
  publish();
  tell(path(srTunnel, "again", "10.0.0.1/32", 77));
  EXPECT_TRUE(monitor->says("\"name\":\"again\""));
  std::istringstream lines(monitor->out());
  for (std::string line; std::getline(lines, line);)
    EXPECT_NO_THROW(parseJson(line)) << line;
  EXPECT_EQ(monitor->end(SIGTERM), 0) << monitor->err();
}

}  // namespace
}  // namespace Tunnelctl
