#pragma once

#include <bit>
#include <compare>
#include <cstring>
#include <iosfwd>

#include "Kop/Hash.h"
#include "Kop/KeyOps.h"
#include "Kop/NboAttrLog.h"
#include "Kop/Text.h"
#include "Vantor/AddressFamily.h"
#include "Vantor/Export.h"

namespace Vantor {

// An address of either family, or none. Its 20-byte image is also its binary form, which
// tables in shared memory copy as it stands:
//
//     0        4                                20
//     | family | address bytes, network order   |    family in host order
//
// An IPv4 address stands in the first 4 address bytes and the other 12 are zero; without a
// family all are zero. So equal addresses have equal images.
//
// Text     bare 10.0.0.1 or 2001:db8::1 (lower case, the longest run of two or more zero
//          groups as "::", the first of equal runs; ::ffff:10.0.0.1 for a mapped address),
//          empty without a family; typed the same in quotes. Reading takes any spelling of
//          an IPv6 address; in a dotted quad leading zeros are refused.
// Order    family, then address bytes.
// Hash     of the address bytes alone, so an IPv4 address collides with one IPv6 address.
// Log      U32 family, then the 16 bytes. An unknown family is refused; bytes that the
//          family does not use are cleared.
// Errors   Kop::Exception for text that is no address, Kop::RangeException when a part of a
//          dotted quad is above 255, Kop::LogCorruptException.
class VANTOR_EXPORT IpGenAddr {
 public:
  static constexpr U32 byteCount = 16;

  constexpr IpGenAddr() = default;
  explicit IpGenAddr(const Kop::String& bare);
  IpGenAddr(Kop::TextIt& it, const Kop::TextIt& end);
  explicit IpGenAddr(Kop::NboAttrLog::In& in);

  // The address as a number in host order: 0x0a000001 is 10.0.0.1.
  static constexpr IpGenAddr fromIpv4(U32 address) {
    IpGenAddr result;
    result.af_ = ipv4;
    for (int i = 0; i < 4; ++i)
      result.bytes_[i] = static_cast<U8>(address >> (24 - 8 * i));
    return result;
  }
  // From 16 bytes in network order.
  static constexpr IpGenAddr fromIpv6(const U8* bytes) {
    IpGenAddr result;
    result.af_ = ipv6;
    for (U32 i = 0; i < byteCount; ++i)
      result.bytes_[i] = bytes[i];
    return result;
  }

  constexpr AddressFamily af() const { return af_; }
  constexpr const U8* bytes() const { return bytes_; }
  // Bits of an address of this family: 32, 128, or 0 without one.
  constexpr U32 bitCount() const { return af_ == ipv4 ? 32 : af_ == ipv6 ? 128 : 0; }
  constexpr bool isZero() const {
    U8 all = 0;
    for (const U8 byte : bytes_)
      all |= byte;
    return all == 0;
  }
  constexpr U32 hash() const {
    return Kop::OneAtATime().bytes(bytes_, byteCount).result();
  }

  Kop::String stringValue() const;
  void bareWrite(Kop::TextOut& out) const;

  friend bool operator==(const IpGenAddr& a, const IpGenAddr& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
  }
  friend std::strong_ordering operator<=>(const IpGenAddr& a, const IpGenAddr& b) {
    if (a.af_ != b.af_) return U32{a.af_} <=> U32{b.af_};
    return std::memcmp(a.bytes_, b.bytes_, byteCount) <=> 0;
  }

 private:
  AddressFamily af_ = noAddressFamily;
  U8 bytes_[byteCount] = {};
};

VANTOR_EXPORT void strepWrite(Kop::TextOut& out, const IpGenAddr& addr);
inline Kop::String valueToStrep(const IpGenAddr& addr) {
  return Kop::strepOf(addr);
}
VANTOR_EXPORT std::ostream& operator<<(std::ostream& out, const IpGenAddr& addr);
inline Kop::NboAttrLog::Out& operator<<(Kop::NboAttrLog::Out& out,
                                        const IpGenAddr& addr) {
  out.writeU32(addr.af());
  out.writeBytes(addr.bytes(), IpGenAddr::byteCount);
  return out;
}
inline U32 attrLogSize(const IpGenAddr&) {
  return 4 + IpGenAddr::byteCount;
}

}  // namespace Vantor

static_assert(sizeof(Vantor::IpGenAddr) == 20 && alignof(Vantor::IpGenAddr) == 4);
static_assert(std::is_trivially_copyable_v<Vantor::IpGenAddr>);
static_assert(std::has_unique_object_representations_v<Vantor::IpGenAddr>);
template <>
inline constexpr bool Kop::equalIsBitwise<Vantor::IpGenAddr> = true;
