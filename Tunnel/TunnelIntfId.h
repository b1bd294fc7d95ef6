#pragma once

#include "Kop/Value.h"
#include "Tunnel/Export.h"
#include "Vantor/IntfId.h"

namespace Vantor {

// A tunnel seen as an interface. Of the interface's word, the type is 58, part 0 the low 24
// bits of the tunnel's word and part 1 the 32 bits above; it is named
// "DynamicTunnel<part 1>.<part 0>".
//
// The value's text is the interface's word as a number, not its name: names are for people,
// and this text is read back.
class TUNNEL_EXPORT DynamicTunnelIntfId : public Kop::Value<DynamicTunnelIntfId> {
  KOP_VALUE(DynamicTunnelIntfId);

  KOP_WRAPPED(2, IntfId, intfId);
  KOP_CONSTANT(3, U8, dynamicTunnelIntfIdType, 58);

  static bool isDynamicTunnelIntfId(IntfId intf);
  KOP_METHOD(4, isDynamicTunnelIntfId);

  // The word of the tunnel; 0 for an interface of another type.
  static U64 tunnelId(IntfId intf);
  KOP_METHOD(5, tunnelId);

  // Unchecked: bits 56 and up are lost.
  static IntfId tunnelIdToIntfId(U64 tunnelId);
  KOP_METHOD(6, tunnelIdToIntfId);

 public:
  explicit DynamicTunnelIntfId(IntfId intf) : intfId_(intf) {}
};

inline bool DynamicTunnelIntfId::isDynamicTunnelIntfId(IntfId intf) {
  return intf.typeId() == dynamicTunnelIntfIdType;
}
inline U64 DynamicTunnelIntfId::tunnelId(IntfId intf) {
  if (!isDynamicTunnelIntfId(intf)) return 0;
  return U64{intf.part(1)} << 24 | intf.part(0);
}
inline IntfId DynamicTunnelIntfId::tunnelIdToIntfId(U64 tunnelId) {
  IntfId intf;
  intf.typeIdIs(dynamicTunnelIntfIdType);
  intf.partIs(0, static_cast<U32>(tunnelId & 0xffffff));
  intf.partIs(1, static_cast<U32>(tunnelId >> 24));
  return intf;
}

}  // namespace Vantor

template <>
inline constexpr bool Kop::equalIsBitwise<Vantor::DynamicTunnelIntfId> = true;

// Only the source that has their hand-written rules may make their operations: another one, such
// as that of the module, would make plain ones and inline them.
extern template struct Kop::ValueOps<Vantor::DynamicTunnelIntfId>;
