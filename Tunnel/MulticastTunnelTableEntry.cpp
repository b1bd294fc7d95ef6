#include "Tunnel/MulticastTunnelTableEntry.h"

#include "Kop/ModuleImpl.h"
#include "Kop/ValueImpl.h"
#include "Quarn/Serializer.h"

namespace Tunnel::TunnelTable {

using Routing::Multicast::MulticastTreeId;

namespace {

constexpr U32 headSize = 8;              // the tunnel
constexpr U32 leastSize = headSize + 4;  // and the count of a tree id

const void* treeIn(Kop::VoidPtrConst entry) {
  return static_cast<const U8*>(entry) + headSize;
}

}  // namespace

U32 MulticastTunnelTableEntry::hash(U32 seed) const {
  Kop::Hash hash(seed);
  hash.mix32(tunnelId_.hash());
  hash.mix32(Kop::hashSingleAttr(mcastTreeId_, 0));
  return hash.result();
}

U32 MulticastTunnelTableEntry::serializeLen() const {
  return headSize + mcastTreeId_.serializeLen();
}

void MulticastTunnelTableEntry::serialize(Kop::VoidPtr buffer) const {
  Quarn::Serializer head(buffer);
  head.put(tunnelId_);
  mcastTreeId_.serialize(buffer ? static_cast<U8*>(buffer) + head.length() : nullptr);
}

void MulticastTunnelTableEntry::deserialize(Kop::VoidPtrConst buffer, U32 len) {
  MulticastTreeId tree;
  tree.deserialize(treeIn(buffer), len);
  tunnelId_ = Quarn::Serializer(buffer).get<TunnelId>();  // any word, as from the log
  mcastTreeId_ = tree;
}

U32 MulticastTunnelTableEntry::deserializeLen(Kop::VoidPtrConst buffer, U32 len) const {
  if (len < leastSize) return 0;
  if (mcastTreeId_.deserializeLen(treeIn(buffer), len - headSize) == 0) return 0;
  const U64 count = Quarn::Serializer(treeIn(buffer)).get<U32>();
  return len >= leastSize + count ? 16 : 0;
}

}  // namespace Tunnel::TunnelTable

KOP_MODULE(MulticastTunnelTableEntry,
           63fe9fbee6ad0333,
           Tunnel::TunnelTable::MulticastTunnelTableEntry);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::MulticastTunnelTableEntry);
