#pragma once

#include <compare>
#include <iosfwd>

#include "Kop/Assert.h"
#include "Kop/Hash.h"
#include "Kop/KeyOps.h"
#include "Kop/NboAttrLog.h"
#include "Kop/Text.h"
#include "Vantor/Export.h"

namespace Vantor {

// Names an interface by one 64-bit word:
//
//     63      56 55                               24 23                   0
//     | type id |              part 1               |       part 0        |
//
// Every word has exactly one name and every name one word:
//
//     type id      name                              parts
//     0            any 0 to 7 printable bytes        bits 55..0 hold the bytes, the first
//                                                    one highest, then zeros
//     1            Ethernet<a>[/<b>[/<c>]][.<sub>]   part 1 = a<<20 | b<<8 | c
//                                                    part 0 = sub
//     2, 3, 4, 5   Loopback<n>  Vlan<n>              part 1 = n, part 0 = 0
//                  Vxlan<n>     Tunnel<n>
//     19           SrTePolicyTunnel<p1>.<p0>         part 1 = p1, part 0 = p0
//     58           DynamicTunnel<p1>.<p0>            part 1 = p1, part 0 = p0
//     any          Generic<type>.<p1>.<p0>           a word that has none of the names above
//
// Numbers are decimal without leading zeros: a and b 1..4095, c 1..255, sub 1..16777215 (an
// absent one is 0), others as wide as their part. A short name that has the form of another
// row is that row's: "Vlan1" is type 3. Word 0 is the empty name, the empty interface. For
// type 0 the order of the words is the order of the names' bytes.
//
// Text     bare: the name; typed: the name as a quoted string.
// Order    the word as an unsigned number.
// Hash     one-at-a-time over the word, low byte first.
// Log      U64; every word is an interface.
// Errors   Kop::RangeException for a name of no row; Kop::Exception for text without quotes.
class VANTOR_EXPORT IntfId {
 public:
  static constexpr U32 maxPart0 = 0xffffff;

  constexpr IntfId() = default;
  explicit IntfId(const Kop::String& name);
  IntfId(Kop::TextIt& it, const Kop::TextIt& end);
  explicit IntfId(Kop::NboAttrLog::In& in) : word_(in.nextU64()) {}
  static constexpr IntfId fromValue(U64 word) {
    IntfId intf;
    intf.word_ = word;
    return intf;
  }

  constexpr U64 value() const { return word_; }
  constexpr void valueIs(U64 word) { word_ = word; }
  constexpr U32 typeId() const { return static_cast<U32>(word_ >> 56); }
  constexpr void typeIdIs(U32 id) {  // keeps 8 bits
    word_ = (word_ & ((U64{1} << 56) - 1)) | U64{id} << 56;
  }
  constexpr U32 part(U32 n) const {
    KOP_ASSERT(n < 2, "n < 2", "Vantor/IntfId");
    return n == 0 ? static_cast<U32>(word_) & maxPart0 : static_cast<U32>(word_ >> 24);
  }
  constexpr void partIs(U32 n, U32 v) {  // keeps 24 bits of part 0
    KOP_ASSERT(n < 2, "n < 2", "Vantor/IntfId");
    if (n == 0)
      word_ = (word_ & ~U64{maxPart0}) | (v & maxPart0);
    else
      word_ = (word_ & ~(U64{0xffffffff} << 24)) | U64{v} << 24;
  }
  constexpr U32 hash() const { return Kop::OneAtATime().u64(word_).result(); }

  Kop::String stringValue() const;
  void bareWrite(Kop::TextOut& out) const;

  friend constexpr auto operator<=>(const IntfId&, const IntfId&) = default;

 private:
  U64 word_ = 0;
};

VANTOR_EXPORT void strepWrite(Kop::TextOut& out, const IntfId& intf);
inline Kop::String valueToStrep(const IntfId& intf) {
  return Kop::strepOf(intf);
}
VANTOR_EXPORT std::ostream& operator<<(std::ostream& out, const IntfId& intf);
inline Kop::NboAttrLog::Out& operator<<(Kop::NboAttrLog::Out& out, const IntfId& intf) {
  out.writeU64(intf.value());
  return out;
}
inline U32 attrLogSize(const IntfId&) {
  return 8;
}

}  // namespace Vantor

static_assert(sizeof(Vantor::IntfId) == 8);
static_assert(std::is_trivially_copyable_v<Vantor::IntfId>);
static_assert(std::has_unique_object_representations_v<Vantor::IntfId>);
template <>
inline constexpr bool Kop::equalIsBitwise<Vantor::IntfId> = true;
