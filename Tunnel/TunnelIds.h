#pragma once

#include <iosfwd>

#include "Brel/ChipId.h"
#include "Kop/Exception.h"
#include "Kop/Hash.h"
#include "Kop/Value.h"
#include "Tunnel/Export.h"
#include "Vantor/AddressFamily.h"
#include "Vantor/IntfId.h"

// The kinds of tunnels and tables, the word that names a tunnel, and the small values that
// tunnel entries and next hops carry.
//
// Numbers of enumerators and layouts of words are wire format: append, never renumber.

namespace Tunnel {

using Kop::strepToValue;

// Bits of a GRE header's first word, and the mask of its version.
KOP_ENUM(GreHdrFlagsType,
         U32,
         noFlag = 0,
         checksumFlag = 32768,
         keyFlag = 8192,
         sequenceFlag = 4096,
         versionMask = 7);

// Whether the command line shows OSPF segment-routing and IS-IS flex-algorithm tunnels as
// what they are; they change nothing else. Asked once per process, true when nothing is
// configured.
//
// Errors   those of getToggleState; the next call then asks again.
// Threads  any.
TUNNEL_EXPORT bool toggleFlexAlgoEnabled();
TUNNEL_EXPORT bool toggleOspfSegmentRoutingTunnelEnabled();

namespace TunnelTable {

using Kop::strepToValue;
using Tunnel::toggleFlexAlgoEnabled;
using Tunnel::toggleOspfSegmentRoutingTunnelEnabled;

// How packets get to a next hop.
KOP_ENUM(NexthopType,
         U8,
         invalid = 0,
         gre = 1,
         mpls = 2,
         mplsOverGre = 3,
         mplsOverUdp = 4,
         ip = 5);

// What an EncapId names.
KOP_ENUM(EncapType,
         U8,
         invalidEncap = 0,
         greEncap = 1,
         ipSecEncap = 2,
         ipSecGreEncap = 3,
         mplsEncap = 4,
         vxlanEncap = 5);

// The tunnel tables. Their numbers do not follow those of the tunnel types they hold, and 12
// to 14, the interface tables, hold none: ask TunnelId::tableType.
KOP_ENUM(TunnelTableIdentifier,
         U8,
         invalidTunnelTable = 0,
         bgpLuTunnelTable = 1,
         bgpLuPushTunnelTable = 2,
         ldpTunnelTable = 3,
         rsvpFrrTunnelTable = 4,
         rsvpLerSubTunnelTable = 5,
         rsvpLerTunnelTable = 6,
         srTunnelTable = 7,
         ospfSrTunnelTable = 8,
         staticTunnelTable = 9,
         nexthopGroupTunnelTable = 10,
         srTeSegmentListTunnelTable = 11,
         greTunnelInterfaceTunnelTable = 12,
         ipsecVtiTunnelInterfaceTunnelTable = 13,
         ipsecGreTunnelInterfaceTunnelTable = 14,
         evpnVxlanTunnelTable = 15,
         tiLfaTunnelTable = 16,
         srTePolicyTunnelTable = 17,
         kelSdkSbfdSessionTunnelTable = 18,
         isisFlexAlgoTunnelTable = 19,
         mldpTunnelTable = 20);

// Who made a tunnel and how. 31 is the largest number that fits the field of a TunnelId.
KOP_ENUM(TunnelType,
         U32,
         invalidTunnel = 0,
         bgpLuPushTunnel = 1,
         bgpLuTunnel = 2,
         ldpTunnel = 3,
         nexthopTunnel = 4,
         staticTunnel = 5,
         evpnVxlanTunnel = 6,
         srTunnel = 7,
         srTeSegmentListTunnel = 8,
         staticInterfaceTunnel = 9,
         rsvpTunnel = 10,
         nexthopGroupTunnel = 11,
         tiLfaTunnel = 12,
         ospfSrTunnel = 13,
         srTePolicyTunnel = 14,
         vxlanVtepEncapTunnel = 15,
         rsvpLerTunnel = 16,
         rsvpFrrTunnel = 17,
         kelSdkSbfdSessionTunnel = 18,
         vxlanTunnel = 19,
         rsvpLerSubTunnel = 20,
         isisFlexAlgoTunnel = 21,
         mldpTunnel = 22,
         maxTunnelType = 31);

// Whether a kind of tunnel goes into the tunnel RIB. There is no 0: nobody may forget to say.
KOP_ENUM(ContributionToTunnelRIB, U32, contributing = 1, nonContributing = 2);

// What a tunnel's packets are carried in.
KOP_ENUM(TunnelTransportType, U8, unknownTunnel = 0, mplsTunnel = 1, ipTunnel = 2);

// The layout of a TunnelId. The flex-algorithm number lies over the top of the index, in
// identifiers of type isisFlexAlgoTunnel only.
class TUNNEL_EXPORT TunnelIdConstants : public Kop::Value<TunnelIdConstants> {
  KOP_VALUE(TunnelIdConstants);

