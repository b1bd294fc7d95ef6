#include "apps/agent/Directory.h"

#include <algorithm>

#include "Hivel/Exception.h"
#include "Kop/Exception.h"

namespace Agent {

using namespace Tunnel::TunnelTable;

bool TableRef::contributes() const {
  return contributeToTunnelRib(type);
}

Hops hopsOf(const NexthopTunnelTable& table, const TunnelTableEntry& row) {
  Hops hops;
  const TunnelId first = row.nexthopTunnelId();
  if (!first.isValid()) return hops;
  const U32 group = groupOf(first);
  for (U32 hop = hopOf(first); group != 0 && hop < maxNextHops; ++hop) {
    const auto* const node = table.entry().find(nextHopId(group, hop));
    if (!node) break;
    hops.infos.push_back(node->value);
  }
  hops.arrived = !hops.infos.empty();
  return hops;
}

namespace {

// A path that is read.
struct Read {
  Kop::Ptr<Kop::Entity> entity;
  bool hasArrived = false;
};

}  // namespace

struct TableDirectory::Impl {
  // Tells of one agent's tables.
  struct Collection : Kop::Reactor<TunnelTableInfoCollection> {
    Collection(Impl& impl, const Kop::Ptr<TunnelTableInfoCollection>& entity)
        : Reactor(entity), impl(impl) {}
    void tableInfoReaction(const Kop::String&) override { impl.changed(); }
    Impl& impl;
  };

  Impl(TableDirectory& owner, Hivel::Client& client, std::string&& socketPath)
      : owner(owner), client(client), socketPath(std::move(socketPath)) {
    // What the client still has to call when this has gone finds the token gone.
    const std::weak_ptr<int> alive = token;
    watchId = client.watch(tableInfoPrefix,
                           [this, alive](const Hivel::PathInfo& path, bool appeared) {
                             if (alive.lock()) pathIs(path, appeared);
                           });
    client.list(tableInfoPrefix, [this, alive](const auto&) {
      if (alive.lock()) isListed = true;
    });
  }
  ~Impl() {
    client.unwatch(watchId);
    collections.clear();
    for (const auto& [path, read] : reads)
      client.unmount(path);
  }

  void changed() {
    if (owner.onChange) owner.onChange();
  }

  void pathIs(const Hivel::PathInfo& path, bool appeared) {
    const std::string agent(agentOfTableInfoPath(path.path));
    if (agent.empty()) return;
    if (appeared) {
      const auto entity = tunnelTableInfoCollectionFactory(agent);
      if (read(path.path, entity))
        collections[agent] = std::make_unique<Collection>(*this, entity);
    } else {
      refusals.erase(path.path);
      collections.erase(agent);
      if (reads.erase(path.path) != 0) client.unmount(path.path);
    }
    changed();
  }

  // Mounts a path. A client's callback must not throw, so what cannot be mounted is noted.
  bool read(const std::string& path, const Kop::Ptr<Kop::Entity>& entity) {
    refusals.erase(path);
    try {
      Hivel::MountOptions options;
      options.entity = entity;
      Hivel::Mount& mount = client.mount(path, Hivel::Mode::read, std::move(options));
      reads[path].entity = entity;
      mount.onState = [this](Hivel::Mount& of) {
        if (of.state() == Hivel::Mount::State::live) reads[of.path()].hasArrived = true;
        if (of.state() == Hivel::Mount::State::refused) refusals[of.path()] = of.reason();
      };
      return true;
    } catch (const Kop::Exception& error) {
      refusals[path] = error.what();
      return false;
    }
  }

  template <class T>
  Kop::Ptr<T> arrived(const std::string& path) const {
    const auto at = reads.find(path);
    if (at == reads.end() || !at->second.hasArrived) return nullptr;
    return Kop::Ptr<T>(static_cast<T*>(at->second.entity.get()));
  }

