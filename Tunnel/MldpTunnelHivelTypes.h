#pragma once

#include "Kop/Entity.h"
#include "Tunnel/Export.h"
#include "Tunnel/MulticastTunnelTableEntry.h"

// Tree ids are hashed by the rule of the RIB, which is keyed by them: with a seed of the
// process, because peers choose the bytes.
template <>
struct Kop::KeyOps<Routing::Multicast::MulticastTreeId> {
  using Key = Routing::Multicast::MulticastTreeId;
  static U32 hash(const Key& key) {
    return hashSingleAttr(key, hashSeed32() ^ 0xCE197B9D);
  }
  static bool equal(const Key& a, const Key& b) { return a == b; }
  static bool less(const Key& a, const Key& b) { return a < b; }
};

namespace Tunnel::TunnelTable {

// What the multicast tunnel RIB holds: an entry like those in shared memory.
class TUNNEL_EXPORT MldpTunnelRibEntry : public MulticastTunnelTableEntry {
  KOP_VALUE(MldpTunnelRibEntry, MulticastTunnelTableEntry);

  KOP_REDEFINED(4, U32, hash, U32 seed);
};

// The multicast trees that MLDP has built a point-to-multipoint tunnel for, one entry per
// tree.
class TUNNEL_EXPORT MldpTunnelRib : public Kop::Entity {
  KOP_ENTITY(MldpTunnelRib);
  KOP_FACTORY(MldpTunnelRib);

  // By its tree. The tunnel of a tree may change, then the entry is replaced.
  KOP_INTERNAL_MAP(258,
                   entry,
                   Entry,
                   Routing::Multicast::MulticastTreeId,
                   MldpTunnelRibEntry,
                   mcastTreeId);

 public:
  // Where it is in the state database: "tunnel/tunnelMrib/mldp".
  static Kop::String mountPath();
};
KOP_FACTORY_FUNCTION(mldpTunnelRibFactory, MldpTunnelRib);

}  // namespace Tunnel::TunnelTable
