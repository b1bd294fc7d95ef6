#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Hivel/Client.h"
#include "Quarn/Table.h"
#include "apps/agent/Path.h"
#include "apps/agent/Places.h"

namespace Agent {

// Publishes the paths of one source as tunnels: a row in the shared-memory table of the
// path's kind, its next hops, its name, the directory of the agent's tables, and how far the
// source has been followed.
//
// Identifiers   One path has one TunnelId as long as it lives; the index in it is the lowest
//               that is free among its kind, from 1. A path told with the other address
//               family keeps the index and changes the family bit, so it gets a new row.
// Next hops     A path with next hops owns a group of them, numbered from 1; hop i stands
//               under nextHopId(group, i), and the row names hop 0. Numbers of groups that
//               are no longer used are taken again, as late as possible; the table's
//               nextAvailableIndex is the lowest that never was.
// Equal         A path told again as it is writes nothing and notifies nobody.
// Restart       An agent that starts again finds its rows, as tables outlive their writer,
//               and goes on with their identifiers and groups. They are stale until they
//               are told again, as after mark(); sweep() deletes those that were not. A
//               table that the agent's directory does not list, because the database was
//               lost as well, is found when its kind is told the first time.
//
// What readers see   Rows are seen at once, everything else when the database has passed it
//               on. So for a moment a row may name next hops that have not arrived, or one
//               that has gone; hops of one path change one by one, and the name of a path
//               comes after its row and goes after it. Within the database's stream hops
//               are written before the row that names them and deleted after it.
// Lost server   Everything goes on; the client tries again and brings the server to the
//               state of this process. A kind may be told the first time meanwhile. When
//               another agent has taken one of the paths until then, the next call of
//               pathIs, pathDel or sweep says so.
//
// Errors   Hivel::RefusedException names the path and who holds it; Quarn::TableException
//          the table and the process that writes it. Whatever is thrown, the path, its row,
//          its hops and its name are as they were before the call.
// Cost     besides the row and what the entities hold, 8 bytes per path. Names are looked up
//          in the entity of names.
// Threads  one, that of the client. Calls that wait for the server run the client, and so
//          its callbacks; those do not call back in here.
class Publisher {
 public:
  struct Options {
    std::string socketPath{defaultSocketPath};
    std::string agent = "fpm";             // one part of a path
    Quarn::TableOptions table{};           // of tables that are made
    Hivel::milliseconds patience{10'000};  // for one answer of the server
  };

  // Connects, mounts for writing and takes over what an earlier process of the agent left.
  // Blocks up to `patience` per answer.
  //
  // Errors   as above; RefusedException too when no server answers.
  explicit Publisher(Options options);
  // Tables and paths stay, for the next process of the agent. What the server has not got
  // yet is lost; see finish().
  ~Publisher();
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  // For the host's loop: fd(), wants(), process(). What is told here goes out from process().
  Hivel::Client& client();

  // Makes the path, or changes it to what is told. The first path of a kind makes its table,
  // which blocks for the server's answer, unless the server is lost.
  //
  // Errors   as above; Kop::RangeException for a kind without a table, an IPv6 path of a kind
  //          for IPv4 alone, a name that is empty or longer than 128 bytes, more than 256
  //          next hops, or when a kind has no index left (16,777,215 paths).
  TunnelId pathIs(const Path& path);
  bool pathDel(TunnelType type, const Kop::String& name);  // false: there was none

  // The source begins to tell everything again: every path is stale until it is told.
  // BgpLuConvergence says that it is not converged.
  void mark();
  // Deletes the paths that are stale; how many.
  U64 sweep();
  // The source has told everything it has for now. When the server has applied all that was
  // told before, raises the sequence number of the system tunnel RIB, of the coloured one too
  // when SR-TE policies were told, and of BgpLuConvergence, which is converged then. Nothing
  // is raised when mark() comes first.
  void converged();

  // Everything told, and raised by converged(), is handed to the server.
  bool drained() const;
  // Runs the client until the server has applied everything. False when the time is over, or
  // a path was refused.
  bool finish(Hivel::milliseconds timeout);

  // The last call before the end of an agent that is not to leave anything: deletes every
  // path, removes the agent's paths from the database and unlinks its tables.
  // False when the server did not confirm it in time.
  bool withdraw(Hivel::milliseconds timeout);

  U64 pathCount() const;
  U64 pathCount(TunnelType type) const;
  U64 staleCount() const;  // paths that sweep() would delete
  // The identifier of a path; the invalid one when there is none.
  TunnelId idOf(TunnelType type, const Kop::String& name) const;
  // Of the kind's table; none when it has not been made.
  std::optional<Quarn::TableStats> tableStats(TunnelType type) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Agent