  TableDirectory& owner;
  Hivel::Client& client;
  const std::string socketPath;
  std::shared_ptr<int> token = std::make_shared<int>();
  Hivel::Client::WatchId watchId = 0;
  bool isListed = false;
  std::map<std::string, Read> reads;                               // by path
  std::map<std::string, std::string> refusals;                     // by path
  std::map<std::string, std::unique_ptr<Collection>> collections;  // by agent
};

TableDirectory::TableDirectory(Hivel::Client& client, std::string socketPath)
    : impl_(std::make_unique<Impl>(*this, client, std::move(socketPath))) {}
TableDirectory::~TableDirectory() = default;

bool TableDirectory::settled() const {
  if (!impl_->isListed) return false;
  using State = Hivel::Mount::State;
  return std::all_of(impl_->reads.begin(), impl_->reads.end(), [&](const auto& read) {
    const Hivel::Mount* const mount = impl_->client.find(read.first);
    return !mount || mount->settled() || mount->state() == State::waiting;
  });
}

bool TableDirectory::wait(Hivel::milliseconds timeout) {
  using State = Hivel::Client::State;
  const auto isLost = [&] {
    const State state = impl_->client.state();
    return state == State::lost || state == State::refused;
  };
  impl_->client.wait([&] { return settled() || isLost(); }, timeout);
  return settled() && !isLost();
}

std::vector<std::pair<std::string, std::string>> TableDirectory::refusals() const {
  return {impl_->refusals.begin(), impl_->refusals.end()};
}

std::vector<std::string> TableDirectory::agents() const {
  std::vector<std::string> agents;
  for (const auto& [agent, collection] : impl_->collections)
    agents.push_back(agent);
  return agents;
}

std::vector<TableRef> TableDirectory::tables() const {
  std::vector<TableRef> tables;
  for (const auto& [agent, collection] : impl_->collections) {
    const std::size_t first = tables.size();
    for (const auto& node : collection->notifier()->tableInfo())
      tables.push_back({agent, node.value, typeOfTable(node.value.tableType())});
    std::sort(tables.begin() + static_cast<std::ptrdiff_t>(first), tables.end(),
              [](const TableRef& a, const TableRef& b) {
                return std::string_view(a.info.tableName()) <
                       std::string_view(b.info.tableName());
              });
  }
  return tables;
}

std::unique_ptr<TableReader> TableDirectory::open(const TableRef& table) const {
  if (!table.hasRows())
    throw Kop::RangeException("table " + std::string(table.info.tableName()) +
                              " has no rows in shared memory: it is an entity");
  return std::make_unique<TableReader>(
      shmName(impl_->socketPath, std::string_view(table.info.mountPath())));
}

void TableDirectory::follow(std::string_view agent, U32 what) {
  const Kop::String name(agent);
  const auto read = [&](const std::string& path, auto factory) {
    if (!impl_->reads.contains(path)) impl_->read(path, factory(name));
  };
  if (what & followsNextHops) read(nexthopTablePath(agent), nexthopTunnelTableFactory);
  if (what & followsNames) read(tunnelNamePath(agent), protocolTunnelNameStatusFactory);
  if ((what & followsConvergence) == 0) return;
  read(tunnelConvergencePath(agent), tunnelConvergenceFactory);
  read(bgpLuConvergencePath(agent), bgpLuConvergenceFactory);
}

Kop::Ptr<NexthopTunnelTable> TableDirectory::nextHops(std::string_view agent) const {
  return impl_->arrived<NexthopTunnelTable>(nexthopTablePath(agent));
}
Kop::Ptr<ProtocolTunnelNameStatus> TableDirectory::names(std::string_view agent) const {
  return impl_->arrived<ProtocolTunnelNameStatus>(tunnelNamePath(agent));
}
Kop::Ptr<TunnelConvergence> TableDirectory::tunnelConvergence(
    std::string_view agent) const {
  return impl_->arrived<TunnelConvergence>(tunnelConvergencePath(agent));
}
Kop::Ptr<BgpLuConvergence> TableDirectory::bgpLuConvergence(
    std::string_view agent) const {
  return impl_->arrived<BgpLuConvergence>(bgpLuConvergencePath(agent));
}

}  // namespace Agent
