#pragma once

#include "Kop/PodArray.h"
#include "Tunnel/TunnelBasicTypes.h"
#include "Vantor/IpGenPrefix.h"

// The row of every tunnel table, and the small values that it and its neighbours are made of.

namespace Tunnel::TunnelTable {

// How good a tunnel is by who made it; lower is better. The worst preference and an invalid
// one are the same number on purpose: a tunnel that says nothing is chosen last.
class TUNNEL_EXPORT TunnelEntryPref : public Kop::Value<TunnelEntryPref> {
  KOP_VALUE(TunnelEntryPref);

  KOP_WRAPPED(2, U8, value);
  KOP_CONSTANT(3, U8, defaultStaticPref, 15);
  KOP_CONSTANT(4, U8, defaultNexthopGroupPref, 25);
  KOP_CONSTANT(5, U8, defaultRsvpLerPref, 45);
  KOP_CONSTANT(6, U8, defaultLdpPref, 55);
  KOP_CONSTANT(7, U8, defaultOspfSrPref, 60);
  KOP_CONSTANT(8, U8, defaultSrPref, 65);  // of IS-IS flex-algorithm tunnels as well
  KOP_CONSTANT(9, U8, defaultBgpLuPref, 85);
  KOP_CONSTANT(10, U8, maxPref, 255);
  KOP_CONSTANT(11, U8, invalidPref, 255);

  // What a tunnel of the type has when nobody configured another; maxPref for a type without
  // a default. A number that is no type is an assertion.
  static U8 getDefaultPrefForType(TunnelType type);
  KOP_METHOD(12, getDefaultPrefForType);

 public:
  explicit TunnelEntryPref(U8 value) : value_(value) {}
};

// The four indices below take numbers from min to max.
// Errors   RangeException for another, from a constructor, text or log.

// Index into the end points of a tunnel.
class TUNNEL_EXPORT TepIndex : public Kop::Value<TepIndex> {
  KOP_VALUE(TepIndex);

  KOP_WRAPPED(2, U8, value);
  KOP_CONSTANT(3, U8, min, 0);
  KOP_CONSTANT(4, U8, max, 15);

 public:
  explicit TepIndex(U8 value) : value_(value) {
    if (value > max) [[unlikely]]
      throwOutOfRange();
  }

 private:
  [[noreturn]] static void throwOutOfRange();
};

// Index into the bytes of a tunnel's name.
class TUNNEL_EXPORT NameIndex : public Kop::Value<NameIndex> {
  KOP_VALUE(NameIndex);

  KOP_WRAPPED(2, U8, value);
  KOP_CONSTANT(3, U8, min, 0);
  KOP_CONSTANT(4, U8, max, 127);

 public:
  explicit NameIndex(U8 value) : value_(value) {
    if (value > max) [[unlikely]]
      throwOutOfRange();
  }

 private:
  [[noreturn]] static void throwOutOfRange();
};

// Index into a list of vias.
class TUNNEL_EXPORT ViaIndex : public Kop::Value<ViaIndex> {
  KOP_VALUE(ViaIndex);

  KOP_WRAPPED(2, U16, value);
  KOP_CONSTANT(3, U16, min, 0);
  KOP_CONSTANT(4, U16, max, 599);

 public:
  explicit ViaIndex(U16 value) : value_(value) {
    if (value > max) [[unlikely]]
      throwOutOfRange();
  }

 private:
  [[noreturn]] static void throwOutOfRange();
};

// Index of a next hop.
class TUNNEL_EXPORT NextHopIndex : public Kop::Value<NextHopIndex> {
  KOP_VALUE(NextHopIndex);

  KOP_WRAPPED(2, U32, value);
  KOP_CONSTANT(3, U32, min, 0);
  KOP_CONSTANT(4, U32, max, 127);

 public:
  explicit NextHopIndex(U32 value) : value_(value) {
    if (value > max) [[unlikely]]
      throwOutOfRange();
  }

 private:
  [[noreturn]] static void throwOutOfRange();
};

// Any 64-bit identifier.
class TUNNEL_EXPORT Id64 : public Kop::Value<Id64> {
  KOP_VALUE(Id64);

  KOP_WRAPPED(2, U64, value);

 public:
  explicit Id64(U64 value) : value_(value) {}
};

// Names a counter of a tunnel's packets.
class TUNNEL_EXPORT TunnelCounterId : public Kop::Value<TunnelCounterId> {
  KOP_VALUE(TunnelCounterId);

  KOP_WRAPPED(2, U64, value);

 public:
  // The number of two halves.
  static U64 convertToTunnelValue(U32 high, U32 low) { return U64{high} << 32 | low; }
  KOP_METHOD(3, convertToTunnelValue);