  KOP_CONSTANT(2, U64, tunnelIndexMask, 0x7ffffffffff);
  KOP_CONSTANT(3, U64, tunnelAfMask, 0x80000000000);
  KOP_CONSTANT(4, U64, tunnelTypeMask, 0x1f00000000000);
  KOP_CONSTANT(5, U64, flexAlgoIdMask, 0x7f800000000);
  KOP_CONSTANT(6, U8, tunnelTypePos, 44);
  KOP_CONSTANT(7, U8, tunnelAfPos, 43);
  KOP_CONSTANT(8, U8, flexAlgoPos, 35);
};

// Names one tunnel anywhere in the system, in one word:
//
//   bit 63        48    44 43 42      35 34                    0
//      +------------+------+--+---------+-----------------------+
//      |      0     | type |AF|         index                   |
//      |            |      |  |flex algo|    of flex-algo ids   |
//      +------------+------+--+---------+-----------------------+
//
// AF is 0 for IPv4, 1 for IPv6. The word 0 names no tunnel. A word that came over the
// attribute log is not checked, so its type may be any number.
//
// Errors   a number above maxValue, from text or a constructor: RangeException.
class TUNNEL_EXPORT TunnelId : public Kop::Value<TunnelId> {
  KOP_VALUE(TunnelId);

  KOP_WRAPPED(2, U64, value);
  KOP_CONSTANT(3, U64, invalid, 0);
  KOP_CONSTANT(4, U32, typeMin, 0);
  KOP_CONSTANT(5, U32, typeMax, 15);  // older than types above 15; not a limit
  KOP_CONSTANT(6, U64, minValue, 0);
  KOP_CONSTANT(7, U64, maxValue, 0x1ffffffffffff);

  KOP_FUNCTION(8, bool, isValid);  // names a tunnel: not 0
  KOP_FUNCTION(9, TunnelType, tunnelType);
  KOP_FUNCTION(10, U64, tunnelIndex);  // 43 bits, 35 in flex-algo identifiers
  // The table that holds the tunnel. An assertion for a type that has none: only who knows
  // the type to have a table asks.
  KOP_FUNCTION(11, TunnelTableIdentifier, tableType);
  KOP_FUNCTION(12, TunnelTransportType, tunnelTransportType);  // InternalException
  // By type: the family bit, always noAddressFamily, or IPv4 and InternalException when the
  // bit says IPv6.
  KOP_FUNCTION(13, Vantor::AddressFamily, tunnelAf);
  KOP_FUNCTION(14, bool, supportsEntropyLabelPush);
  KOP_FUNCTION(15, U64, extractIndexAndAf);   // the low 44 bits
  KOP_FUNCTION(16, U8, extractFlexAlgoId);    // RangeException for other types
  KOP_FUNCTION(17, Kop::String, toStrep);     // "Table:ldpTunnel-Index:1a", for logs
  KOP_FUNCTION(18, Kop::String, toCliStrep);  // "LDP tunnel index 26"
  KOP_FUNCTION(19, Kop::String, typeCliStr);  // "LDP"
  // "IPv6" or "IPv4" by the family bit alone, whatever the type.
  KOP_FUNCTION(20, Kop::String, addressFamilyCliStr);
  // The interface that stands for the tunnel; SR-TE policies have a type of their own.
  KOP_FUNCTION(21, Vantor::IntfId, intfId);
  // Its name. A static interface tunnel is called "Tunnel<index>" although its interface is
  // a dynamic one.
  KOP_FUNCTION(22, Kop::String, intfCliStr);
  KOP_FUNCTION(23, U32, hash);

