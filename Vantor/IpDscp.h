#pragma once

#include <compare>
#include <iosfwd>

#include "Kop/Hash.h"
#include "Kop/KeyOps.h"
#include "Kop/NboAttrLog.h"
#include "Kop/Text.h"
#include "Vantor/Export.h"

namespace Vantor {

// The class-of-service mark of an IP packet, one byte without a range of its own.
//
// Text     decimal, typed and bare.
// Log      U32, of which the low byte is kept.
// Hash     mixed into a record's hash as 4 bytes.
// Errors   Kop::RangeException for a number above 255 in text.
class VANTOR_EXPORT IpDscp {
 public:
  constexpr IpDscp() = default;
  constexpr explicit IpDscp(U8 value) : value_(value) {}
  IpDscp(Kop::TextIt& it, const Kop::TextIt& end)
      : value_(Kop::readAttr<U8>(it, end, "ipDscp")) {}
  explicit IpDscp(Kop::NboAttrLog::In& in) : value_(static_cast<U8>(in.nextU32())) {}

  constexpr U8 value() const { return value_; }
  constexpr U32 hash() const { return Kop::OneAtATime().u32(value_).result(); }
  Kop::String stringValue() const { return Kop::strepOf(value_); }

  friend constexpr auto operator<=>(const IpDscp&, const IpDscp&) = default;

 private:
  U8 value_ = 0;
};

inline void hashMix(Kop::Hash& hash, const IpDscp& dscp) {
  hash.mix32(dscp.value());
}
inline void strepWrite(Kop::TextOut& out, const IpDscp& dscp) {
  out.number(dscp.value());
}
inline Kop::String valueToStrep(const IpDscp& dscp) {
  return dscp.stringValue();
}
VANTOR_EXPORT std::ostream& operator<<(std::ostream& out, const IpDscp& dscp);
inline Kop::NboAttrLog::Out& operator<<(Kop::NboAttrLog::Out& out, const IpDscp& dscp) {
  out.writeU32(dscp.value());
  return out;
}
inline U32 attrLogSize(const IpDscp&) {
  return 4;
}

}  // namespace Vantor

static_assert(sizeof(Vantor::IpDscp) == 1);
static_assert(std::has_unique_object_representations_v<Vantor::IpDscp>);
template <>
inline constexpr bool Kop::equalIsBitwise<Vantor::IpDscp> = true;
