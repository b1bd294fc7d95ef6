#pragma once

#include "Kop/Value.h"
#include "Routing/Multicast/MulticastTreeId.h"
#include "Tunnel/Export.h"
#include "Tunnel/TunnelBasicTypes.h"

namespace Tunnel::TunnelTable {

// Says that a point-to-multipoint tunnel carries a multicast tree. Ordered by tunnel, then
// tree; true unless it is the default one.
//
// The binary form, host byte order at any alignment:
//
//     0            8       12        12 + n
//     | U64 tunnel | U32 n | n bytes |
//
// What is behind the tunnel is the tree id's own form. The tunnel's word is not checked, as
// in the attribute log.
class TUNNEL_EXPORT MulticastTunnelTableEntry
    : public Kop::Value<MulticastTunnelTableEntry> {
  KOP_VALUE(MulticastTunnelTableEntry);

  KOP_ATTR(2, TunnelId, tunnelId);
  KOP_ATTR(3, Routing::Multicast::MulticastTreeId, mcastTreeId);
  KOP_FUNCTION(4, U32, hash, U32 seed);

  // Size of the binary form.
  KOP_FUNCTION(5, U32, serializeLen);
  // Writes it, and nothing to a null buffer.
  KOP_FUNCTION(6, void, serialize, Kop::VoidPtr buffer);

  // Replaces the entry by the form at the start of the buffer. Only for a buffer in which
  // deserializeLen has found an entry: the tree id is told the whole `len`, 8 bytes more
  // than are left behind the tunnel, and goes by the count in its form.
  // Errors   Drem::InvalidSizeException when the tree id alone takes more than `len`; the
  //          entry then stays.
  void deserialize(Kop::VoidPtrConst buffer, U32 len);
  KOP_METHOD(7, deserialize);

  // Whether a whole entry stands at the start of a buffer of `len` bytes: 16 when it does,
  // whatever its size, else 0. Reads nothing behind `len`.
  KOP_FUNCTION(8, U32, deserializeLen, Kop::VoidPtrConst buffer, U32 len);

 public:
  explicit operator bool() const { return !(*this == MulticastTunnelTableEntry()); }
};

}  // namespace Tunnel::TunnelTable
