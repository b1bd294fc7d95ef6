#include <algorithm>
#include <set>
#include <unordered_map>

#include "Kop/Exception.h"
#include "apps/agent/Directory.h"

namespace Agent {

using namespace Tunnel::TunnelTable;
using Quarn::RowState;
using Vantor::IpGenPrefix;

namespace {

// What decides the place of a row among those of its endpoint: no two have one identifier,
// so nothing behind it in the order of entries does.
struct Rank {
  TunnelId id;
  TunnelEntryPref pref;
  U32 metric = 0;

  bool operator<(const Rank& other) const { return entry() < other.entry(); }

 private:
  TunnelTableEntry entry() const {
    TunnelTableEntry entry(id, pref);
    entry.entryMetricIs(metric);
    return entry;
  }
};

struct Table {
  struct Known {
    IpGenPrefix endpoint;
    Rank rank;
  };
  TableRef ref;
  std::unique_ptr<TableReader> reader;
  U64 upTo = 0;           // changes up to here were looked at
  std::vector<U64> busy;  // rows that changed too fast to be read, for the next time
  std::unordered_map<U64, Known> known;
};

struct Place {
  Rank rank;
  Table* table;
};

}  // namespace

struct RibView::Impl {
  explicit Impl(TableDirectory& directory) : directory(directory) {}

  void update();
  void follow(Table& table);
  void look(Table& table, U64 key);
  void walk(Table& table);
  void put(Table& table, U64 key, const TunnelTableEntry& row);
  void drop(Table& table, U64 key);
  void dropAll(Table& table);

  TableDirectory& directory;
  std::map<std::string, Table> tables;  // by mount path
  std::map<IpGenPrefix, std::vector<Place>> places;
  U64 rowCount = 0;
  std::set<IpGenPrefix> touched;
  std::vector<std::pair<TableRef, std::string>> faults;
};

void RibView::Impl::update() {
  touched.clear();
  faults.clear();
  // A table belongs to one agent at a time; an older agent's directory may still list it.
  std::map<std::string, TableRef> wanted;
  for (TableRef& ref : directory.tables())
    if (ref.contributes())
      wanted.emplace(std::string(ref.info.mountPath()), std::move(ref));
  for (auto at = tables.begin(); at != tables.end();) {
    const auto found = wanted.find(at->first);
    if (found != wanted.end() && found->second.type == at->second.ref.type) {
      ++at;
      continue;
    }
    dropAll(at->second);
    at = tables.erase(at);
  }
  for (auto& [path, ref] : wanted) {
    Table& table = tables[path];
    table.ref = ref;
    try {
      follow(table);
    } catch (const Kop::Exception& error) {
      faults.emplace_back(table.ref, error.what());
      dropAll(table);
      table.reader.reset();
    }
  }
}

void RibView::Impl::follow(Table& table) {
  // Who makes a removed table anew does so under its name.
  if (!table.reader || table.reader->isRemoved()) {
    table.reader = directory.open(table.ref);
    return walk(table);
  }
  std::vector<U64> keys;
  if (!table.reader->changedSince(table.upTo, keys, table.upTo)) return walk(table);
  keys.insert(keys.end(), table.busy.begin(), table.busy.end());
  table.busy.clear();
  std::sort(keys.begin(), keys.end());
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  for (const U64 key : keys)
    look(table, key);
}

void RibView::Impl::look(Table& table, U64 key) {
  TunnelTableEntry row;
  switch (table.reader->row(key, row)) {
    case RowState::found: return put(table, key, row);
    case RowState::absent: return drop(table, key);
    case RowState::busy: return table.busy.push_back(key);
  }
}

void RibView::Impl::walk(Table& table) {
  table.upTo = table.reader->changeCount();
  table.busy.clear();
  std::unordered_map<U64, bool> isThere;
  for (const auto& [key, known] : table.known)
    isThere[key] = false;
  table.reader->forEachRow([&](U64 key, const TunnelTableEntry& row) {
    if (const auto at = isThere.find(key); at != isThere.end()) at->second = true;
    put(table, key, row);
  });
  // One that was not met may have been written just then.
  for (const auto& [key, met] : isThere)
    if (!met) look(table, key);
}

void RibView::Impl::put(Table& table, U64 key, const TunnelTableEntry& row) {
  const IpGenPrefix endpoint = row.tep();
  const TunnelId id = row.tunnelId();
  if (id.value() != key || id.tunnelType() != table.ref.type || endpoint == IpGenPrefix())
    return drop(table, key);
  const Rank rank{id, row.entryPref(), row.entryMetric()};
  if (const auto at = table.known.find(key); at != table.known.end()) {
    const auto& known = at->second;
    if (known.endpoint == endpoint && !(known.rank < rank) && !(rank < known.rank)) {
      touched.insert(endpoint);
      return;
    }
    drop(table, key);
  }
  auto& there = places[endpoint];
  const auto at = std::upper_bound(
      there.begin(), there.end(), rank,
      [](const Rank& wanted, const Place& place) { return wanted < place.rank; });
  there.insert(at, Place{rank, &table});
  table.known[key] = {endpoint, rank};
  touched.insert(endpoint);
  ++rowCount;
}

void RibView::Impl::drop(Table& table, U64 key) {
  const auto known = table.known.find(key);
  if (known == table.known.end()) return;
  const auto at = places.find(known->second.endpoint);
  std::erase_if(at->second, [&](const Place& place) {
    return place.table == &table && place.rank.id.value() == key;
  });
  touched.insert(at->first);
  if (at->second.empty()) places.erase(at);
  table.known.erase(known);
  --rowCount;
}

void RibView::Impl::dropAll(Table& table) {
  while (!table.known.empty())
    drop(table, table.known.begin()->first);
  table.busy.clear();
}

RibView::RibView(TableDirectory& directory) : impl_(std::make_unique<Impl>(directory)) {}
RibView::~RibView() = default;

std::vector<IpGenPrefix> RibView::update() {
  impl_->update();
  return {impl_->touched.begin(), impl_->touched.end()};
}

const std::vector<std::pair<TableRef, std::string>>& RibView::faults() const {
  return impl_->faults;
}

U64 RibView::endpointCount() const {
  return impl_->places.size();
}
U64 RibView::rowCount() const {
  return impl_->rowCount;
}

std::vector<IpGenPrefix> RibView::endpoints() const {
  std::vector<IpGenPrefix> endpoints;
  endpoints.reserve(impl_->places.size());
  for (const auto& [endpoint, places] : impl_->places)
    endpoints.push_back(endpoint);
  return endpoints;
}

std::vector<RibView::Row> RibView::rows(const IpGenPrefix& endpoint) const {
  std::vector<Row> rows;
  const auto at = impl_->places.find(endpoint);
  if (at == impl_->places.end()) return rows;
  rows.reserve(at->second.size());
  TunnelTableEntry row;
  for (const Place& place : at->second)
    if (place.table->reader->row(place.rank.id.value(), row) == RowState::found &&
        row.tep() == endpoint)
      rows.push_back({&place.table->ref, row});
  return rows;
}

}  // namespace Agent
