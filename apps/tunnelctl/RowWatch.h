#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "apps/agent/Directory.h"

namespace Tunnelctl {

// Follows the rows of one table in shared memory, which tells nobody: it has to be asked
// again and again. Keeps a copy of all rows to tell what a change changes.
//
// Cost     the bytes of each row and about 80 more; a poll without changes reads one word.
// Errors   Quarn::TableException: the table is not there, or is damaged.
class RowWatch {
 public:
  using Row = Tunnel::TunnelTable::TunnelTableEntry;
  using Sink = std::function<void(U64 key, const Row* before, const Row* after)>;

  bool isAttached() const { return reader_ != nullptr; }
  // Looks at this table from now on, and tells how it differs from what was seen last: at
  // first from nothing.
  void attach(std::unique_ptr<Agent::TableReader> reader, const Sink& sink);
  void detach() { reader_.reset(); }
  // Whether another table may stand in the place of the one that is looked at.
  bool isRemoved() const { return reader_ && reader_->isRemoved(); }

  // Tells what has changed since. False when more has changed than the table remembers: then
  // all rows were compared, and changes in between are lost.
  bool poll(const Sink& sink);
  // Tells the removal of all rows.
  void leave(const Sink& sink);

  U64 count() const { return rows_.size(); }
  void forEach(const std::function<void(U64 key, const Row&)>& visit) const;

 private:
  // The row as it is now; false when a writer is at it, so that it has to be read again.
  bool compare(U64 key, const Sink& sink);
  void compareAll(const Sink& sink);
  void told(U64 key, const Row* now, const Sink& sink);

  std::unique_ptr<Agent::TableReader> reader_;
  std::unordered_map<U64, std::string> rows_;  // as seen last: binary forms by key
  std::vector<U64> changed_;                   // keys to be read
  U64 since_ = 0;
};

}  // namespace Tunnelctl
