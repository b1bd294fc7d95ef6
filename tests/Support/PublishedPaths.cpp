#include "tests/Support/PublishedPaths.h"

#include "tests/Support/Testing.h"

namespace Support {

using namespace std::chrono_literals;
using namespace Tunnel::TunnelTable;

TunnelTableEntry rowOf(const Agent::Path& path, TunnelId id, TunnelId firstHop) {
  TunnelTableEntry row(
      id, TunnelEntryPref(TunnelEntryPref::getDefaultPrefForType(path.type)));
  row.nexthopTunnelIdIs(firstHop);
  row.entryMetricIs(path.metric);
  row.tunnelBwIs(TunnelBandwidth(path.bandwidth));
  if (path.endpoint != Vantor::IpGenPrefix()) row.tepIs(path.endpoint);
  row.setName(path.name);
  return row;
}

namespace {

std::string nameFault(const ProtocolTunnelNameStatus& names, const Published& found) {
  U64 count = 0;
  for (const auto& child : names.localTunnelNameStatus()) {
    const TunnelNameStatus& status = *child.value;
    if (status.tunnelNameToIdCount() != status.tunnelIdToNameCount() ||
        status.tunnelNameToIdCount() != status.tunnelIdNamePairCount())
      return "the collections of names differ";
    count += status.tunnelNameToIdCount();
  }
  if (count != found.ids.size()) return std::to_string(count) + " names";
  for (const auto& [key, id] : found.ids) {
    const auto status = names.localTunnelNameStatus(key.first);
    const Kop::String name(key.second);
    if (!status || !(status->tunnelNameToId(name) == id) ||
        !(status->tunnelIdToName(id) == name) ||
        !status->tunnelIdNamePairHas(TunnelIdNamePair(id, name)))
      return "the name of row " + key.second;
  }
  return {};
}

}  // namespace

std::string read(const Agent::TableDirectory& directory,
                 const std::string& agent,
                 Published& to) {
  const auto hops = directory.nextHops(agent);
  const auto names = directory.names(agent);
  if (!hops || !names) return "no next hops or no names";
  std::string fault = "no table of next hops is listed";
  for (const Agent::TableRef& table : directory.tables())
    if (!table.hasRows() &&
        std::string_view(table.info.mountPath()) == Agent::nexthopTablePath(agent))
      fault.clear();
  U64 hopCount = 0;
  for (const Agent::TableRef& table : directory.tables()) {
    if (table.agent != agent || !table.hasRows()) continue;
    directory.open(table)->forEachRow([&](U64 key, const TunnelTableEntry& row) {
      const TunnelId id = row.tunnelId();
      Agent::Path path{.type = table.type, .name = row.getName()};
      path.endpoint = row.tep();
      path.metric = row.entryMetric();
      path.bandwidth = row.tunnelBw().value();
      path.ipv6 = (id.value() & TunnelIdConstants::tunnelAfMask) != 0;
      const Agent::Hops its = Agent::hopsOf(*hops, row);
      hopCount += its.infos.size();
      for (const NexthopTunnelL3Info& info : its.infos) {
        path.nextHops.push_back(
            {info.destinationIp(), info.l3Intf(), info.mplsLabelStack()});
        if (info.groupType() != Tunnel::TunnelTable::mpls) fault = "a hop's group type";
      }
      const std::string name(path.name);
      if (id.value() != key || id.tunnelType() != table.type || !its.arrived ||
          !(row == rowOf(path, id, row.nexthopTunnelId())))
        fault = "row " + name + " is of no path, or its hops have not arrived";
      if (!to.paths.emplace(keyOf(path), path).second) fault = name + " stands twice";
      to.ids[keyOf(path)] = id;
      to.rows.push_back(row);
    });
  }
  if (!fault.empty()) return fault;
  if (hops->entryCount() != hopCount) return "hops that no row leads to";
  for (const auto& node : hops->entry())
    if (Agent::groupOf(node.key()) >= hops->nextAvailableIndex())
      return "a group of hops beyond the next available index";
  return nameFault(*names, to);
}

Published publishedBy(const std::string& agent, const Hivel::ClientOptions& options) {
  Hivel::Client client(options);
  Agent::TableDirectory directory(client, options.socketPath);
  directory.follow(agent);
  EXPECT_TRUE(directory.wait(20s));
  Published found;
  std::string fault;
  // A row is seen before its hops and its name are.
  client.wait(
      [&] {
        found = {};
        fault = directory.tables().empty() ? "" : read(directory, agent, found);
        return fault.empty();
      },
      20s);
  EXPECT_EQ(fault, "");
  return found;
}

std::string lineOf(const Agent::Path& path) {
  std::string line = std::string(path.name) + " type " + std::to_string(path.type) + " " +
                     std::string(path.endpoint.stringValue()) + " metric " +
                     std::to_string(path.metric) + (path.ipv6 ? " ipv6" : "") +
                     (path.bandwidth != 0 ? " bandwidth" : "");
  for (const Agent::NextHop& hop : path.nextHops)
    line += " | " + std::string(hop.address.stringValue()) + " " +
            std::string(hop.intf.stringValue()) + " " +
            std::string(hop.labels.stringValue());
  return line;
}

std::vector<std::string> linesOf(const Paths& paths) {
  std::vector<std::string> lines;
  for (const auto& [key, path] : paths)
    lines.push_back(lineOf(path));
  return lines;
}

}  // namespace Support
