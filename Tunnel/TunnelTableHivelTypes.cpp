#include "Tunnel/TunnelTableHivelTypes.h"

#include "Kop/EntityImpl.h"
#include "Kop/ModuleImpl.h"

namespace Tunnel::TunnelTable {

constexpr const char* source = "Tunnel/TunnelTableHivelTypes";

TunnelTableInfo::TunnelTableInfo(const Kop::String& tableName,
                                 const Kop::String& tableType)
    : tableName_(tableName),
      tableType_(tableType),
      mountPath_("tunnel/table/" + std::string(tableName)) {}

U32 TunnelIdNamePair::hash(U32 seed) const {
  Kop::Hash hash(seed);
  hash.mix32(tunnelId_.hash());
  hash.mix32(tunnelName_.hash());
  return hash.result();
}

// Of the generated rule but for the type, which is mixed as wide as it is logged.
U32 NexthopTunnelL3Info::hash(U32 seed) const {
  Kop::Hash hash(seed);
  hash.mix32(groupType_);
  hash.mix32(ttl_);
  Kop::attrMix(hash, sourceIp_);
  Kop::attrMix(hash, destinationIp_);
  Kop::attrMix(hash, mplsLabelStack_);
  hash.mix32(greKeyType_);
  Kop::attrMix(hash, l3Intf_);
  Kop::attrMix(hash, l2Intf_);
  Kop::attrMix(hash, macAddr_);
  Kop::attrMix(hash, tunnelCounterId_);
  return hash.result();
}

U32 valueHash(const NexthopTunnelL2Info&, U32) = delete;

bool TunnelTableBase::contributeToTunnelRib() const {
  return TunnelTable::contributeToTunnelRib(tableType());
}

// Both functions copy what they are given: it may stand in a collection that they change.

void TunnelNameStatus::addTunnelIdNamePair(const TunnelId& tunnelId,
                                           const Kop::String& tunnelName) {
  const TunnelTable::TunnelIdNamePair pair(tunnelId, tunnelName);
  if (tunnelIdNamePairHas(pair)) return;
  KOP_ASSERT(!tunnelNameToIdHas(pair.tunnelName()), "!tunnelNameToIdHas( tunnelName )",
             source);
  KOP_ASSERT(!tunnelIdToNameHas(pair.tunnelId()), "!tunnelIdToNameHas( tunnelId )",
             source);
  tunnelNameToIdIs(pair.tunnelName(), pair.tunnelId());
  tunnelIdToNameIs(pair.tunnelId(), pair.tunnelName());
  tunnelIdNamePairIs(pair);
}

void TunnelNameStatus::delTunnelIdNamePair(const TunnelId& tunnelId) {
  const auto* const node = tunnelIdToName().find(tunnelId);
  if (!node) return;
  const TunnelTable::TunnelIdNamePair pair(tunnelId, node->value);
  tunnelNameToIdDel(pair.tunnelName());
  tunnelIdToNameDel(pair.tunnelId());
  tunnelIdNamePairDel(pair);
}

TunnelId NexthopHwTunnelTable::tunnelIdFromPlatformKey(U64 key,
                                                       Brel::ChipId chipId) const {
  if (chipId.value() == Brel::ChipId::invalidChip) return {};
  return hwKeyToTunnelId(HwTunnelKey(key, chipId));
}

}  // namespace Tunnel::TunnelTable

KOP_MODULE(TunnelTableHivelTypes,
           cd5c81fc76b4bc31,
           Tunnel::TunnelTable::TunnelEntryPref,
           Tunnel::TunnelTable::TepIndex,
           Tunnel::TunnelTable::NameIndex,
           Tunnel::TunnelTable::ViaIndex,
           Tunnel::TunnelTable::NextHopIndex,
           Tunnel::TunnelTable::Id64,
           Tunnel::TunnelTable::TunnelCounterId,
           Tunnel::TunnelTable::TunnelTableEntry,
           Tunnel::TunnelTable::EvpnVxlanTunnelEntry,
           Tunnel::TunnelTable::TunnelTableInfo,
           Tunnel::TunnelTable::TunnelIdNamePair,
           Tunnel::TunnelTable::NexthopTunnelL3Info,
           Tunnel::TunnelTable::NexthopTunnelL2Info,
           Tunnel::TunnelTable::TunnelTableBase,
           Tunnel::TunnelTable::TunnelTableInfoCollection,
           Tunnel::TunnelTable::BgpLuConvergence,
           Tunnel::TunnelTable::TunnelConvergence,
           Tunnel::TunnelTable::TunnelNameStatus,
           Tunnel::TunnelTable::ProtocolTunnelNameStatus,
           Tunnel::TunnelTable::NexthopTunnelTable,
           Tunnel::TunnelTable::NexthopHwTunnelTable);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::EvpnVxlanTunnelEntry);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::TunnelTableInfo);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::TunnelIdNamePair);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::NexthopTunnelL3Info);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::NexthopTunnelL2Info);
KOP_INSTANTIATE_ENTITY(Tunnel::TunnelTable, TunnelTableBase);
KOP_INSTANTIATE_ENTITY(Tunnel::TunnelTable, TunnelTableInfoCollection);
KOP_INSTANTIATE_ENTITY(Tunnel::TunnelTable, BgpLuConvergence);
KOP_INSTANTIATE_ENTITY(Tunnel::TunnelTable, TunnelConvergence);
KOP_INSTANTIATE_ENTITY(Tunnel::TunnelTable, TunnelNameStatus);
KOP_INSTANTIATE_ENTITY(Tunnel::TunnelTable, ProtocolTunnelNameStatus);
KOP_INSTANTIATE_ENTITY(Tunnel::TunnelTable, NexthopTunnelTable);
KOP_INSTANTIATE_ENTITY(Tunnel::TunnelTable, NexthopHwTunnelTable);
