#include "apps/tunnelctl/Tables.h"

#include "Kop/Exception.h"

namespace Tunnelctl {

Tables::Tables(const Context& context)
    : context_(context),
      session_(context),
      directory_(session_.client(), context.socketPath) {
  settle();
}

void Tables::settle() {
  if (!directory_.wait(context_.timeout))
    throw Failure("the server did not tell in time which tables there are");
}

void Tables::follow(U32 what) {
  for (const std::string& agent : directory_.agents())
    directory_.follow(agent, what);
  settle();
}

void Tables::follow(const std::string& agent, U32 what) {
  directory_.follow(agent, what);
  settle();
}

Agent::TableRef Tables::named(const std::string& name) const {
  const std::vector<Agent::TableRef> tables = directory_.tables();
  std::string known;
  for (const Agent::TableRef& table : tables) {
    const std::string_view tableName = table.info.tableName();
    if (tableName == name || std::string_view(table.info.mountPath()) == name ||
        std::string_view(table.info.tableType()) == name)
      return table;
    known += (known.empty() ? "" : ", ") + printable(tableName);
  }
  throw UsageError(
      "NAME '" + printable(name) + "': " +
      (known.empty() ? "no agent has tables" : "expected one of the tables " + known));
}

RowHops Tables::hops(const std::string& agent,
                     const Tunnel::TunnelTable::TunnelTableEntry& row) const {
  if (!row.nexthopTunnelId().isValid()) return {true, {}};
  const auto nextHops = directory_.nextHops(agent);
  if (!nextHops) return {};
  Agent::Hops hops = Agent::hopsOf(*nextHops, row);
  return {hops.arrived, std::move(hops.infos)};
}

RowHops Tables::hopsSoon(const std::string& agent,
                         const Tunnel::TunnelTable::TunnelTableEntry& row) {
  session_.client().wait([&] { return hops(agent, row).known; },
                         std::chrono::milliseconds(200));
  return hops(agent, row);
}

void Tables::needAllRead() const {
  const auto refusals = directory_.refusals();
  if (refusals.empty()) return;
  std::string text = refusals.front().first + ": " + refusals.front().second;
  if (refusals.size() > 1)
    text += "; " + std::to_string(refusals.size() - 1) + " more paths cannot be read";
  throw Failure(text);
}

}  // namespace Tunnelctl
