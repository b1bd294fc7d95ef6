#pragma once

#include <compare>
#include <iosfwd>

#include "Brel/Export.h"
#include "Kop/Hash.h"
#include "Kop/KeyOps.h"
#include "Kop/NboAttrLog.h"
#include "Kop/Text.h"
#include "Kop/Types.h"

namespace Brel {

// Names a forwarding chip. Every byte is a number a chip may have; 128 stands for none.
//
// Text     decimal, typed and bare.
// Log      U8.
// Hash     mixed into a record's hash as one byte.
// Errors   Kop::RangeException for a number above 255 in text.
class BREL_EXPORT ChipId {
 public:
  static constexpr U8 invalidChip = 128;

  constexpr ChipId() = default;
  constexpr explicit ChipId(U8 value) : value_(value) {}
  ChipId(Kop::TextIt& it, const Kop::TextIt& end)
      : value_(Kop::readAttr<U8>(it, end, "chipId")) {}
  explicit ChipId(Kop::NboAttrLog::In& in) : value_(in.nextU8()) {}

  constexpr U8 value() const { return value_; }
  constexpr U32 hash() const { return Kop::OneAtATime().byte(value_).result(); }
  Kop::String stringValue() const { return Kop::strepOf(value_); }

  friend constexpr auto operator<=>(const ChipId&, const ChipId&) = default;

 private:
  U8 value_ = invalidChip;
};

inline void hashMix(Kop::Hash& hash, const ChipId& chip) {
  hash.mix8(chip.value());
}
inline void strepWrite(Kop::TextOut& out, const ChipId& chip) {
  out.number(chip.value());
}
inline Kop::String valueToStrep(const ChipId& chip) {
  return chip.stringValue();
}
BREL_EXPORT std::ostream& operator<<(std::ostream& out, const ChipId& chip);
inline Kop::NboAttrLog::Out& operator<<(Kop::NboAttrLog::Out& out, const ChipId& chip) {
  out.writeU8(chip.value());
  return out;
}
inline U32 attrLogSize(const ChipId&) {
  return 1;
}

}  // namespace Brel

static_assert(sizeof(Brel::ChipId) == 1);
static_assert(std::has_unique_object_representations_v<Brel::ChipId>);
template <>
inline constexpr bool Kop::equalIsBitwise<Brel::ChipId> = true;
