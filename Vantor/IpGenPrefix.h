#pragma once

#include "Vantor/IpGenAddr.h"

namespace Vantor {

// An address and how many of its leading bits count. The 24-byte image is also the binary
// form: the address's image, then the length as a U32 in host order.
//
// Host bits are kept as they are given: 10.0.0.1/8 and 10.0.0.0/8 are two values.
//
// Text     bare 10.0.0.0/8, empty for the default; typed the same in quotes.
// Order    address, then the shorter length.
// Log      the address, then the length as one byte. A length that the family does not have
//          is refused.
// Errors   as for IpGenAddr; Kop::RangeException for a length that the family does not have.
class VANTOR_EXPORT IpGenPrefix {
 public:
  constexpr IpGenPrefix() = default;
  IpGenPrefix(const IpGenAddr& addr, U32 len);
  explicit IpGenPrefix(const Kop::String& bare);
  IpGenPrefix(Kop::TextIt& it, const Kop::TextIt& end);
  explicit IpGenPrefix(Kop::NboAttrLog::In& in);

  constexpr const IpGenAddr& ipGenAddr() const { return addr_; }
  constexpr U32 len() const { return len_; }  // bits
  constexpr AddressFamily af() const { return addr_.af(); }
  // 0.0.0.0/0 or ::/0. The default has no family and is neither.
  constexpr bool isNullPrefix() const {
    return len_ == 0 && addr_.bitCount() != 0 && addr_.isZero();
  }
  constexpr U32 hash() const {
    return Kop::OneAtATime()
        .bytes(addr_.bytes(), IpGenAddr::byteCount)
        .byte(static_cast<U8>(len_))
        .result();
  }

  Kop::String stringValue() const;
  void bareWrite(Kop::TextOut& out) const;

  friend bool operator==(const IpGenPrefix& a, const IpGenPrefix& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
  }
  friend std::strong_ordering operator<=>(const IpGenPrefix& a, const IpGenPrefix& b) {
    const auto order = a.addr_ <=> b.addr_;
    return order != 0 ? order : a.len_ <=> b.len_;
  }

 private:
  IpGenAddr addr_;
  U32 len_ = 0;
};

VANTOR_EXPORT void strepWrite(Kop::TextOut& out, const IpGenPrefix& prefix);
inline Kop::String valueToStrep(const IpGenPrefix& prefix) {
  return Kop::strepOf(prefix);
}
VANTOR_EXPORT std::ostream& operator<<(std::ostream& out, const IpGenPrefix& prefix);
inline Kop::NboAttrLog::Out& operator<<(Kop::NboAttrLog::Out& out,
                                        const IpGenPrefix& prefix) {
  out << prefix.ipGenAddr();
  out.writeU8(static_cast<U8>(prefix.len()));
  return out;
}
inline U32 attrLogSize(const IpGenPrefix& prefix) {
  return attrLogSize(prefix.ipGenAddr()) + 1;
}

}  // namespace Vantor

static_assert(sizeof(Vantor::IpGenPrefix) == 24);
static_assert(std::is_trivially_copyable_v<Vantor::IpGenPrefix>);
static_assert(std::has_unique_object_representations_v<Vantor::IpGenPrefix>);
template <>
inline constexpr bool Kop::equalIsBitwise<Vantor::IpGenPrefix> = true;
