#include <sstream>

#include <gmock/gmock.h>

#include "Quarn/Table.h"
#include "Tunnel/TunnelTableHivelTypes.h"
#include "apps/agent/Publisher.h"
#include "apps/tunnelctl/Json.h"
#include "tests/tunnelctl/Processes.h"

namespace Tunnelctl {
namespace {

using namespace std::chrono_literals;
using namespace Tunnel::TunnelTable;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using Vantor::IpGenPrefix;

Agent::NextHop hop(const char* address, const char* intf, std::vector<U32> labels) {
  return {Vantor::IpGenAddr(Kop::String(address)), Vantor::IntfId(Kop::String(intf)),
          Vantor::MplsLabelOperation(Vantor::push, labels)};
}
Agent::Path path(TunnelType type, const char* name, const char* endpoint, U32 metric) {
  Agent::Path result;
  result.type = type;
  result.name = name;
  result.endpoint = IpGenPrefix(Kop::String(endpoint));
  result.metric = metric;
  return result;
}

// Output as it stands between the parentheses.
std::string shown(const char* text) {
  return text + 1;  // behind the first line end
}

// An agent in this process beside the daemon, and the command in processes of its own.
class TablesThreads : public ProcessesThreads {
 protected:
  void SetUp() override {
    ProcessesThreads::SetUp();
    Agent::Publisher::Options options;
    options.socketPath = socket_;
    publisher_ = std::make_unique<Agent::Publisher>(options);
  }
  void TearDown() override {
    if (publisher_) {
      EXPECT_TRUE(publisher_->withdraw(10s));
    }
    publisher_.reset();
    ProcessesThreads::TearDown();
  }
  void tell(const Agent::Path& path) {
    publisher_->pathIs(path);
    ASSERT_TRUE(publisher_->finish(10s));
  }
  void tellAll() {
    Agent::Path first = path(srTunnel, "node-1", "10.0.0.1/32", 20);
    first.nextHops = {hop("10.1.0.1", "Ethernet1", {16001}),
                      hop("10.1.0.5", "Ethernet2", {16002, 16001})};
    publisher_->pathIs(first);
    Agent::Path second = path(srTunnel, "node-10", "10.0.0.2/32", 5);
    second.nextHops = {hop("10.1.0.1", "Ethernet1", {})};
    second.bandwidth = 1.5;
    publisher_->pathIs(second);
    publisher_->pathIs(path(srTunnel, "node-2", "", 10));
    Agent::Path third = path(srTunnel, "node-3", "2001:db8::1/128", 10);
    third.ipv6 = true;
    publisher_->pathIs(third);
    publisher_->pathIs(path(ldpTunnel, "ldp", "10.0.0.1/32", 100));
    publisher_->pathIs(path(rsvpFrrTunnel, "bypass", "10.0.0.1/32", 1));
    ASSERT_TRUE(publisher_->finish(10s));
  }

  // Waits until a monitor has said it.
  static void told(const Process& monitor, const std::string& text) {
    EXPECT_TRUE(eventually([&] { return monitor.out().find(text) != std::string::npos; }))
        << text << " in\n"
        << monitor.out();
  }

