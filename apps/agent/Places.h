#pragma once

#include <string>
#include <string_view>

#include "Hivel/SharedMemory.h"
#include "Kop/String.h"
#include "Tunnel/TunnelBasicTypes.h"

// Where a routing agent's state lives: paths of the state database, names of tables, and the
// shared memory that holds a table's rows. Writers and readers both ask here.
//
//   tunnel/tableInfo/<agent>          TunnelTableInfoCollection: the tables of that agent
//   tunnel/table/<table name>         TunnelTableBase of a table whose rows are in shared memory
//   tunnel/table/nexthopTunnelTable-<agent>
//                                     NexthopTunnelTable: the next hops of all its tables
//   tunnel/tunnelName/<agent>         ProtocolTunnelNameStatus
//   tunnel/tunnelConvergence/<agent>  TunnelConvergence
//   tunnel/bgpLuConvergence/<agent>   BgpLuConvergence

namespace Agent {

using Tunnel::TunnelTable::TunnelId;
using Tunnel::TunnelTable::TunnelTableIdentifier;
using Tunnel::TunnelTable::TunnelType;

using Hivel::defaultSocketPath;
using Hivel::shmName;

inline constexpr std::string_view tableInfoPrefix = "tunnel/tableInfo";

// Paths. An agent's name is one part of a path.
// Errors   Kop::RangeException for a name that is none.
std::string tableInfoPath(std::string_view agent);
std::string tablePath(std::string_view tableName);
std::string nexthopTablePath(std::string_view agent);
std::string tunnelNamePath(std::string_view agent);
std::string tunnelConvergencePath(std::string_view agent);
std::string bgpLuConvergencePath(std::string_view agent);

// The agent of "tunnel/tableInfo/<agent>"; empty for a path of another form.
std::string_view agentOfTableInfoPath(std::string_view path);

std::string nexthopTableName(std::string_view agent);

// Kinds of tunnels that are labelled paths and have a table of their own: what an agent can
// publish.
bool hasTable(TunnelType type);
// Errors   Kop::RangeException that names the type, when it has no table.
TunnelTableIdentifier tableIdOf(TunnelType type);
Kop::String tableNameOf(TunnelType type);  // "srTunnelTable"
Kop::String tableTypeOf(TunnelType type);  // "srTunnel"
// The type that a table's description names; invalidTunnel when it names none.
TunnelType typeOfTable(const Kop::String& tableType);

// Whether identifiers of the type may have the family bit.
bool hasIpv6(TunnelType type);

// ---- next hops of a path ----

inline constexpr U32 maxNextHops = 256;  // of one path

// Hop `hop` of group `group`: entries 0 to k-1 of a group are the k next hops of one path.
// Errors   an assertion when hop is not below maxNextHops.
TunnelId nextHopId(U32 group, U32 hop);
// The group of a next hop's identifier; 0, which is no group, for any other identifier.
U32 groupOf(const TunnelId& nextHop);
inline U32 hopOf(const TunnelId& nextHop) {
  return static_cast<U32>(nextHop.value() & (maxNextHops - 1));
}

}  // namespace Agent
