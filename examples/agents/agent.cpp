// A minimal agent: makes a static tunnel of each line that it reads,
//
//   ENDPOINT METRIC NEXTHOP INTERFACE LABEL     192.0.2.9/32 10 198.51.100.1 Ethernet1 16009
//   ENDPOINT down
//
// and ends with its input. What it published stays, as state outlives its writers.
// [headers]
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <unordered_map>

#include <poll.h>
#include <unistd.h>

#include "Hivel/Client.h"
#include "Hivel/SharedMemory.h"
#include "Quarn/Table.h"
#include "Tunnel/TunnelTableHivelTypes.h"

using namespace Tunnel::TunnelTable;
using namespace std::chrono_literals;
// [headers]

int main() try {
  // [client]
  const char* const given = std::getenv("HIVEL_SOCKET");
  const std::string socket(given ? given : Hivel::defaultSocketPath);
  Hivel::Client client({.socketPath = socket, .name = "static"});
  const auto mount = [&](const char* path, const Kop::Ptr<Kop::Entity>& entity) {
    Hivel::MountOptions options;
    options.entity = entity;
    client.mountAndWait(path, Hivel::Mode::replace, options, 5s);
  };
  // [client]

  // [table]
  const auto table = tunnelTableBaseFactory("staticTunnelTable");
  table->tableTypeIs(staticTunnel);
  table->tunnelTableIdIs(staticTunnelTable);
  mount("tunnel/table/staticTunnelTable", table);
  const auto rowsName = Hivel::shmName(socket, "tunnel/table/staticTunnelTable");
  Quarn::TableWriter<TunnelTableEntry> rows(rowsName);
  rows.rowDelAll();  // of an earlier run, whose next hops are replaced below
  // [table]

  // [entities]
  const auto hops = nexthopTunnelTableFactory("nexthopTunnelTable-static");
  hops->tableTypeIs(nexthopTunnel);
  mount("tunnel/table/nexthopTunnelTable-static", hops);
  const auto directory = tunnelTableInfoCollectionFactory("static");
  directory->tableInfoIs(TunnelTableInfo("staticTunnelTable", "staticTunnel"));
  directory->tableInfoIs(TunnelTableInfo("nexthopTunnelTable-static", "nexthopTunnel"));
  mount("tunnel/tableInfo/static", directory);
  // [entities]

  // [line]
  std::unordered_map<std::string, U64> indices;  // of endpoints
  const auto take = [&](const std::string& line) {
    std::istringstream words(line);
    std::string endpoint, metric, nextHop, intf;
    U32 label = 0;
    words >> endpoint >> metric >> nextHop >> intf >> label;
    const Vantor::IpGenPrefix tep{Kop::String(endpoint)};  // throws for what is no prefix
    const U64 index = indices.try_emplace(endpoint, indices.size() + 1).first->second;
    const TunnelId id(TunnelId::convertToTunnelValue(staticTunnel, index));
    const TunnelId hop(TunnelId::convertToTunnelValue(nexthopTunnel, index << 8));
    if (metric == "down") {
      rows.rowDel(id.value());  // before its hop, so that no row names one that is gone
      hops->entryDel(hop);
      return;
    }
    NexthopTunnelL3Info info;
    info.groupTypeIs(mpls);
    info.destinationIpIs(Vantor::IpGenAddr(Kop::String(nextHop)));
    info.l3IntfIs(Vantor::IntfId(Kop::String(intf)));
    info.mplsLabelStackIs(Vantor::MplsLabelOperation(Vantor::push, {&label, 1}));
    TunnelTableEntry row(id, TunnelEntryPref(TunnelEntryPref::defaultStaticPref));
    row.nexthopTunnelIdIs(hop);
    row.entryMetricIs(Kop::strepToValue<U32>(metric));
    row.tepIs(tep);
    row.setName("static-" + endpoint);
    hops->entryIs(hop, info);
    rows.rowIs(id.value(), row);
  };
  // [line]

  // [loop]
  std::setvbuf(stdin, nullptr, _IONBF, 0);  // so that poll knows of every line
  pollfd fds[] = {
      {STDIN_FILENO, POLLIN, 0},
      {client.fd(),  POLLIN, 0}
  };
  for (std::string line; std::cin;) {
    while (client.wants())
      client.process();  // sends what was written
    ::poll(fds, std::size(fds), -1);
    client.process();
    try {
      if (fds[0].revents != 0 && std::getline(std::cin, line)) take(line);
    } catch (const Kop::Exception& error) {
      std::cerr << "agent: '" << line << "': " << error.what() << std::endl;
    }
  }
  return client.syncAndWait(5s) ? 0 : 1;
  // [loop]
} catch (const Kop::Exception& error) {
  std::cerr << "agent: " << error.what() << "\n";
  return 1;
}