 public:
  explicit TunnelId(U64 value) : value_(value) {
    if (value > maxValue) [[unlikely]]
      throwOutOfRange();
  }

  static bool isFlexAlgoTunnelType(TunnelType type) { return type == isisFlexAlgoTunnel; }
  KOP_METHOD(24, isFlexAlgoTunnelType);

  // The word of a tunnel. Of the type only the low 5 bits are kept.
  // Errors   RangeException when indexAndAf has more than 44 bits.
  static U64 convertToTunnelValue(TunnelType type, U64 indexAndAf);
  KOP_METHOD(25, convertToTunnelValue);

  // Likewise with an algorithm's number. The caller keeps the index below 2^35: higher bits
  // merge with the number.
  // Errors   RangeException for another type, or as above.
  static U64 convertToFlexAlgoTunnelValue(TunnelType type, U8 algoId, U64 indexAndAf);
  KOP_METHOD(26, convertToFlexAlgoTunnelValue);

  // What the command line calls a type; empty for a number that is none. With `json` a type
  // that is not to be shown has a fixed spelling instead of the enumerator's text.
  static Kop::String tunnelTypeToCliStrep(TunnelType type, bool json);
  KOP_METHOD(27, tunnelTypeToCliStrep);

 private:
  [[noreturn]] static void throwOutOfRange();
};

// Inserts the number, with the stream's own flags.
TUNNEL_EXPORT std::ostream& operator<<(std::ostream& out, const TunnelId& id);

// The layout of an EncapId.
class TUNNEL_EXPORT EncapIdConstants : public Kop::Value<EncapIdConstants> {
  KOP_VALUE(EncapIdConstants);

  KOP_CONSTANT(2, U32, encapTypeMask, 0xf0000000);
  KOP_CONSTANT(3, U32, encapIndexMask, 0x0fffffff);
  KOP_CONSTANT(4, U8, encapTypePos, 28);
};

// Names an encapsulation: its kind in bits 28-31, an index below.
class TUNNEL_EXPORT EncapId : public Kop::Value<EncapId> {
  KOP_VALUE(EncapId);

  KOP_ATTR(2, U32, encapIdValue);  // the setter takes any word
  KOP_FUNCTION(3, EncapType, encapType);
  KOP_FUNCTION(4, U32, encapIndex);  // 28 bits

  // Both fields at once.
  // Errors   RangeException when the index has more than 28 bits.
  void encapValueIs(EncapType type, U32 index);
  KOP_METHOD(5, encapValueIs);

  KOP_FUNCTION(6, Kop::String, typeCliStr, bool json);

  // What the command line calls a kind; empty for a number that is none. VXLAN is shown as
  // invalid.
  static Kop::String typeCliStrep(EncapType type, bool json);
  KOP_METHOD(7, typeCliStrep);

 public:
  explicit EncapId(U32 value) : encapIdValue_(value) {}
};

// Names a tunnel as one chip knows it. Ordered by index, then chip.
class TUNNEL_EXPORT HwTunnelKey : public Kop::Value<HwTunnelKey> {
  KOP_VALUE(HwTunnelKey);

  KOP_ATTR(2, U64, index);
  KOP_ATTR(3, Brel::ChipId, chipId);
  KOP_FUNCTION(4, U32, hash, U32 seed);
};

// What a tunnel can carry, in the unit of the protocol that announced it. Nothing is known
// by default, which is not the same as defaultValue.
class TUNNEL_EXPORT TunnelBandwidth : public Kop::Value<TunnelBandwidth> {
  KOP_VALUE(TunnelBandwidth);

