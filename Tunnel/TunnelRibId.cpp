#include "Tunnel/TunnelRibId.h"

#include "Kop/EntityImpl.h"
#include "Kop/ModuleImpl.h"
#include "Trace/Trace.h"

namespace Tunnel::TunnelTable {

namespace {

constexpr const char* source = "Tunnel/TunnelRibId";
constexpr int traceLevel = 8;

// Signatures stand as texts: compilers spell them in different ways, log readers match them.
void trace(std::string_view signature, const Kop::String* name, const TunnelRibId* id) {
  Trace::defaultHandle().line(traceLevel, [&] {
    std::string line(signature);
    if (name) line.append(" - tunnel-rib: ").append(*name);
    if (id) line.append(", currId: ").append(std::to_string(id->value()));
    return line;
  });
}

}  // namespace

TunnelRibId TunnelRibNameIdMap::getFreeId() {
  trace(
      "Tunnel::TunnelTable::TunnelRibId "
      "Tunnel::TunnelTable::TunnelRibNameIdMap::getFreeId()",
      nullptr, nullptr);
  const TunnelRibId id = currentId();
  if (!id.isValid()) {
    trace("Ran out of id space", nullptr, nullptr);
    Kop::assertFail("false", source, __func__);
  }
  currentIdIs(TunnelRibId(id.value() + 1));
  return id;
}

TunnelRibId TunnelRibNameIdMap::tunnelRibNameIs(Kop::String name) {
  if (const auto* node = nameToId().find(name); node && node->value.isValid())
    return node->value;
  const TunnelRibId id = getFreeId();
  trace(
      "Tunnel::TunnelTable::TunnelRibId "
      "Tunnel::TunnelTable::TunnelRibNameIdMap::tunnelRibNameIs(Kop::String)",
      &name, &id);
  nameToIdIs(name, id);
  return id;
}

TunnelRibId TunnelRibNameIdMap::tunnelRibNameDel(Kop::String name) {
  trace(
      "Tunnel::TunnelTable::TunnelRibId "
      "Tunnel::TunnelTable::TunnelRibNameIdMap::tunnelRibNameDel(Kop::String)",
      &name, nullptr);
  const auto* node = nameToId().find(name);
  const TunnelRibId id = node ? node->value : TunnelRibId(TunnelRibId::null);
  KOP_ASSERT(id.isValid(), "id != nullId", source);
  KOP_ASSERT(id.value() > TunnelRibId::maxSystemTunnelRibId,
             "id > TunnelRibId::maxSystemTunnelRibId()", source);
  nameToIdDel(name);
  return id;
}

void TunnelRibNameIdMap::removeNonSystemTunnelRibs() {
  for (auto it = nameToIdIterator(); it; it.advance()) {
    const auto* node = it.currNodeMaybeStale();
    if (node && node->value.value() > TunnelRibId::maxSystemTunnelRibId)
      nameToIdDel(it.key());
  }
}

Kop::String TunnelRibNameIdMap::tunnelName(TunnelRibId id) const {
  for (const auto& node : nameToId())
    if (node.value == id) return node.key();
  return {};
}

void TunnelRibNameIdMap::currentIdInc(U32 n) {
  currentIdIs(TunnelRibId(currentId().value() + n));
}

}  // namespace Tunnel::TunnelTable

KOP_MODULE(TunnelRibId,
           26f83dc1fd282fc2,
           Tunnel::TunnelTable::TunnelRibId,
           Tunnel::TunnelTable::TunnelRibNameIdMap);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::TunnelRibId);
KOP_INSTANTIATE_ENTITY(Tunnel::TunnelTable, TunnelRibNameIdMap);