 public:
  explicit TunnelCounterId(U64 value) : value_(value) {}
};

// The row of every tunnel table: one resolved tunnel as the tunnel RIB sees it.
//
// Everything stands in the object, which is copied as its bytes; nothing that is done with it
// allocates memory, but for texts and the name as a string. Unhashable, and not read from
// text: that is an assertion.
//
// Binary form, of the rows of tables in shared memory, in host byte order without padding:
//
//   offset     width
//        0         8   tunnelId
//        8         8   nexthopTunnelId
//       16         1   entryPref
//       17         4   entryMetric
//       21         4   tunnelBw, IEEE 754
//       25         4   n, number of end points, 0..16
//       29      24 n   the end points
//   29 + 24 n      4   m, bytes of the name, 0..128
//   33 + 24 n      m   the name
//
// Log      the attributes in order, both arrays at their full capacity and without counts, so
//          that an entry read from the log has 16 end points and a name of 128 bytes.
class TUNNEL_EXPORT TunnelTableEntry : public Kop::Value<TunnelTableEntry> {
  KOP_VALUE(TunnelTableEntry);

  static constexpr U32 maxEndpoints = 16;
  static constexpr U32 maxNameSize = 128;  // bytes

  KOP_ATTR(2, TunnelId, tunnelId);
  KOP_ATTR(3, TunnelId, nexthopTunnelId);  // the tunnel it resolves over, 0 for none
  KOP_ATTR(4, TunnelEntryPref, entryPref);

 private:
  [[maybe_unused]] U8 gap_[3] = {};  // no byte of a copy is undefined

  KOP_ATTR(5, U32, entryMetric);
  KOP_ATTR(6, TunnelBandwidth, tunnelBw, TunnelBandwidth::defaultValue);
  // The first is the tunnel's own.
  KOP_ARRAY(7, endpoint, Endpoint, Vantor::IpGenPrefix, TepIndex, maxEndpoints);
  KOP_ARRAY(8, name, Name, U8, NameIndex, maxNameSize);  // text, not terminated

 private:
  [[maybe_unused]] U32 end_ = 0;

  KOP_FUNCTION(9, Vantor::IpGenPrefix, tep);  // end point 0, or the default
  KOP_FUNCTION(10, Kop::String, getName);

  // Cuts a longer name to its first maxNameSize bytes.
  void setName(const Kop::String& name);
  KOP_METHOD(11, setName);

  KOP_FUNCTION(12, U32, serializeLen);  // bytes, 33 to 545

  // Writes serializeLen() bytes; nothing into a null buffer.
  void serialize(Kop::VoidPtr buffer) const;
  KOP_METHOD(13, serialize);

  // Reads a record that deserializeLen found complete; len is the number of bytes that
  // an error may show, and bounds nothing else.
  // Errors   Drem::InvalidSizeException for more elements than an array has room for; the
  //          attributes in front of it are then those of the record.
  void deserialize(Kop::VoidPtrConst buffer, U32 len);
  KOP_METHOD(14, deserialize);

  // The length of the record at the start of a buffer of `available` bytes; 0 when it is not
  // complete. Reads no byte beyond. What deserialize would refuse has a length as well.
  U32 deserializeLen(Kop::VoidPtrConst buffer, U32 available) const;
  KOP_METHOD(15, deserializeLen);

 public:
  TunnelTableEntry(const TunnelId& tunnelId, const TunnelEntryPref& entryPref)
      : tunnelId_(tunnelId), entryPref_(entryPref) {}

  // Sets end point 0 and leaves the others.
  void tepIs(const Vantor::IpGenPrefix& tep) { endpointIs(TepIndex(0), tep); }
};

// The better entry first: by entryPref, the default preference of the tunnel's type,
// entryMetric, tunnelId, tunnelBw, the end points, nexthopTunnelId, the name by its bytes. A
// bandwidth that is no number decides nothing. A type that is none is an assertion, whatever
// else the entries hold.
TUNNEL_EXPORT bool valueLess(const TunnelTableEntry& a, const TunnelTableEntry& b);

static_assert(std::is_trivially_copyable_v<TunnelTableEntry>);
static_assert(sizeof(TunnelTableEntry) == 552);

}  // namespace Tunnel::TunnelTable

template <>
inline constexpr bool Kop::equalIsBitwise<Tunnel::TunnelTable::TunnelEntryPref> = true;
template <>
inline constexpr bool Kop::equalIsBitwise<Tunnel::TunnelTable::TepIndex> = true;
template <>
inline constexpr bool Kop::equalIsBitwise<Tunnel::TunnelTable::NameIndex> = true;
template <>
inline constexpr bool Kop::equalIsBitwise<Tunnel::TunnelTable::ViaIndex> = true;
template <>
inline constexpr bool Kop::equalIsBitwise<Tunnel::TunnelTable::NextHopIndex> = true;
template <>
inline constexpr bool Kop::equalIsBitwise<Tunnel::TunnelTable::Id64> = true;
template <>
inline constexpr bool Kop::equalIsBitwise<Tunnel::TunnelTable::TunnelCounterId> = true;

// Only the source that has their hand-written rules may make their operations: another one, such
// as that of the module, would make plain ones and inline them.
extern template struct Kop::ValueOps<Tunnel::TunnelTable::TepIndex>;
extern template struct Kop::ValueOps<Tunnel::TunnelTable::NameIndex>;
extern template struct Kop::ValueOps<Tunnel::TunnelTable::ViaIndex>;
extern template struct Kop::ValueOps<Tunnel::TunnelTable::NextHopIndex>;
extern template struct Kop::ValueOps<Tunnel::TunnelTable::TunnelTableEntry>;
