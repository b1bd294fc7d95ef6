#pragma once

#include <map>
#include <memory>
#include <string>
#include <unordered_set>

#include "apps/tunnelctl/Tables.h"

namespace Tunnelctl {

// Tells which rows have got other next hops. A row names only the first of its hops, so it
// stays as it is when they change.
//
// Follows the next hops of all agents, also of those that come later, and of tables that are
// replaced when the server comes back: then of all rows.
class HopWatch {
 public:
  explicit HopWatch(Tables& tables);
  ~HopWatch();
  HopWatch(const HopWatch&) = delete;
  HopWatch& operator=(const HopWatch&) = delete;

  // To be called between two runs of the client; drops what changed before the last call.
  void update();
  // Whether the hops of the agent's row changed since the last but one update().
  bool hasChanged(const std::string& agent,
                  const Tunnel::TunnelTable::TunnelTableEntry& row) const;
  bool anyChanged() const { return anyChanged_; }

 private:
  class Hops;
  Tables& tables_;
  std::map<std::string, std::unique_ptr<Hops>> agents_;
  bool anyChanged_ = false;
};

}  // namespace Tunnelctl
