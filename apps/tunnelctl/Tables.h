#pragma once

#include <string>
#include <utility>
#include <vector>

#include "apps/agent/Directory.h"
#include "apps/tunnelctl/Rows.h"
#include "apps/tunnelctl/Session.h"

namespace Tunnelctl {

constexpr U32 followsNextHops = Agent::TableDirectory::followsNextHops;
constexpr U32 followsNames = Agent::TableDirectory::followsNames;

// The tables of all agents, for one verb.
//
// Errors   Failure: no server, no answer in time.
class Tables {
 public:
  explicit Tables(const Context& context);

  Agent::TableDirectory& directory() { return directory_; }
  const Agent::TableDirectory& directory() const { return directory_; }
  Session& session() { return session_; }
  // By name, path, or kind of tunnels; a UsageError lists the names that there are.
  Agent::TableRef named(const std::string& name) const;
  // Follows so much of all agents, and waits for it.
  void follow(U32 what);
  void follow(const std::string& agent, U32 what);
  // Of a row of an agent's table, as far as they have arrived.
  RowHops hops(const std::string& agent,
               const Tunnel::TunnelTable::TunnelTableEntry& row) const;
  // Waits a moment for what has not arrived: a row is seen before its next hops are.
  RowHops hopsSoon(const std::string& agent,
                   const Tunnel::TunnelTable::TunnelTableEntry& row);
  // A Failure that names the paths that could not be read, when there are any.
  void needAllRead() const;

 private:
  void settle();

  const Context& context_;
  Session session_;
  Agent::TableDirectory directory_;
};

}  // namespace Tunnelctl
