#include "apps/agent/Publisher.h"

#include <algorithm>

#include "Hivel/Exception.h"
#include "Kop/Exception.h"
#include "apps/agent/PublisherImpl.h"

namespace Agent {

namespace {

constexpr U32 epochEnd = 1u << Slot::epochBits;

std::string quoted(const Kop::String& name) {
  return std::string(Kop::strepOf(name));
}

}  // namespace

// ---- one path ----

void Publisher::Impl::check(const Path& path) const {
  if (!find(path.type)) tableIdOf(path.type);  // throws for a type without a table
  const auto refuse = [&](const std::string& why) {
    throw Kop::RangeException("path " + quoted(path.name) + " of type " +
                              std::string(valueToStrep(path.type)) + ": " + why);
  };
  if (path.name.empty()) refuse("a path needs a name");
  if (path.name.size() > TunnelTableEntry::maxNameSize)
    refuse("the name has " + std::to_string(path.name.size()) + " bytes, more than " +
           std::to_string(TunnelTableEntry::maxNameSize));
  if (path.nextHops.size() > maxNextHops)
    refuse(std::to_string(path.nextHops.size()) + " next hops, more than " +
           std::to_string(maxNextHops));
  if (path.ipv6 && !hasIpv6(path.type)) refuse("this type is for IPv4 alone");
}

void Publisher::Impl::checkHeld() const {
  if (isWithdrawn)
    throw Kop::InternalException("agent '" + options.agent + "' has withdrawn");
  if (!refusal.empty()) throw Hivel::RefusedException(refusal);
}

TunnelTableEntry Publisher::Impl::rowOf(const Kind& kind,
                                        const Path& path,
                                        TunnelId id,
                                        U32 group) {
  TunnelTableEntry row(
      id, TunnelEntryPref(TunnelEntryPref::getDefaultPrefForType(kind.type)));
  if (group != 0) row.nexthopTunnelIdIs(nextHopId(group, 0));
  row.entryMetricIs(path.metric);
  row.tunnelBwIs(TunnelBandwidth(path.bandwidth));
  if (path.endpoint != Vantor::IpGenPrefix()) row.tepIs(path.endpoint);
  row.setName(path.name);
  return row;
}

TunnelId Publisher::Impl::add(Kind& kind, const Path& path) {
  const U32 index = kind.indices.nextFree();
  if (index == 0)
    throw Kop::RangeException("no index is left for tunnels of type " +
                              std::string(valueToStrep(kind.type)));
  if (index >= kind.slots.size()) kind.slots.resize(index + 1);
  const TunnelId id = kind.idOf(index, path.ipv6);
  const U32 group = path.nextHops.empty() ? 0 : groupTake();
  bool hasRow = false;
  try {
    hopsAre(path, group);
    kind.rows.rowIs(id.value(), rowOf(kind, path, id, group));
    hasRow = true;
    kind.names->addTunnelIdNamePair(id, path.name);
    kind.indices.take(index);
  } catch (...) {
    hopsUndo(group);
    groupFree(group);
    kind.names->tunnelNameToIdDel(path.name);
    kind.names->tunnelIdToNameDel(id);
    kind.names->tunnelIdNamePairDel(TunnelIdNamePair(id, path.name));
    if (hasRow) kind.rows.rowDel(id.value());
    throw;
  }
  Slot& slot = kind.slots[index];
  slot.group = group;
  slot.hopCount = static_cast<U32>(path.nextHops.size());
  slot.ipv6 = path.ipv6;
  slot.epoch = 0;
  fresh(kind, slot);
  return id;
}

TunnelId Publisher::Impl::change(Kind& kind, const TunnelId& was, const Path& path) {
  const U32 index = static_cast<U32>(was.tunnelIndex());
  Slot& slot = kind.slots[index];
  const TunnelId id = kind.idOf(index, path.ipv6);
  const U32 hopCount = static_cast<U32>(path.nextHops.size());
  const bool takesGroup = hopCount > 0 && slot.group == 0;
  const U32 group = hopCount == 0 ? 0 : takesGroup ? groupTake() : slot.group;
  try {
    hopsAre(path, group);
    kind.rows.rowIs(id.value(), rowOf(kind, path, id, group));
    if (id != was) {
      kind.names->delTunnelIdNamePair(was);
      kind.names->addTunnelIdNamePair(id, path.name);
      kind.rows.rowDel(was.value());
    }
  } catch (...) {
    if (id != was) {
      kind.rows.rowDel(id.value());
      kind.names->delTunnelIdNamePair(id);
      kind.names->addTunnelIdNamePair(was, path.name);
    }
    hopsUndo(group);
    if (takesGroup) groupFree(group);
    throw;
  }
  if (hopCount < slot.hopCount) hopsDel(slot.group, hopCount, slot.hopCount);
  if (group == 0) groupFree(slot.group);
  slot.group = group;
  slot.hopCount = hopCount;
  slot.ipv6 = path.ipv6;
  fresh(kind, slot);
  return id;
}

// Row first, so that no row names hops that are gone; the rest cannot fail.
void Publisher::Impl::remove(Kind& kind, U32 index) {
  const Slot slot = kind.slots[index];
  const TunnelId id = kind.idOf(index, slot.ipv6);
  kind.rows.rowDel(id.value());
  kind.names->delTunnelIdNamePair(id);
  hopsDel(slot.group, 0, slot.hopCount);
  groupFree(slot.group);
  if (slot.epoch == epoch) --kind.freshCount;
  kind.slots[index] = Slot();
  kind.indices.free(index);
}

void Publisher::Impl::fresh(Kind& kind, Slot& slot) {
  if (slot.epoch == epoch) return;
  slot.epoch = epoch & (epochEnd - 1);
  ++kind.freshCount;
}

// ---- its next hops ----

// Writes what differs and remembers what it replaced. Hops beyond these stay, since the row
// that is there may still name them.
void Publisher::Impl::hopsAre(const Path& path, U32 group) {
  replaced.clear();
  U32 hop = 0;
  for (const NextHop& nextHop : path.nextHops) {
    NexthopTunnelL3Info info;
    info.groupTypeIs(Tunnel::TunnelTable::mpls);
    info.destinationIpIs(nextHop.address);
    info.l3IntfIs(nextHop.intf);
    info.mplsLabelStackIs(nextHop.labels);
    const TunnelId id = nextHopId(group, hop);
    const auto* const node = nexthops->entry().find(id);
    if (!node || !(node->value == info)) {
      replaced.emplace_back(hop, node ? std::optional(node->value) : std::nullopt);
      nexthops->entryIs(id, info);
    }
    ++hop;
  }
}

void Publisher::Impl::hopsUndo(U32 group) {
  for (auto at = replaced.rbegin(); at != replaced.rend(); ++at) {
    if (at->second)
      nexthops->entryIs(nextHopId(group, at->first), *at->second);
    else
      nexthops->entryDel(nextHopId(group, at->first));
  }
  replaced.clear();
}

void Publisher::Impl::hopsDel(U32 group, U32 from, U32 end) {
  while (end > from)
    nexthops->entryDel(nextHopId(group, --end));
}

// Numbers go round, so that one that was freed is taken again late: until a reader has heard
// that its hops are gone, a new row that names it would show them.
U32 Publisher::Impl::groupTake() {
  U32 group = groups.nextFree(groupNext);
  if (group == 0 || group >= groups.end()) group = groups.nextFree(1);
  if (group == 0) throw Kop::RangeException("no group of next hops is left");
  groups.take(group);
  groupNext = group + 1;
  if (nexthops->nextAvailableIndex() < groups.end())
    nexthops->nextAvailableIndexIs(groups.end());
  return group;
}

void Publisher::Impl::groupFree(U32 group) {
  if (group != 0) groups.free(group);
}

void Publisher::Impl::raise() {
  ++sequence;
  tunnelConvergence->tunnelRibConvergenceSeqnoIs(
      TunnelRibId(TunnelRibId::systemTunnelRibId), sequence);
  if (find(srTePolicyTunnel))
    tunnelConvergence->tunnelRibConvergenceSeqnoIs(
        TunnelRibId(TunnelRibId::systemColoredTunnelRibId), sequence);
  bgpLuConvergence->bgpLuConvergenceSeqnoIs(sequence);
  bgpLuConvergence->bgpLuConvergedIs(true);
}

// ---- what the application calls ----

Publisher::Publisher(Options options)
    : impl_(std::make_unique<Impl>(std::move(options))) {}
Publisher::~Publisher() = default;

Hivel::Client& Publisher::client() {
  return impl_->client;
}

TunnelId Publisher::pathIs(const Path& path) {
  impl_->checkHeld();
  impl_->check(path);
  Kind& kind = impl_->kindOf(path.type);
  const auto* const node = kind.names->tunnelNameToId().find(path.name);
  return node ? impl_->change(kind, TunnelId(node->value), path) : impl_->add(kind, path);
}

bool Publisher::pathDel(TunnelType type, const Kop::String& name) {
  impl_->checkHeld();
  Kind* const kind = impl_->find(type);
  const auto* const node = kind ? kind->names->tunnelNameToId().find(name) : nullptr;
  if (!node) return false;
  impl_->remove(*kind, static_cast<U32>(node->value.tunnelIndex()));
  return true;
}

void Publisher::mark() {
  impl_->checkHeld();
  ++impl_->generation;
  for (auto& kind : impl_->kinds)
    if (kind) kind->freshCount = 0;
  // No path has been told in the epoch that begins, so when its number is used up all go
  // back to never.
  if (++impl_->epoch == epochEnd) {
    for (auto& kind : impl_->kinds)
      if (kind)
        for (Slot& slot : kind->slots)
          slot.epoch = 0;
    impl_->epoch = 1;
  }
  impl_->bgpLuConvergence->bgpLuConvergedIs(false);
}

U64 Publisher::sweep() {
  impl_->checkHeld();
  U64 count = 0;
  for (auto& kind : impl_->kinds) {
    if (!kind || kind->freshCount == kind->indices.count()) continue;
    for (U32 index = 1; index < kind->slots.size(); ++index) {
      if (!kind->indices.has(index) || kind->slots[index].epoch == impl_->epoch) continue;
      impl_->remove(*kind, index);
      ++count;
    }
  }
  return count;
}

void Publisher::converged() {
  impl_->checkHeld();
  ++impl_->toRaise;
  impl_->client.sync([impl = impl_.get(), told = impl_->generation](bool applied) {
    --impl->toRaise;
    if (applied && told == impl->generation) impl->raise();
  });
}

bool Publisher::drained() const {
  return impl_->toRaise == 0 && impl_->client.drained();
}

bool Publisher::finish(milliseconds timeout) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + timeout;
  if (!impl_->client.wait([&] { return impl_->toRaise == 0; }, timeout)) return false;
  const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
  return impl_->client.syncAndWait(std::max(left, milliseconds(0)));
}

