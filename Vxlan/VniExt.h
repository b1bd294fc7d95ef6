#pragma once

#include <compare>
#include <iosfwd>

#include "Kop/Hash.h"
#include "Kop/KeyOps.h"
#include "Kop/NboAttrLog.h"
#include "Kop/Text.h"
#include "Vxlan/Export.h"

namespace Vxlan {

// A VXLAN network identifier, kept in 32 bits: the header's 24 and room for numbers that a
// control plane gives a meaning of its own. No number is refused.
//
// Text     decimal, typed and bare.
// Log      U32.
// Hash     one-at-a-time over the 4 bytes; mixed into a record's hash as 4 bytes.
// Errors   Kop::RangeException for a number above 32 bits in text.
class VXLAN_EXPORT VniExt {
 public:
  constexpr VniExt() = default;
  constexpr explicit VniExt(U32 value) : value_(value) {}
  VniExt(Kop::TextIt& it, const Kop::TextIt& end)
      : value_(Kop::readAttr<U32>(it, end, "vni")) {}
  explicit VniExt(Kop::NboAttrLog::In& in) : value_(in.nextU32()) {}

  constexpr U32 value() const { return value_; }
  constexpr U32 hash() const { return Kop::OneAtATime().u32(value_).result(); }
  Kop::String stringValue() const { return Kop::strepOf(value_); }

  friend constexpr auto operator<=>(const VniExt&, const VniExt&) = default;

 private:
  U32 value_ = 0;
};

inline void hashMix(Kop::Hash& hash, const VniExt& vni) {
  hash.mix32(vni.value());
}
inline void strepWrite(Kop::TextOut& out, const VniExt& vni) {
  out.number(vni.value());
}
inline Kop::String valueToStrep(const VniExt& vni) {
  return vni.stringValue();
}
VXLAN_EXPORT std::ostream& operator<<(std::ostream& out, const VniExt& vni);
inline Kop::NboAttrLog::Out& operator<<(Kop::NboAttrLog::Out& out, const VniExt& vni) {
  out.writeU32(vni.value());
  return out;
}
inline U32 attrLogSize(const VniExt&) {
  return 4;
}

}  // namespace Vxlan

static_assert(sizeof(Vxlan::VniExt) == 4);
static_assert(std::has_unique_object_representations_v<Vxlan::VniExt>);
template <>
inline constexpr bool Kop::equalIsBitwise<Vxlan::VniExt> = true;