  KOP_WRAPPED(2, float, value, -1.0f);
  KOP_CONSTANT(3, float, defaultValue, 0.0f);
  KOP_CONSTANT(4, float, invalidValue, -1.0f);
  KOP_FUNCTION(5, bool, isPresent);  // not exactly -1.0; NaN is present
  KOP_FUNCTION(6, bool, isValid);    // a finite number from 0.0 up

 public:
  explicit TunnelBandwidth(float value) : value_(value) {}
};

// Inserts the number, with the stream's own flags.
TUNNEL_EXPORT std::ostream& operator<<(std::ostream& out,
                                       const TunnelBandwidth& bandwidth);

}  // namespace TunnelTable

// Counts the versions of a tunnel entry. 0 is no version; a live number runs from 1 to 65535
// and on at 1. Unhashable.
class TUNNEL_EXPORT TunnelEntrySequenceNumber
    : public Kop::Value<TunnelEntrySequenceNumber> {
  KOP_VALUE(TunnelEntrySequenceNumber);

  KOP_WRAPPED(2, U16, value);
  KOP_CONSTANT(3, U16, null, 0);
  KOP_CONSTANT(4, U16, min, 1);
  KOP_CONSTANT(5, U16, max, 65535);

  // Adds modulo 2^16; a sum of 0 becomes 1, unless nothing was added.
  void inc(TunnelEntrySequenceNumber n);
  KOP_METHOD(6, inc);

 public:
  explicit TunnelEntrySequenceNumber(U16 value) : value_(value) {}
  TunnelEntrySequenceNumber& operator+=(TunnelEntrySequenceNumber n) {
    inc(n);
    return *this;
  }
};

// Inserts the number, with the stream's own flags.
TUNNEL_EXPORT std::ostream& operator<<(std::ostream& out,
                                       const TunnelEntrySequenceNumber& number);

namespace TunnelTable {

inline bool TunnelId::isValid() const {
  return value_ != invalid;
}
inline TunnelType TunnelId::tunnelType() const {
  return static_cast<TunnelType>(value_ >> TunnelIdConstants::tunnelTypePos);
}
inline U64 TunnelId::tunnelIndex() const {
  constexpr U64 flexAlgoIndexMask =
      TunnelIdConstants::tunnelIndexMask & ~TunnelIdConstants::flexAlgoIdMask;
  return value_ &
         (isFlexAlgoTunnelType(tunnelType()) ? flexAlgoIndexMask
                                             : TunnelIdConstants::tunnelIndexMask);
}
inline U64 TunnelId::extractIndexAndAf() const {
  return value_ & (TunnelIdConstants::tunnelIndexMask | TunnelIdConstants::tunnelAfMask);
}
// One-at-a-time over the 8 bytes, low byte first, without a seed.
inline U32 TunnelId::hash() const {
  return Kop::OneAtATime().u64(value_).result();
}

inline EncapType EncapId::encapType() const {
  return static_cast<EncapType>(encapIdValue_ >> EncapIdConstants::encapTypePos);
}
inline U32 EncapId::encapIndex() const {
  return encapIdValue_ & EncapIdConstants::encapIndexMask;
}

inline bool TunnelBandwidth::isPresent() const {
  return value_ != invalidValue;
}

}  // namespace TunnelTable

inline void TunnelEntrySequenceNumber::inc(TunnelEntrySequenceNumber n) {
  value_ = static_cast<U16>(value_ + n.value_);
  if (value_ == null && n.value_ != 0) value_ = min;
}

}  // namespace Tunnel

template <>
inline constexpr bool Kop::equalIsBitwise<Tunnel::TunnelTable::TunnelId> = true;
template <>
inline constexpr bool Kop::equalIsBitwise<Tunnel::TunnelTable::EncapId> = true;

// Only the source that has their hand-written rules may make their operations: another one, such
// as that of the module, would make plain ones and inline them.
extern template struct Kop::ValueOps<Tunnel::TunnelTable::TunnelId>;
extern template struct Kop::ValueOps<Tunnel::TunnelTable::TunnelBandwidth>;
extern template struct Kop::ValueOps<Tunnel::TunnelEntrySequenceNumber>;