bool Publisher::withdraw(milliseconds timeout) {
  impl_->checkHeld();
  std::vector<std::string> paths = {
      tableInfoPath(impl_->options.agent), nexthopTablePath(impl_->options.agent),
      tunnelNamePath(impl_->options.agent), tunnelConvergencePath(impl_->options.agent),
      bgpLuConvergencePath(impl_->options.agent)};
  impl_->isWithdrawn = true;
  ++impl_->generation;
  impl_->tableInfo->tableInfoDelAll();  // readers let go of the tables
  for (auto& kind : impl_->kinds) {
    if (!kind) continue;
    paths.push_back(tablePath(std::string(tableNameOf(kind->type))));
    kind->rows.rowDelAll();
    TableWriter::remove(kind->rows.name());
    kind.reset();
  }
  for (const std::string& path : paths)
    impl_->client.unmount(path, true);
  return impl_->client.wait([&] { return impl_->client.drained(); }, timeout);
}

U64 Publisher::pathCount() const {
  U64 count = 0;
  for (const auto& kind : impl_->kinds)
    if (kind) count += kind->indices.count();
  return count;
}

U64 Publisher::pathCount(TunnelType type) const {
  const Kind* const kind = impl_->find(type);
  return kind ? kind->indices.count() : 0;
}

U64 Publisher::staleCount() const {
  U64 count = 0;
  for (const auto& kind : impl_->kinds)
    if (kind) count += kind->indices.count() - kind->freshCount;
  return count;
}

TunnelId Publisher::idOf(TunnelType type, const Kop::String& name) const {
  const Kind* const kind = impl_->find(type);
  return kind ? kind->names->tunnelNameToId(name) : TunnelId();
}

std::optional<Quarn::TableStats> Publisher::tableStats(TunnelType type) const {
  const Kind* const kind = impl_->find(type);
  return kind ? std::optional(kind->rows.stats()) : std::nullopt;
}

}  // namespace Agent
