#include <algorithm>

#include "Hivel/Exception.h"
#include "Kop/Exception.h"
#include "apps/agent/PublisherImpl.h"

// How a publisher comes by its paths and tables: what it mounts, and what it takes over from
// the process before it. That one may have ended at any point, and the rows in shared memory
// are ahead of what the database has got of it, so the rows decide: names and next hops are
// made to fit them.

namespace Agent {

// ---- mounts ----

Publisher::Impl::Impl(Options&& given)
    : options(std::move(given)), client([&] {
        Hivel::ClientOptions wanted;
        wanted.socketPath = options.socketPath;
        wanted.name = options.agent;
        return wanted;
      }()) {
  using Mode = Hivel::Mode;
  const std::string& agent = options.agent;
  const Kop::String name(agent);
  client.wait([&] { return client.state() != Hivel::Client::State::connecting; },
              options.patience);
  tableInfo =
      mount(tableInfoPath(agent), Mode::adopt, tunnelTableInfoCollectionFactory(name));
  nexthops = mount(nexthopTablePath(agent), Mode::adopt,
                   nexthopTunnelTableFactory(nexthopTableName(agent)));
  names =
      mount(tunnelNamePath(agent), Mode::adopt, protocolTunnelNameStatusFactory(name));
  tunnelConvergence =
      mount(tunnelConvergencePath(agent), Mode::adopt, tunnelConvergenceFactory(name));
  bgpLuConvergence =
      mount(bgpLuConvergencePath(agent), Mode::adopt, bgpLuConvergenceFactory(name));
  recover();
}

void Publisher::Impl::watch(Hivel::Mount& mount) {
  mount.onState = [this](Hivel::Mount& changed) {
    if (changed.state() == Hivel::Mount::State::refused)
      refusal = "path '" + changed.path() + "': " + changed.reason();
  };
}

// Waits until the path is ours. When the server is lost on the way, a path that replaces what
// is there is left to be mounted later; what is adopted must be there.
template <class T>
Kop::Ptr<T> Publisher::Impl::mount(const std::string& path,
                                   Hivel::Mode mode,
                                   Kop::Ptr<T> entity) {
  using State = Hivel::Client::State;
  Hivel::MountOptions given;
  given.entity = entity;
  Hivel::Mount& mounted = client.mount(path, mode, std::move(given));
  const auto isLost = [&] { return client.state() != State::connected; };
  const bool answered =
      client.wait([&] { return mounted.settled() || isLost(); }, options.patience);
  if (mounted.state() != Hivel::Mount::State::live &&
      !(isLost() && mode == Hivel::Mode::replace)) {
    const std::string why =
        mounted.state() == Hivel::Mount::State::refused ? mounted.reason()
        : isLost()
            ? "no server at " + options.socketPath +
                  (client.reason().empty() ? std::string() : ": " + client.reason())
        : answered ? "not mounted"
                   : "no answer in " + std::to_string(options.patience.count()) + " ms";
    client.unmount(path);
    throw Hivel::RefusedException("path '" + path + "': " + why);
  }
  watch(mounted);
  return entity;
}

Kind& Publisher::Impl::kindOf(TunnelType type) {
  if (auto& kind = kinds[type]) return *kind;
  kinds[type] = open(type);
  const TunnelTableInfo info(tableNameOf(type), tableTypeOf(type));
  if (!(tableInfo->tableInfo(info.tableName()) == info)) {
    tableInfo->tableInfoIs(info);
    // An agent that starts again finds its tables by the directory, so it is to know of this
    // one before there are rows in it.
    client.wait(
        [&] {
          return client.drained() || client.state() != Hivel::Client::State::connected;
        },
        options.patience);
  }
  return *kinds[type];
}

// The path first: a refusal names the agent that has the table.
std::unique_ptr<Kind> Publisher::Impl::open(TunnelType type) {
  const Kop::String tableName = tableNameOf(type);
  const std::string path = tablePath(std::string_view(tableName));
  const auto base = tunnelTableBaseFactory(tableName);
  base->tableTypeIs(type);
  base->tunnelTableIdIs(tableIdOf(type));
  mount(path, Hivel::Mode::replace, base);
  try {
    auto kind =
        std::make_unique<Kind>(type, shmName(options.socketPath, path), options.table);
    kind->names = names->localTunnelNameStatusIs(type);
    adopt(*kind);
    return kind;
  } catch (...) {
    client.unmount(path);
    throw;
  }
}

// ---- what an earlier process left ----

void Publisher::Impl::recover() {
  nexthops->tableTypeIs(nexthopTunnel);
  for (const auto& node : tunnelConvergence->tunnelRibConvergenceSeqno())
    sequence = std::max(sequence, node.value);
  sequence = std::max(sequence, bgpLuConvergence->bgpLuConvergenceSeqno());
  bgpLuConvergence->bgpLuConvergedIs(false);

  const TunnelTableInfo own(nexthopTableName(options.agent), tableTypeOf(nexthopTunnel));
  for (auto it = tableInfo->tableInfoIterator(); it; it.advance()) {
    const Kop::String tableName = it.key();
    const TunnelTableInfo info = tableInfo->tableInfo(tableName);
    const TunnelType type = typeOfTable(info.tableType());
    if (info == own) continue;
    if (hasTable(type) && info == TunnelTableInfo(tableNameOf(type), tableTypeOf(type)))
      kindOf(type);
    else
      tableInfo->tableInfoDel(tableName);
  }
  tableInfo->tableInfoIs(own);
  for (auto it = names->localTunnelNameStatusIterator(); it; it.advance()) {
    const TunnelType type = it.key();
    if (!find(type)) names->localTunnelNameStatusDel(type);
  }
  orphansDel();
  const U32 next = nexthops->nextAvailableIndex();
  if (next < groups.end() || next >= IndexPool::limit)
    nexthops->nextAvailableIndexIs(groups.end());
}

// Takes the rows of a table that was made before. What no path can have is deleted: a row
// whose bytes are no entry, whose identifier is not its key or of another type, or whose index
// or name is another's.
void Publisher::Impl::adopt(Kind& kind) {
  kind.rows.rowDelUnreadable();
  std::vector<U64> own, foreign;
  kind.rows.forEachRow([&](U64 key, const TunnelTableEntry& row) {
    const TunnelId id = row.tunnelId();
    const U64 index = id.tunnelIndex();
    const bool ipv6 = (id.value() & TunnelIdConstants::tunnelAfMask) != 0;
    if (id.value() == key && index < IndexPool::limit && !row.name().empty() &&
        id == kind.idOf(static_cast<U32>(index), ipv6) &&
        kind.indices.take(static_cast<U32>(index)))
      own.push_back(key);
    else
      foreign.push_back(key);
  });
  for (const U64 key : foreign)
    kind.rows.rowDel(key);
  kind.slots.resize(kind.indices.end());
  namesPrune(kind);
  for (const U64 key : own)
    adoptRow(kind, TunnelId(key));
}

// Leaves the names that a row has as well, in each of the three collections by itself: the
// process before may have ended between two of them.
void Publisher::Impl::namesPrune(Kind& kind) {
  TunnelTableEntry row;
  const auto isNamed = [&](const TunnelId& id, const Kop::String& name) {
    return kind.rows.row(id.value(), row) && row.getName() == name;
  };
  TunnelNameStatus& status = *kind.names;
  for (auto it = status.tunnelNameToIdIterator(); it; it.advance())
    if (!isNamed(status.tunnelNameToId(it.key()), it.key()))
      status.tunnelNameToIdDel(it.key());
  for (auto it = status.tunnelIdToNameIterator(); it; it.advance())
    if (!isNamed(it.key(), status.tunnelIdToName(it.key())))
      status.tunnelIdToNameDel(it.key());
  for (auto it = status.tunnelIdNamePairIterator(); it; it.advance())
    if (!isNamed(it.key().tunnelId(), it.key().tunnelName()))
      status.tunnelIdNamePairDel(it.key());
}

void Publisher::Impl::adoptRow(Kind& kind, TunnelId id) {
  TunnelTableEntry row;
  if (!kind.rows.row(id.value(), row)) return;
  const U32 index = static_cast<U32>(id.tunnelIndex());
  const Kop::String name = row.getName();
  TunnelNameStatus& status = *kind.names;
  if (const auto* const node = status.tunnelNameToId().find(name);
      node && node->value != id) {
    status.tunnelIdToNameDel(id);
    status.tunnelIdNamePairDel(TunnelIdNamePair(id, name));
    kind.rows.rowDel(id.value());
    kind.indices.free(index);
    return;
  }
  status.tunnelNameToIdIs(name, id);
  status.tunnelIdToNameIs(id, name);
  status.tunnelIdNamePairIs(TunnelIdNamePair(id, name));

  Slot& slot = kind.slots[index];
  slot.ipv6 = id != kind.idOf(index, false);
  const TunnelId first = row.nexthopTunnelId();
  if (first == TunnelId()) return;
  const U32 group = groupOf(first);
  if (hopOf(first) != 0 || !groups.take(group)) {
    row.nexthopTunnelIdIs(TunnelId());
    kind.rows.rowIs(id.value(), row);
    return;
  }
  slot.group = group;
  U32 hopCount = 0;
  while (hopCount < maxNextHops && nexthops->entryHas(nextHopId(group, hopCount)))
    ++hopCount;
  slot.hopCount = hopCount;
}

// Deletes next hops that no row leads to.
void Publisher::Impl::orphansDel() {
  std::vector<U16> hopCounts(groups.end());
  for (const auto& kind : kinds)
    if (kind)
      for (const Slot& slot : kind->slots)
        hopCounts[slot.group] = slot.hopCount;
  hopCounts[0] = 0;
  for (auto it = nexthops->entryIterator(); it; it.advance()) {
    const TunnelId id = it.key();
    const U32 group = groupOf(id);
    if (group >= hopCounts.size() || hopOf(id) >= hopCounts[group])
      nexthops->entryDel(id);
  }
}

}  // namespace Agent
