#pragma once

#include <compare>
#include <cstring>
#include <iosfwd>

#include "Kop/Hash.h"
#include "Kop/KeyOps.h"
#include "Kop/NboAttrLog.h"
#include "Kop/Text.h"
#include "Vantor/Export.h"

namespace Vantor {

// An Ethernet address: 6 bytes in the order of the wire.
//
// Text     bare 00:1c:73:0a:0b:0c, typed the same in quotes; two hex digits per byte, read
//          in either case.
// Order    the bytes.
// Hash     one-at-a-time over the bytes.
// Log      6 bytes.
// Errors   Kop::Exception for text that is no such address.
class VANTOR_EXPORT EthAddr {
 public:
  static constexpr U32 byteCount = 6;

  constexpr EthAddr() = default;
  explicit EthAddr(const Kop::String& bare);
  EthAddr(Kop::TextIt& it, const Kop::TextIt& end);
  explicit EthAddr(Kop::NboAttrLog::In& in) { in.nextBytes(bytes_, byteCount); }
  static constexpr EthAddr fromBytes(const U8* bytes) {
    EthAddr addr;
    for (U32 i = 0; i < byteCount; ++i)
      addr.bytes_[i] = bytes[i];
    return addr;
  }

  constexpr const U8* bytes() const { return bytes_; }
  constexpr U32 hash() const {
    return Kop::OneAtATime().bytes(bytes_, byteCount).result();
  }

  Kop::String stringValue() const;
  void bareWrite(Kop::TextOut& out) const;

  friend constexpr auto operator<=>(const EthAddr&, const EthAddr&) = default;

 private:
  U8 bytes_[byteCount] = {};
};

VANTOR_EXPORT void strepWrite(Kop::TextOut& out, const EthAddr& addr);
inline Kop::String valueToStrep(const EthAddr& addr) {
  return Kop::strepOf(addr);
}
VANTOR_EXPORT std::ostream& operator<<(std::ostream& out, const EthAddr& addr);
inline Kop::NboAttrLog::Out& operator<<(Kop::NboAttrLog::Out& out, const EthAddr& addr) {
  out.writeBytes(addr.bytes(), EthAddr::byteCount);
  return out;
}
inline U32 attrLogSize(const EthAddr&) {
  return EthAddr::byteCount;
}

}  // namespace Vantor

static_assert(sizeof(Vantor::EthAddr) == 6);
static_assert(std::has_unique_object_representations_v<Vantor::EthAddr>);
template <>
inline constexpr bool Kop::equalIsBitwise<Vantor::EthAddr> = true;
