#include "Tunnel/TunnelBasicTypes.h"
#include "Vantor/IntfId.h"

// Pairs of functions for scripts/same-instructions: `ours_X` reads an identifier by its
// accessor, `bare_X` does the same to the word. Constants are written out once more, so that
// a wrong one is seen.

using Tunnel::TunnelTable::EncapId;
using Tunnel::TunnelTable::TunnelId;
using Vantor::IntfId;

#define PAIR(name, Result, Class, Word, accessor, expression) \
  extern "C" Result ours_##name(const Class& id) {            \
    return static_cast<Result>(accessor);                     \
  }                                                           \
  extern "C" Result bare_##name(const Word& id) {             \
    return static_cast<Result>(expression);                   \
  }                                                           \
  static_assert(sizeof(Class) == sizeof(Word))

PAIR(tunnelValue, U64, TunnelId, U64, id.value(), id);
PAIR(tunnelIsValid, bool, TunnelId, U64, id.isValid(), id != 0);
PAIR(tunnelType, U32, TunnelId, U64, id.tunnelType(), static_cast<U32>(id >> 44));
PAIR(tunnelIndex,
     U64,
     TunnelId,
     U64,
     id.tunnelIndex(),
     id&(static_cast<U32>(id >> 44) == 21 ? 0x7ffffffff : 0x7ffffffffff));
PAIR(tunnelIndexAndAf, U64, TunnelId, U64, id.extractIndexAndAf(), id & 0xfffffffffff);
PAIR(encapType, U8, EncapId, U32, id.encapType(), id >> 28);
PAIR(encapIndex, U32, EncapId, U32, id.encapIndex(), id & 0xfffffff);
PAIR(intfValue, U64, IntfId, U64, id.value(), id);
PAIR(intfTypeId, U32, IntfId, U64, id.typeId(), id >> 56);
PAIR(intfPart0, U32, IntfId, U64, id.part(0), id & 0xffffff);
PAIR(intfPart1, U32, IntfId, U64, id.part(1), id >> 24);
