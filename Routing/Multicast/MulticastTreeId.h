#pragma once

#include <compare>
#include <iosfwd>
#include <span>

#include "Kop/KeyOps.h"
#include "Kop/NboAttrLog.h"
#include "Kop/String.h"
#include "Kop/Text.h"
#include "Routing/Multicast/Export.h"

namespace Routing::Multicast {

// Names one multicast tree: the bytes by which the protocol that built it knows it, of which
// nothing is known here. By default none. The bytes never change and copies share them, so
// that an identifier of any length is handed on by counting; up to 15 bytes stand in the
// handle itself.
//
// The binary form, host byte order at any alignment:
//
//     0        4           4 + n
//     | U32 n  | n bytes   |
//
// Text     bare 0a0001, typed the same in quotes; two hex digits per byte, read in either
//          case.
// Order    a shorter one first, then the bytes as unsigned.
// Hash     0 for the default, else one-at-a-time over the bytes.
// Log      U32 count, then the bytes.
// Errors   Kop::RangeException for more than maxByteCount bytes, Kop::Exception for text that
//          is not pairs of hex digits, Kop::LogCorruptException,
//          Drem::InvalidSizeException for a binary form that ends early.
// Threads  as for Kop::String.
class ROUTING_MULTICAST_EXPORT MulticastTreeId {
 public:
  // So that text and binary form of an identifier, and of a record that holds it, are
  // measured in 32 bits.
  static constexpr U32 maxByteCount = 0x7fffff00;

  MulticastTreeId() = default;
  MulticastTreeId(Kop::VoidPtrConst bytes, U32 count);  // null is fine for none
  explicit MulticastTreeId(const Kop::String& hex);
  MulticastTreeId(Kop::TextIt& it, const Kop::TextIt& end);
  explicit MulticastTreeId(Kop::NboAttrLog::In& in);

  U32 byteCount() const { return bytes_.size(); }
  // Valid while this identifier stands where it is.
  std::span<const U8> bytes() const {
    return {reinterpret_cast<const U8*>(bytes_.data()), bytes_.size()};
  }
  U32 hash() const { return bytes_.hash(); }

  // Size of the binary form.
  U32 serializeLen() const { return 4 + byteCount(); }
  // Writes it, and nothing to a null buffer.
  void serialize(Kop::VoidPtr buffer) const;
  // Size of the form at the start of a buffer of `len` bytes, 0 when it is not complete.
  // Reads nothing behind `len`.
  static U32 deserializeLen(Kop::VoidPtrConst buffer, U32 len);
  // Replaces the identifier by that form; on an error it stays. How far the form goes is its
  // own count's word; `len` only says what is too far.
  void deserialize(Kop::VoidPtrConst buffer, U32 len);

  Kop::String stringValue() const;
  void bareWrite(Kop::TextOut& out) const;

  bool operator==(const MulticastTreeId&) const = default;
  std::strong_ordering operator<=>(const MulticastTreeId&) const = default;

 private:
  Kop::String bytes_;
};

ROUTING_MULTICAST_EXPORT void strepWrite(Kop::TextOut& out, const MulticastTreeId& tree);
inline Kop::String valueToStrep(const MulticastTreeId& tree) {
  return Kop::strepOf(tree);
}
ROUTING_MULTICAST_EXPORT std::ostream& operator<<(std::ostream& out,
                                                  const MulticastTreeId& tree);
ROUTING_MULTICAST_EXPORT Kop::NboAttrLog::Out& operator<<(Kop::NboAttrLog::Out& out,
                                                          const MulticastTreeId& tree);
inline U32 attrLogSize(const MulticastTreeId& tree) {
  return tree.serializeLen();
}

}  // namespace Routing::Multicast

template <>
inline constexpr bool Kop::isRelocatable<Routing::Multicast::MulticastTreeId> = true;
