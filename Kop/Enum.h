#pragma once

#include <iosfwd>

#include "Kop/Declare.h"
#include "Kop/Text.h"

namespace Kop {

// Forwards to the enumeration service with the module and the index in its list.
template <class E>
struct KOP_EXPORT EnumOps {
  static FwkType type();
  static E instance(U32 number);  // RangeException when there is no such enumerator
  static E instance(const String& name);  // likewise
  static E read(TextIt& it, const TextIt& end);
  static std::string_view name(E value);  // empty when there is no such enumerator
};

// An enumeration declared by KOP_ENUM.
template <class E>
concept DeclaredEnum = std::is_enum_v<E> && requires {
  kopEnumerators(E{});
};

// The service, once per storage width. Reading takes the longest word, then a name of the
// table or a decimal number of the width: "mplsOverGre" does not stop at "mpls".
//
// Errors   instance: RangeException. read: RangeException for a number beyond the width,
//          Exception for a word that is neither.
KOP_EXPORT U8 enumInstance8(FwkType type, U32 number);
KOP_EXPORT U8 enumInstance8(FwkType type, const String& name);
KOP_EXPORT U8 enumRead8(FwkType type, TextIt& it, const TextIt& end);
KOP_EXPORT U32 enumInstance32(FwkType type, U32 number);
KOP_EXPORT U32 enumInstance32(FwkType type, const String& name);
KOP_EXPORT U32 enumRead32(FwkType type, TextIt& it, const TextIt& end);
KOP_EXPORT std::string_view enumName(FwkType type, U32 number);

// The enumerator's name, or its decimal number when it has none.
template <DeclaredEnum E>
void strepWrite(TextOut& out, const E& value) {
  const std::string_view name = EnumOps<E>::name(value);
  if (name.empty())
    out.number(static_cast<U32>(value));
  else
    out.append(name);
}

}  // namespace Kop
