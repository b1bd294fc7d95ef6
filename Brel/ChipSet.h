#pragma once

#include <bit>
#include <compare>
#include <initializer_list>
#include <iosfwd>

#include "Brel/ChipId.h"
#include "Brel/Export.h"
#include "Kop/Hash.h"
#include "Kop/KeyOps.h"
#include "Kop/NboAttrLog.h"
#include "Kop/Text.h"

namespace Brel {

// Any of the 256 chips: one bit each, chip 0 is bit 0 of byte 0, chip 255 bit 7 of byte 31.
// Empty by default.
//
// Text     [1, 5] with the chips ascending, typed and bare; read in any order.
// Order    the bytes from byte 0 on, which is any order but a total one.
// Hash     0 for an empty set, else one-at-a-time over the bytes.
// Log      the 32 bytes.
// Errors   Kop::Exception for text that is no such list, Kop::RangeException for a number
//          above 255 in it.
class BREL_EXPORT ChipSet {
 public:
  static constexpr U32 byteCount = 32;

  constexpr ChipSet() = default;
  constexpr explicit ChipSet(std::initializer_list<ChipId> chips) {
    for (const ChipId chip : chips)
      chipIs(chip);
  }
  ChipSet(Kop::TextIt& it, const Kop::TextIt& end);
  explicit ChipSet(Kop::NboAttrLog::In& in) { in.nextBytes(bytes_, byteCount); }

  constexpr bool chipHas(ChipId chip) const {
    return (bytes_[chip.value() / 8] & bitOf(chip)) != 0;
  }
  constexpr void chipIs(ChipId chip) { bytes_[chip.value() / 8] |= bitOf(chip); }
  constexpr void chipDel(ChipId chip) {
    bytes_[chip.value() / 8] &= static_cast<U8>(~bitOf(chip));
  }
  constexpr void chipDelAll() { *this = ChipSet(); }
  constexpr U32 chipCount() const {
    U32 count = 0;
    for (const U8 byte : bytes_)
      count += static_cast<U32>(std::popcount(byte));
    return count;
  }
  constexpr bool empty() const { return *this == ChipSet(); }

  constexpr const U8* bytes() const { return bytes_; }
  constexpr U32 hash() const {
    return empty() ? 0 : Kop::OneAtATime().bytes(bytes_, byteCount).result();
  }
  Kop::String stringValue() const { return Kop::strepOf(*this); }

  friend constexpr auto operator<=>(const ChipSet&, const ChipSet&) = default;

 private:
  static constexpr U8 bitOf(ChipId chip) {
    return static_cast<U8>(1 << chip.value() % 8);
  }

  U8 bytes_[byteCount] = {};
};

BREL_EXPORT void strepWrite(Kop::TextOut& out, const ChipSet& chips);
inline Kop::String valueToStrep(const ChipSet& chips) {
  return Kop::strepOf(chips);
}
BREL_EXPORT std::ostream& operator<<(std::ostream& out, const ChipSet& chips);
inline Kop::NboAttrLog::Out& operator<<(Kop::NboAttrLog::Out& out, const ChipSet& chips) {
  out.writeBytes(chips.bytes(), ChipSet::byteCount);
  return out;
}
inline U32 attrLogSize(const ChipSet&) {
  return ChipSet::byteCount;
}

}  // namespace Brel

static_assert(sizeof(Brel::ChipSet) == 32);
static_assert(std::has_unique_object_representations_v<Brel::ChipSet>);
template <>
inline constexpr bool Kop::equalIsBitwise<Brel::ChipSet> = true;
