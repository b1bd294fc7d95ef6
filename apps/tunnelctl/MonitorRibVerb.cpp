#include <map>
#include <ostream>

#include "Kop/Exception.h"
#include "apps/tunnelctl/Events.h"
#include "apps/tunnelctl/HopWatch.h"
#include "apps/tunnelctl/Tables.h"

namespace Tunnelctl {

namespace {

using Tunnel::TunnelTable::TunnelTableEntry;
using Vantor::IpGenPrefix;

std::string str(const Kop::String& text) {
  return {text.data(), text.size()};
}

// Tells which tunnel is the best one of each endpoint, and what becomes of it; with details
// also of its next hops.
class RibMonitor {
 public:
  RibMonitor(const Context& context, const MonitorOptions& options)
      : context_(context),
        options_(options),
        log_(context),
        end_(options),
        tables_(context),
        hops_(tables_),
        rib_(tables_.directory()) {
    if (!options.prefix.empty()) within_ = readPrefixArgument("PATH", options.prefix);
  }

  int run() {
    if (context_.style.detail) tables_.follow(followsNextHops);
    update(false);
    snapshot();
    log_.mark();
    Hivel::Client& client = tables_.session().client();
    while (!end_.isOver(log_, true)) {
      context_.out.flush();
      if (!end_.wait({client.fd()}, options_.interval)) break;
      client.process();
      while (client.wants())
        client.process();
      update(true);
    }
    context_.out.flush();
    return 0;
  }

 private:
  struct Best {
    std::string agent;
    std::string row;  // in its binary form
    RowHops hops;
  };

  void update(bool tells) {
    for (const IpGenPrefix& endpoint : rib_.update())
      update(endpoint, tells);
    if (context_.style.detail) {
      hops_.update();
      std::vector<IpGenPrefix> endpoints;
      if (hops_.anyChanged())
        for (const auto& [endpoint, best] : best_)
          if (hops_.hasChanged(best.agent, unpacked(best.row)))
            endpoints.push_back(endpoint);
      for (const IpGenPrefix& endpoint : endpoints)
        update(endpoint, tells);
    }
    tellFaults();
  }

  void update(const IpGenPrefix& endpoint, bool tells) {
    if (within_ && !isInside(endpoint, *within_)) return;
    const auto rows = rib_.rows(endpoint);
    const auto known = best_.find(endpoint);
    const bool was = known != best_.end();
    if (rows.empty() && !was) return;
    Best now;
    if (!rows.empty())
      now = {rows.front().table->agent, packed(rows.front().entry), hops(rows.front())};
    const bool otherRow = !was || rows.empty() || known->second.row != now.row;
    // Hops that are on their way are told when all have arrived.
    const bool otherHops = was && !rows.empty() && now.hops.known &&
                           known->second.hops.hops != now.hops.hops;
    if (!otherRow && !otherHops) return;
    if (tells) {
      std::optional<TunnelTableEntry> before;
      if (was) before = unpacked(known->second.row);
      log_.change(
          "rib",
          {"best", str(endpoint.stringValue()), Json::string(str(endpoint.stringValue())),
           before ? &*before : nullptr, rows.empty() ? nullptr : &rows.front().entry,
           now.hops, otherHops ? std::optional(known->second.hops) : std::nullopt});
    }
    if (rows.empty())
      best_.erase(known);
    else
      best_.insert_or_assign(endpoint, std::move(now));
  }

  RowHops hops(const Agent::RibView::Row& row) {
    if (!context_.style.detail) return {!row.entry.nexthopTunnelId().isValid(), {}};
    return tables_.hopsSoon(row.table->agent, row.entry);
  }

  void snapshot() {
    Columns columns;
    for (const auto& [endpoint, unused] : best_) {
      const auto rows = rib_.rows(endpoint);
      if (rows.empty()) continue;
      const TunnelTableEntry& best = rows.front().entry;
      if (context_.style.json) {
        Json event = EventLog::eventOf("rib", "row");
        event.add("key", Json::string(str(endpoint.stringValue())));
        event.add("row", rowJson(best, hops(rows.front())));
        log_.print(event);
        continue;
      }
      std::vector<std::string> cells{str(endpoint.stringValue()),
                                     idText(best.tunnelId())};
      if (!context_.style.brief)
        for (const auto& [name, text] : rowFields(best))
          if (name != "endpoint") cells.push_back(name + " " + text);
      columns.row(cells);
      if (context_.style.detail)
        for (const std::string& line : rowDetails(best, hops(rows.front())))
          columns.line(line);
    }
    columns.print(context_.out, context_.style, false);
  }

  // Each fault of a table once, until it is another.
  void tellFaults() {
    std::map<std::string, std::string> faults;
    for (const auto& [table, reason] : rib_.faults())
      faults[str(table.info.mountPath())] = reason;
    for (const auto& [path, reason] : faults)
      if (faults_[path] != reason) log_.note(path, "unreadable", reason);
    faults_ = std::move(faults);
  }

  const Context& context_;
  const MonitorOptions& options_;
  EventLog log_;
  MonitorEnd end_;
  Tables tables_;
  HopWatch hops_;
  Agent::RibView rib_;
  std::optional<IpGenPrefix> within_;
  std::map<IpGenPrefix, Best> best_;
  std::map<std::string, std::string> faults_;
};

}  // namespace

int monitorRib(const Context& context, const MonitorOptions& options) {
  try {
    return RibMonitor(context, options).run();
  } catch (const Kop::Exception& error) {
    throw Failure(error.what());
  }
}

}  // namespace Tunnelctl
