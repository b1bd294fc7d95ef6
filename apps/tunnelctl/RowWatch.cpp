#include "apps/tunnelctl/RowWatch.h"

#include <algorithm>
#include <unordered_set>

#include "apps/tunnelctl/Rows.h"

namespace Tunnelctl {

void RowWatch::attach(std::unique_ptr<Agent::TableReader> reader, const Sink& sink) {
  reader_ = std::move(reader);
  changed_.clear();
  // What changes during the walk comes again with the first poll.
  since_ = reader_->changeCount();
  compareAll(sink);
}

bool RowWatch::poll(const Sink& sink) {
  if (!reader_) return true;
  bool complete = true;
  if (reader_->changeCount() != since_) {
    std::vector<U64> keys;
    U64 upTo = since_;
    complete = reader_->changedSince(since_, keys, upTo);
    since_ = upTo;
    changed_.insert(changed_.end(), keys.begin(), keys.end());
  }
  if (!complete) {
    changed_.clear();
    compareAll(sink);
    return false;
  }
  // Of a key that stands several times only the last state is there to be seen.
  std::unordered_set<U64> seen;
  std::vector<U64> keys;
  for (std::size_t i = changed_.size(); i-- > 0;)
    if (seen.insert(changed_[i]).second) keys.push_back(changed_[i]);
  changed_.clear();
  for (std::size_t i = keys.size(); i-- > 0;)
    if (!compare(keys[i], sink)) changed_.push_back(keys[i]);
  return true;
}

bool RowWatch::compare(U64 key, const Sink& sink) {
  Row row;
  switch (reader_->row(key, row)) {
    case Quarn::RowState::busy: return false;
    case Quarn::RowState::found: told(key, &row, sink); break;
    case Quarn::RowState::absent: told(key, nullptr, sink); break;
  }
  return true;
}

void RowWatch::compareAll(const Sink& sink) {
  std::unordered_set<U64> present;
  reader_->forEachRow([&](U64 key, const Row& row) {
    present.insert(key);
    told(key, &row, sink);
  });
  std::vector<U64> gone;
  for (const auto& [key, bytes] : rows_)
    if (!present.contains(key)) gone.push_back(key);
  // A row may have come or changed behind the walk: what counts is the row itself.
  std::sort(gone.begin(), gone.end());
  for (const U64 key : gone)
    if (!compare(key, sink)) changed_.push_back(key);
}

void RowWatch::told(U64 key, const Row* now, const Sink& sink) {
  const auto known = rows_.find(key);
  const bool was = known != rows_.end();
  if (!was && !now) return;
  const std::string bytes = now ? packed(*now) : "";
  if (was && now && known->second == bytes) return;
  std::optional<Row> before;
  if (was) before = unpacked(known->second);
  if (now)
    rows_[key] = bytes;
  else
    rows_.erase(known);
  sink(key, before ? &*before : nullptr, now);
}

void RowWatch::leave(const Sink& sink) {
  std::vector<U64> keys;
  for (const auto& [key, bytes] : rows_)
    keys.push_back(key);
  std::sort(keys.begin(), keys.end());
  for (const U64 key : keys)
    told(key, nullptr, sink);
}

void RowWatch::forEach(const std::function<void(U64 key, const Row&)>& visit) const {
  for (const auto& [key, bytes] : rows_)
    visit(key, unpacked(bytes));
}

}  // namespace Tunnelctl
