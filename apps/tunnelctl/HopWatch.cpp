#include "apps/tunnelctl/HopWatch.h"

#include <utility>

#include "apps/agent/Places.h"

namespace Tunnelctl {

using Tunnel::TunnelTable::NexthopTunnelTable;
using Tunnel::TunnelTable::TunnelId;
using Tunnel::TunnelTable::TunnelTableEntry;

class HopWatch::Hops : public Kop::Reactor<NexthopTunnelTable> {
 public:
  explicit Hops(const Kop::Ptr<NexthopTunnelTable>& table) : Reactor(table) {}
  void entryReaction(const TunnelId& hop) override { next_.insert(groupOf(hop)); }

  bool take() {
    changed_ = std::exchange(next_, {});
    all_ = std::exchange(isNew_, false);
    return all_ || !changed_.empty();
  }
  bool hasChanged(const TunnelTableEntry& row) const {
    return all_ || changed_.contains(groupOf(row.nexthopTunnelId()));
  }

 private:
  static U64 groupOf(const TunnelId& hop) {
    return hop.tunnelIndex() / Agent::maxNextHops;
  }

  std::unordered_set<U64> changed_, next_;
  bool isNew_ = true, all_ = false;
};

HopWatch::HopWatch(Tables& tables) : tables_(tables) {}
HopWatch::~HopWatch() = default;

void HopWatch::update() {
  anyChanged_ = false;
  for (const std::string& name : tables_.directory().agents()) {
    tables_.directory().follow(name, followsNextHops);
    const auto table = tables_.directory().nextHops(name);
    if (!table) continue;
    auto& hops = agents_[name];
    if (!hops || hops->notifier() != table) hops = std::make_unique<Hops>(table);
    if (hops->take()) anyChanged_ = true;
  }
}

bool HopWatch::hasChanged(const std::string& agent, const TunnelTableEntry& row) const {
  const auto found = agents_.find(agent);
  return found != agents_.end() && found->second->hasChanged(row);
}

}  // namespace Tunnelctl
