#pragma once

#include <chrono>
#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include "Hivel/Client.h"
#include "apps/tunnelctl/Rows.h"
#include "apps/tunnelctl/State.h"
#include "apps/tunnelctl/Verbs.h"

namespace Tunnelctl {

// Takes the signals that ask a process to end, as long as it stands: they then make fd()
// readable.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  int fd() const { return fd_; }

 private:
  sigset_t before_{};
  int fd_ = -1;
};

// One change of one row: of a table, or of the best one of an endpoint.
struct RowChange {
  const char* member;  // "row", "best"
  std::string key;     // for people
  Json keyJson;
  // Null when there was, is none.
  const Tunnel::TunnelTable::TunnelTableEntry* before;
  const Tunnel::TunnelTable::TunnelTableEntry* after;
  RowHops hops;  // of the row as it is now
  // Of the row as it was, when others are told; the row may be the same.
  std::optional<RowHops> hopsBefore{};
};

// Prints what a monitor tells: lines for people, or an object on each line.
class EventLog {
 public:
  explicit EventLog(const Context& context) : context_(context) {}

  // Something about a path as a whole, or about all when it is empty.
  void note(const std::string& path, const char* what, const std::string& detail);
  void change(const std::string& path, const Change& change);
  void change(const std::string& path, const RowChange& change);
  void mark();  // what follows are changes
  // The connection to the database was lost, or stands again.
  void connectionIs(Hivel::Client::State state, const std::string& reason);
  U64 changes() const { return changes_; }
  void countChange() { ++changes_; }

  static Json eventOf(const std::string& path, const char* what);
  // One event is one line, whatever the style says of JSON's looks.
  void print(const Json& event);

 private:
  const Context& context_;
  U64 changes_ = 0;
  bool isConnected_ = true;
};

// When a monitor ends: after so many changes, at a time, or when it is asked to.
class MonitorEnd {
 public:
  explicit MonitorEnd(const MonitorOptions& options) : options_(options) {}

  std::chrono::steady_clock::duration elapsed() const;
  bool isOver(const EventLog& log, bool marked) const;
  // Until one of the descriptors is readable, or for so long; empty: without an end.
  // False when asked to stop.
  bool wait(const std::vector<int>& fds, std::optional<std::chrono::milliseconds> limit);

 private:
  const MonitorOptions& options_;
  StopSignals stop_;
  std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

}  // namespace Tunnelctl
