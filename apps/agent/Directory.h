#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Hivel/Client.h"
#include "Quarn/Table.h"
#include "Tunnel/TunnelTableHivelTypes.h"
#include "apps/agent/Places.h"

// The reading side of what agents publish.

namespace Agent {

using TableReader = Quarn::TableReader<Tunnel::TunnelTable::TunnelTableEntry>;

// One table that an agent tells of.
struct TableRef {
  std::string agent;
  Tunnel::TunnelTable::TunnelTableInfo info;
  TunnelType type;  // by info.tableType(); invalidTunnel when that names none

  // Whether it has rows in shared memory: all but the tables of next hops.
  bool hasRows() const { return type != Tunnel::TunnelTable::nexthopTunnel; }
  // Whether its rows go into the tunnel RIB.
  bool contributes() const;
};

// The next hops of one row.
struct Hops {
  std::vector<Tunnel::TunnelTable::NexthopTunnelL3Info> infos;  // in the path's order
  // False when the row names a hop that is not there: rows are seen before their hops
  // arrive.
  bool arrived = true;
};
Hops hopsOf(const Tunnel::TunnelTable::NexthopTunnelTable& table,
            const Tunnel::TunnelTable::TunnelTableEntry& row);

// Follows the directories of all agents, and what else they publish when it is asked for.
//
// One-shot:  TableDirectory directory(client, socketPath);
//            directory.wait(timeout);
//            for (const TableRef& table : directory.tables()) ...
// Monitor:   the host's loop runs the client; onChange tells of tables that come and go.
//
// Owner    mounts the paths of Places.h for reading and unmounts them at its end; the client
//          has none of them mounted itself and outlives the directory.
// Threads  that of the client.
class TableDirectory {
 public:
  TableDirectory(Hivel::Client& client, std::string socketPath);
  ~TableDirectory();
  TableDirectory(const TableDirectory&) = delete;
  TableDirectory& operator=(const TableDirectory&) = delete;

  // Whether the directories, and what follow() asked for, have arrived, were refused or do
  // not exist.
  bool settled() const;
  // Runs the client until settled(). False when the time is over or the server is lost.
  bool wait(Hivel::milliseconds timeout);
  // Paths that could not be read, each with the reason.
  std::vector<std::pair<std::string, std::string>> refusals() const;

  std::vector<std::string> agents() const;  // in order
  std::vector<TableRef> tables() const;     // by agent, then table name
  // A table came, went or changed; called from the client's process().
  std::function<void()> onChange;

  // The table's rows.
  // Errors   Kop::RangeException for a table without rows; Quarn::TableException.
  std::unique_ptr<TableReader> open(const TableRef& table) const;

  // What an agent publishes beside its tables. With a million tunnels each is a million
  // entries that somebody sends.
  static constexpr U32 followsNextHops = 1, followsNames = 2, followsConvergence = 4;
  static constexpr U32 followsAll = 7;

  // Begins to read the next hops, names or convergence of an agent; nothing of what it did
  // before. Until they have arrived, the functions below give null. What was there stays
  // while the server is lost.
  // Errors   Kop::RangeException for a name that no agent can have.
  void follow(std::string_view agent, U32 what = followsAll);
  Kop::Ptr<Tunnel::TunnelTable::NexthopTunnelTable> nextHops(
      std::string_view agent) const;
  Kop::Ptr<Tunnel::TunnelTable::ProtocolTunnelNameStatus> names(
      std::string_view agent) const;
  Kop::Ptr<Tunnel::TunnelTable::TunnelConvergence> tunnelConvergence(
      std::string_view agent) const;
  Kop::Ptr<Tunnel::TunnelTable::BgpLuConvergence> bgpLuConvergence(
      std::string_view agent) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The tunnel RIB as a reader sees it: the rows of all tables that contribute to it, by
// endpoint, best first in the order of entries. Rows without an endpoint, or whose
// identifier has another type than their table, are left out.
//
// Cost     some 150 bytes per row; rows themselves are read when asked for. update() costs
//          what changed; a reader that was too slow walks its table again.
// Threads  that of the directory, which outlives it.
class RibView {
 public:
  explicit RibView(TableDirectory& directory);
  ~RibView();
  RibView(const RibView&) = delete;
  RibView& operator=(const RibView&) = delete;

  // Looks at what has changed since the last call: tables that came or went, rows. Gives the
  // endpoints of rows that came, went or changed; each once, in order. Of a table that had
  // to be walked again, those of all rows.
  std::vector<Vantor::IpGenPrefix> update();
  // Tables that could not be read in the last update(), and why. They are tried again.
  const std::vector<std::pair<TableRef, std::string>>& faults() const;

  struct Row {
    const TableRef* table;  // good until the next update()
    Tunnel::TunnelTable::TunnelTableEntry entry;
  };
  U64 endpointCount() const;
  U64 rowCount() const;
  std::vector<Vantor::IpGenPrefix> endpoints() const;  // in order
  // Best first. A row that has changed since update() is given as it is now, in the place
  // that it had; one that has gone, leads elsewhere or changes too fast is left out.
  std::vector<Row> rows(const Vantor::IpGenPrefix& endpoint) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Agent
