#include "apps/linuximport/Tables.h"

#include <vector>

namespace LinuxImport {
namespace {

constexpr std::string_view places[tableCount] = {"l3TunnelInfo", "greTunnelInfo",
                                                 "ipsecVtiTunnelInfo", "vxlanTunnelInfo"};

template <class Tuple, class Visit>
void forEach(Tuple& tables, const Visit& visit) {
  std::apply([&](auto&... table) { (visit(table), ...); }, tables);
}

// The table of the description's alternative; nothing for none.
template <class Tuple, class Visit>
void visitTable(Tuple& tables, const Description& description, const Visit& visit) {
  std::visit(
      [&](const auto& info) {
        using Info = std::decay_t<decltype(info)>;
        forEach(tables, [&](auto& table) {
          if constexpr (std::is_same_v<
                            typename std::decay_t<decltype(table.users)>::key_type, Info>)
            visit(table, info);
        });
      },
      description);
}

}  // namespace

std::string pathOf(std::size_t which, std::string_view name) {
  return "tunnel/" + std::string(places[which - 1]) + "/" + std::string(name);
}

Tables::Tables()
    : tables_{{Tunnel::l3TunnelInfoTableFactory("l3TunnelInfo")},
              {Tunnel::greTunnelInfoTableFactory("greTunnelInfo")},
              {Tunnel::ipsecVtiTunnelInfoTableFactory("ipsecVtiTunnelInfo")},
              {LinuxTunnel::vxlanTunnelInfoTableFactory("vxlanTunnelInfo")}} {}

Kop::Ptr<Kop::Entity> Tables::entity(std::size_t which) const {
  Kop::Ptr<Kop::Entity> found;
  std::size_t at = 0;
  forEach(tables_, [&](const auto& table) {
    if (++at == which && takenAway_[which - 1].empty()) found = table.entity;
  });
  return found;
}

void Tables::takeAway(std::size_t which, std::string reason) {
  takenAway_[which - 1] = std::move(reason);
}

void Tables::use(const Description& description) {
  visitTable(tables_, description, [&](auto& table, const auto& info) {
    if (table.users[info]++ > 0 || table.entity->entryHas(info)) return;
    table.entity->entryIs(info, true);
    ++added_;
  });
}

void Tables::leave(const Description& description) {
  visitTable(tables_, description, [&](auto& table, const auto& info) {
    const auto found = table.users.find(info);
    if (--found->second > 0) return;
    table.users.erase(found);
    table.entity->entryDel(info);
    ++removed_;
  });
}

void Tables::allAre(const Links& links) {
  // First what there is: a tunnel that has another index now never goes.
  for (const auto& [index, link] : links)
    linkIs(link);
  std::vector<U32> gone;
  for (const auto& [index, tunnel] : tunnels_)
    if (!links.contains(index)) gone.push_back(index);
  for (const U32 index : gone)
    linkDel(index);
  // What another process left, or somebody wrote before us.
  forEach(tables_, [&](auto& table) {
    using Users = std::decay_t<decltype(table.users)>;
    std::vector<typename Users::key_type> strangers;
    for (const auto& node : table.entity->entry())
      if (!table.users.contains(node.key())) strangers.push_back(node.key());
    for (const auto& info : strangers)
      table.entity->entryDel(info);
    removed_ += strangers.size();
  });
}

void Tables::linkIs(const Link& link) {
  Mapped mapped = map(link);
  if (!mapped.isTunnel()) return linkDel(link.index);
  const std::size_t which = mapped.description.index();
  if (which != 0 && !takenAway_[which - 1].empty())
    mapped = {{}, takenAway_[which - 1], {}};
  Imported now{link.name, link.kindName, std::move(mapped)};
  const auto found = tunnels_.find(link.index);
  if (found == tunnels_.end()) {
    use(now.mapped.description);
    const auto& added = tunnels_.emplace(link.index, std::move(now)).first->second;
    if (onChange) onChange(link.index, nullptr, &added);
    return;
  }
  if (found->second == now) return;
  // The new entry first: a tunnel that is only renamed never goes.
  use(now.mapped.description);
  leave(found->second.mapped.description);
  std::swap(found->second, now);
  if (onChange) onChange(link.index, &now, &found->second);
}

void Tables::linkDel(U32 index) {
  const auto found = tunnels_.find(index);
  if (found == tunnels_.end()) return;
  leave(found->second.mapped.description);
  const Imported before = std::move(found->second);
  tunnels_.erase(found);
  if (onChange) onChange(index, &before, nullptr);
}

U64 Tables::importedCount() const {
  U64 count = 0;
  for (const auto& [index, tunnel] : tunnels_)
    count += tunnel.mapped.description.index() != 0;
  return count;
}

}  // namespace LinuxImport
