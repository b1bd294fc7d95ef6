#pragma once

#include <compare>
#include <iosfwd>
#include <string_view>

#include "Kop/Exception.h"
#include "Kop/Hash.h"
#include "Kop/KeyOps.h"
#include "Kop/NboAttrLog.h"
#include "Kop/Text.h"
#include "Kop/Types.h"

// An unsigned number of 3 bits, held in one byte that never has another bit.
//
// Text     decimal.
// Log      U8, of which the low 3 bits are kept.
// Hash     mixed into a record's hash as one byte.
// Errors   Kop::RangeException above 7, from a number and from text.
class KOP_EXPORT U3 {
 public:
  static constexpr U8 maxValue = 7;

  constexpr U3() = default;
  constexpr explicit U3(unsigned value) : value_(static_cast<U8>(value)) {
    if (value > maxValue)
      throw Kop::RangeException(Kop::stringPrintf("%u does not fit into 3 bits", value));
  }
  U3(Kop::TextIt& it, const Kop::TextIt& end) {
    Kop::TextIt behind = it;
    *this = U3(unsigned{Kop::readAttr<U32>(behind, end, "U3")});
    it = behind;
  }
  explicit U3(Kop::NboAttrLog::In& in) : U3(cut(in.nextU8())) {}
  // From a byte of a binary record: keeps the low 3 bits.
  static constexpr U3 cut(U8 byte) { return U3(unsigned{byte} & maxValue); }

  constexpr operator U8() const { return value_; }
  constexpr U32 hash() const { return Kop::OneAtATime().byte(value_).result(); }
  Kop::String stringValue() const { return Kop::strepOf(value_); }

  friend constexpr auto operator<=>(const U3&, const U3&) = default;

 private:
  U8 value_ = 0;
};

inline void hashMix(Kop::Hash& hash, const U3& value) {
  hash.mix8(value);
}
inline void strepWrite(Kop::TextOut& out, const U3& value) {
  out.number(value);
}
inline Kop::String valueToStrep(const U3& value) {
  return value.stringValue();
}
inline std::ostream& operator<<(std::ostream& out, const U3& value) {
  const char digit = static_cast<char>('0' + value);
  return Kop::writeText(out, std::string_view(&digit, 1));
}
inline Kop::NboAttrLog::Out& operator<<(Kop::NboAttrLog::Out& out, const U3& value) {
  out.writeU8(value);
  return out;
}
inline U32 attrLogSize(const U3&) {
  return 1;
}

static_assert(sizeof(U3) == 1);
static_assert(std::has_unique_object_representations_v<U3>);
template <>
inline constexpr bool Kop::equalIsBitwise<U3> = true;