  std::unique_ptr<Agent::Publisher> publisher_;
};

// Catches rows out of order, columns that moved, next hops that are not found, and rows that
// a pattern should have left out.
TEST_F(TablesThreads, rowsAreShownBestFirst) {
  tellAll();
  const Result rows = ctl({"table", "srTunnelTable"});
  EXPECT_EQ(rows.status, 0) << rows.err;
  EXPECT_EQ(rows.out, shown(R"(
kind      index  endpoint         preference  metric  bandwidth  next hop               name
IS-IS SR  2      10.0.0.2/32      65          5       1.5        10.1.0.1 Ethernet1     node-10
IS-IS SR  3      -                65          10      0.0        -                      node-2
IS-IS SR  4      2001:db8::1/128  65          10      0.0        -                      node-3
IS-IS SR  1      10.0.0.1/32      65          20      0.0        10.1.0.1 Ethernet1 +1  node-1
)"));
  EXPECT_EQ(ctl({"-d", "table", "srTunnel", "--name", "node-1*"}).out, shown(R"(
kind      index  endpoint     preference  metric  bandwidth  next hop               interface               name
IS-IS SR  2      10.0.0.2/32  65          5       1.5        10.1.0.1 Ethernet1     DynamicTunnel7340032.2  node-10
    via 10.1.0.1  Ethernet1  push
IS-IS SR  1      10.0.0.1/32  65          20      0.0        10.1.0.1 Ethernet1 +1  DynamicTunnel7340032.1  node-1
    via 10.1.0.1  Ethernet1  push 16001
    via 10.1.0.5  Ethernet2  push 16002 16001
)"));
  EXPECT_EQ(ctl({"-br", "table", "srTunnelTable", "--limit", "2"}).out, shown(R"(
IS-IS SR  2  10.0.0.2/32
IS-IS SR  3  -
)"));
  EXPECT_EQ(ctl({"-br", "table", "srTunnelTable", "--endpoint", "2001:db8::/32"}).out,
            shown(R"(
IS-IS SR  4  2001:db8::1/128
)"));
  EXPECT_EQ(ctl({"table", "nexthopTunnelTable-fpm"}).out, shown(R"(
index  group  hop  address   interface  labels
256    1      0    10.1.0.1  Ethernet1  push 16001
257    1      1    10.1.0.5  Ethernet2  push 16002 16001
512    2      0    10.1.0.1  Ethernet1  push
)"));
  const Json json = parseJson(ctl({"-j", "table", "tunnel/table/srTunnelTable"}).out);
  ASSERT_EQ(json.items.size(), 4u);
  EXPECT_EQ(json.items[0].find("name")->text, "node-10");
  EXPECT_EQ(json.items[3].find("nextHops")->items.size(), 2u);

  const Result list = ctl({"table"});
  EXPECT_EQ(list.status, 0) << list.err;
  const std::string pid = std::to_string(getpid());
  EXPECT_THAT(list.out,
              ContainsRegex("fpm +srTunnelTable +srTunnel +4 +4 +" + pid + " +yes"));
  EXPECT_THAT(ctl({"-d", "table"}).out,
              ContainsRegex("fpm +nexthopTunnelTable-fpm +nexthopTunnel +3 "));
  EXPECT_EQ(ctl({"table", "--verify"}).status, 0);
  const Result unknown = ctl({"table", "frob"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_THAT(unknown.err, HasSubstr("NAME 'frob': expected one of the tables "));
  EXPECT_EQ(ctl({"table", "--limit", "2"}).status, 2);
}

// Catches a worse tunnel that is called the best, tables that do not contribute, and rows
// that get lost.
TEST_F(TablesThreads, theRibShowsTheBestOfEachEndpoint) {
  tellAll();
  EXPECT_EQ(ctl({"rib"}).out, shown(R"(
agent  table           type       rows
fpm    ldpTunnelTable  ldpTunnel  1
fpm    srTunnelTable   srTunnel   4

  endpoint         rows  kind      index  preference  metric  bandwidth  next hop            name
* 10.0.0.1/32      2     LDP       1      55          100     0.0        -                   ldp
* 10.0.0.2/32      1     IS-IS SR  2      65          5       1.5        10.1.0.1 Ethernet1  node-10
* 2001:db8::1/128  1     IS-IS SR  4      65          10      0.0        -                   node-3
1 row without an endpoint is not shown
)"));
  EXPECT_EQ(ctl({"-d", "rib", "10.0.0.1"}).out, shown(R"(
  endpoint     kind      index  preference  metric  bandwidth  next hop               interface               name
* 10.0.0.1/32  LDP       1      55          100     0.0        -                      DynamicTunnel3145728.1  ldp
  10.0.0.1/32  IS-IS SR  1      65          20      0.0        10.1.0.1 Ethernet1 +1  DynamicTunnel7340032.1  node-1
    via 10.1.0.1  Ethernet1  push 16001
    via 10.1.0.5  Ethernet2  push 16002 16001
)"));
  EXPECT_THAT(ctl({"rib"}).out, Not(HasSubstr("bypass")));
  EXPECT_EQ(ctl({"rib", "10.9.9.9"}).status, 1);
  const Json json = parseJson(ctl({"-j", "rib"}).out);
  ASSERT_EQ(json.items.size(), 4u);
  EXPECT_EQ(json.items[0].find("withoutEndpoint")->text, "1");
  EXPECT_EQ(json.items[1].find("candidates")->text, "2");
}

// Catches names that are shown though a collection does not know them.
TEST_F(TablesThreads, namesAgreeOrAreTold) {
  tellAll();
  const Result all = ctl({"names"});
  EXPECT_EQ(all.status, 0) << all.err;
  EXPECT_THAT(all.out, ContainsRegex("fpm +LDP +1 +[0-9]+ +ldp\n"));
  EXPECT_EQ(ctl({"-br", "names", "node-1*"}).out, shown(R"(
IS-IS SR tunnel index 1  node-1
IS-IS SR tunnel index 2  node-10
)"));
  EXPECT_EQ(ctl({"-br", "names", "LDP tunnel index 1"}).out, "LDP tunnel index 1  ldp\n");
  EXPECT_EQ(ctl({"names", "frob"}).status, 1);

  const std::string names = file("names.json",
                                 R"([{"path": "tunnel/tunnelName/other",
           "type": "Tunnel::TunnelTable::ProtocolTunnelNameStatus",
           "localTunnelNameStatus": {"ldpTunnel": {"tunnelNameToId": {"odd": 52776558133249}}}},
          {"path": "tunnel/tableInfo/other",
           "type": "Tunnel::TunnelTable::TunnelTableInfoCollection"}])");
  ASSERT_EQ(ctl({"apply", names}).status, 0) << ctl({"apply", names}).err;
  const Result bad = ctl({"names"});
  EXPECT_EQ(bad.status, 1);
  EXPECT_THAT(bad.err, HasSubstr("other: LDP tunnel index 1 odd: not in tunnelIdToName, "
                                 "tunnelIdNamePair"));
}

// Catches a table of another process whose damage ends the command, or is not told.
TEST_F(TablesThreads, faultsOfRowsAreToldAndEndNothing) {
  tellAll();
  ASSERT_TRUE(publisher_->finish(10s));
  publisher_.reset();  // leaves its tables
  const std::string memory = Agent::shmName(socket_, "tunnel/table/srTunnelTable");
  {
    Quarn::TableWriter<TunnelTableEntry> writer(memory);
    const U64 odd = U64{25} << TunnelIdConstants::tunnelTypePos | 7;
    writer.rowIs(odd, TunnelTableEntry(TunnelId(odd), TunnelEntryPref(1)));
    writer.rowIs(99, TunnelTableEntry(TunnelId(5), TunnelEntryPref(1)));
  }
  const Result rows = ctl({"table", "srTunnelTable"});
  EXPECT_EQ(rows.status, 0) << rows.err;
  EXPECT_THAT(rows.out, ContainsRegex("type 25 +7 "));
  EXPECT_THAT(ctl({"table"}).out, ContainsRegex("srTunnel +6 +6 +- +no"));
  const Result faults = ctl({"table", "srTunnelTable", "--verify"});
  EXPECT_EQ(faults.status, 1);
  EXPECT_THAT(faults.out, HasSubstr("type 25 index 7: is of type 25"));
  EXPECT_THAT(faults.out, HasSubstr("stands under key 99, but says it is 5"));
  EXPECT_EQ(ctl({"-j", "table", "--verify"}).status, 1);
  EXPECT_EQ(ctl({"rib"}).status, 0) << "a row of no kind is no candidate";
  Agent::Publisher::Options options;
  options.socketPath = socket_;
  publisher_ = std::make_unique<Agent::Publisher>(options);
}

// Catches changes of rows that are not seen, or are told without what changed.
TEST_F(TablesThreads, monitorFollowsRows) {
  tellAll();
  auto monitor = startMonitor({"-d", "tunnel/table/srTunnelTable"});
  EXPECT_THAT(monitor->out(), HasSubstr("via 10.1.0.5  Ethernet2  push 16002 16001"));
  const auto sees = [&](const std::string& text) { told(*monitor, text); };
  Agent::Path changed = path(srTunnel, "node-2", "10.0.0.9/32", 30);
  tell(changed);
  sees("~ row IS-IS SR tunnel index 3  endpoint - -> 10.0.0.9/32, metric 10 -> 30\n");
  Agent::Path added = path(srTunnel, "new", "10.0.0.7/32", 1);
  added.nextHops = {hop("10.1.0.9", "Ethernet3", {17})};
  tell(added);
  sees("+ row IS-IS SR tunnel index 5  endpoint 10.0.0.7/32, preference 65, metric 1,");
  sees("    via 10.1.0.9  Ethernet3  push 17\n");
  publisher_->pathDel(srTunnel, "new");
  sees("- row IS-IS SR tunnel index 5  endpoint 10.0.0.7/32");
  EXPECT_EQ(monitor->end(SIGTERM), 0) << monitor->err();
}

// Catches a follower that loses a change when more changed than the table remembers, or when
// another table takes the place of the one it looks at.
TEST_F(TablesThreads, monitorSurvivesOverrunAndRestart) {
  tellAll();
  auto monitor = startMonitor({"-j", "tunnel/table/srTunnelTable"});
  const auto sees = [&](const std::string& text) { told(*monitor, text); };
  monitor->send(SIGSTOP);
  Agent::Path busy = path(srTunnel, "node-2", "", 10);
  for (U32 i = 0; i < 70'000; ++i) {
    busy.metric = i;
    publisher_->pathIs(busy);
  }
  monitor->send(SIGCONT);
  sees("\"event\":\"overrun\"");
  sees("\"metric\":69999");
  ASSERT_TRUE(publisher_->withdraw(10s));
  publisher_.reset();
  sees("\"event\":\"removed\"");
  Agent::Publisher::Options options;
  options.socketPath = socket_;
  publisher_ = std::make_unique<Agent::Publisher>(options);
  tell(path(srTunnel, "again", "10.0.0.1/32", 77));
  sees("\"name\":\"again\"");
  std::istringstream lines(monitor->out());
  for (std::string line; std::getline(lines, line);)
    EXPECT_NO_THROW(parseJson(line)) << line;
  EXPECT_EQ(monitor->end(SIGTERM), 0) << monitor->err();
}

// Catches a best tunnel that changed without being told, also one whose row stays as it is
// because only its next hops are others.
TEST_F(TablesThreads, monitorFollowsTheBestOfEachEndpoint) {
  tellAll();
  auto monitor = startMonitor({"-d", "--rib", "10.0.0.0/8"});
  EXPECT_THAT(monitor->out(), Not(HasSubstr("2001:db8")));
  const auto sees = [&](const std::string& text) { told(*monitor, text); };
  publisher_->pathDel(ldpTunnel, "ldp");
  sees(
      "~ best 10.0.0.1/32  tunnel LDP tunnel index 1 -> IS-IS SR tunnel index 1, "
      "preference "
      "55 -> 65, metric 100 -> 20");
  Agent::Path first = path(srTunnel, "node-1", "10.0.0.1/32", 20);
  first.nextHops = {hop("10.1.0.1", "Ethernet1", {16001})};
  tell(first);
  sees(
      "~ best 10.0.0.1/32  next hops 10.1.0.1 Ethernet1 push 16001, "
      "10.1.0.5 Ethernet2 push 16002 16001 -> 10.1.0.1 Ethernet1 push 16001\n");
  tell(path(srTunnel, "node-10", "10.0.0.2/32", 6));
  sees("~ best 10.0.0.2/32  metric 5 -> 6, bandwidth 1.5 -> 0.0");
  publisher_->pathDel(srTunnel, "node-10");
  sees("- best 10.0.0.2/32  tunnel IS-IS SR tunnel index 2");
  tell(path(ldpTunnel, "other", "10.0.0.3/32", 1));
  sees("+ best 10.0.0.3/32  tunnel LDP tunnel index 1");
  EXPECT_EQ(monitor->end(SIGTERM), 0) << monitor->err();
}

}  // namespace
}  // namespace Tunnelctl
