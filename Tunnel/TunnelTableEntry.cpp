#include "Tunnel/TunnelTableEntry.h"

#include <compare>
#include <iterator>

#include "Kop/Assert.h"
#include "Kop/ValueImpl.h"
#include "Quarn/Serializer.h"

namespace Tunnel::TunnelTable {

namespace {

constexpr const char* source = "Tunnel/TunnelTableHivelTypes";

// By type number; 0 where there is no type.
constexpr auto defaultPrefs = [] {
  using Pref = TunnelEntryPref;
  std::array<U8, maxTunnelType + 1> prefs{};
  for (U32 type = invalidTunnel; type <= mldpTunnel; ++type)
    prefs[type] = Pref::maxPref;
  prefs[maxTunnelType] = Pref::maxPref;
  prefs[staticTunnel] = Pref::defaultStaticPref;
  prefs[nexthopGroupTunnel] = Pref::defaultNexthopGroupPref;
  prefs[rsvpLerTunnel] = Pref::defaultRsvpLerPref;
  prefs[ldpTunnel] = Pref::defaultLdpPref;
  prefs[ospfSrTunnel] = Pref::defaultOspfSrPref;
  prefs[srTunnel] = prefs[isisFlexAlgoTunnel] = Pref::defaultSrPref;
  prefs[bgpLuTunnel] = Pref::defaultBgpLuPref;
  return prefs;
}();

template <class Index>
[[noreturn, gnu::cold]] void throwIndexOutOfRange() {
  std::string text;
  const auto name = Kop::typeName<Index>();
  text.append(name).append("::value < ").append(name).append("::min or > ");
  text.append(name).append("::max not allowed");
  throw Kop::RangeException(text);
}

// A number too large for the width is as wrong as one that is too large for the index.
template <class Index>
Index readIndex(Kop::TextIt& it, const Kop::TextIt& end) {
  Kop::TextIt at = it;
  const U64 number = Kop::readAttr<U64>(at, end, "value");
  if (number > Index::max) throwIndexOutOfRange<Index>();
  it = at;
  return Index(static_cast<decltype(Index::max)>(number));
}

// Where the counts of a record stand.
constexpr U32 endpointCountAt = 25;
constexpr U32 fixedSize = 33;  // of a record without end points and name

}  // namespace

U8 TunnelEntryPref::getDefaultPrefForType(TunnelType type) {
  const U8 pref = type < defaultPrefs.size() ? defaultPrefs[type] : U8{0};
  KOP_ASSERT(pref != 0, "false && \"Unknown tunnel type\"", source);
  return pref;
}

void TepIndex::throwOutOfRange() {
  throwIndexOutOfRange<TepIndex>();
}
void NameIndex::throwOutOfRange() {
  throwIndexOutOfRange<NameIndex>();
}
void ViaIndex::throwOutOfRange() {
  throwIndexOutOfRange<ViaIndex>();
}
void NextHopIndex::throwOutOfRange() {
  throwIndexOutOfRange<NextHopIndex>();
}

void valueParse(TepIndex& index, Kop::TextIt& it, const Kop::TextIt& end) {
  index = readIndex<TepIndex>(it, end);
}
void valueParse(NameIndex& index, Kop::TextIt& it, const Kop::TextIt& end) {
  index = readIndex<NameIndex>(it, end);
}
void valueParse(ViaIndex& index, Kop::TextIt& it, const Kop::TextIt& end) {
  index = readIndex<ViaIndex>(it, end);
}
void valueParse(NextHopIndex& index, Kop::TextIt& it, const Kop::TextIt& end) {
  index = readIndex<NextHopIndex>(it, end);
}

void valueLogRead(TepIndex& index, Kop::NboAttrLog::In& in) {
  index = TepIndex(in.nextU8());
}
void valueLogRead(NameIndex& index, Kop::NboAttrLog::In& in) {
  index = NameIndex(in.nextU8());
}
void valueLogRead(ViaIndex& index, Kop::NboAttrLog::In& in) {
  index = ViaIndex(in.nextU16());
}
void valueLogRead(NextHopIndex& index, Kop::NboAttrLog::In& in) {
  index = NextHopIndex(in.nextU32());
}

Vantor::IpGenPrefix TunnelTableEntry::tep() const {
  return endpoint(TepIndex(0));
}

Kop::String TunnelTableEntry::getName() const {
  return {reinterpret_cast<const char*>(name_.data()), name_.count()};
}

void TunnelTableEntry::setName(const Kop::String& name) {
  const U32 size = std::min(name.size(), maxNameSize);
  name_.set(name.data(), size, size);
}

U32 TunnelTableEntry::serializeLen() const {
  return fixedSize + endpoint_.count() * U32{sizeof(Vantor::IpGenPrefix)} + name_.count();
}

void TunnelTableEntry::serialize(Kop::VoidPtr buffer) const {
  if (!buffer) return;
  Quarn::Serializer out(buffer);
  out.put(tunnelId_.value());
  out.put(nexthopTunnelId_.value());
  out.put(entryPref_.value());
  out.put(entryMetric_);
  out.put(tunnelBw_.value());
  out.put(endpoint_.count());
  if (endpoint_.count() == 1)  // as usual: copied without a call
    out.put(*endpoint_.data());
  else
    out.put(endpoint_.data(), endpoint_.count() * U32{sizeof(Vantor::IpGenPrefix)});
  out.put(name_.count());
  out.put(name_.data(), name_.count());
}

void TunnelTableEntry::deserialize(Kop::VoidPtrConst buffer, U32 len) {
  Quarn::Serializer in(buffer);
  const auto bytesLeft = [&] { return len - std::min(len, in.length()); };
  // A word of an old peer may hold a type that has no name; it is kept as it stands.
  in.get(&tunnelId_, sizeof tunnelId_);
  in.get(&nexthopTunnelId_, sizeof nexthopTunnelId_);
  entryPref_ = TunnelEntryPref(in.get<U8>());
  entryMetric_ = in.get<U32>();
  tunnelBw_ = TunnelBandwidth(in.get<float>());
  const auto endpoints = in.get<U32>();
  endpoint_.set(in.cursor(), endpoints, bytesLeft());
  in.skip(endpoints * U32{sizeof(Vantor::IpGenPrefix)});
  const auto nameSize = in.get<U32>();
  name_.set(in.cursor(), nameSize, bytesLeft());
}

U32 TunnelTableEntry::deserializeLen(Kop::VoidPtrConst buffer, U32 available) const {
  const auto* const bytes = static_cast<const U8*>(buffer);
  // In 64 bits, where no count can make a sum wrap.
  const auto countAt = [&](U64 offset) -> U64 {
    return Quarn::Serializer(static_cast<const void*>(bytes + offset)).get<U32>();
  };
  if (available < fixedSize) return 0;
  const U64 endpointBytes = countAt(endpointCountAt) * sizeof(Vantor::IpGenPrefix);
  if (fixedSize + endpointBytes > available) return 0;
  const U64 size =
      fixedSize + endpointBytes + countAt(endpointCountAt + sizeof(U32) + endpointBytes);
  return size <= available ? static_cast<U32>(size) : 0;
}

bool valueLess(const TunnelTableEntry& a, const TunnelTableEntry& b) {
  const U8 ourDefault = TunnelEntryPref::getDefaultPrefForType(a.tunnelId().tunnelType());
  const U8 theirDefault =
      TunnelEntryPref::getDefaultPrefForType(b.tunnelId().tunnelType());
  if (a.entryPref() != b.entryPref()) return a.entryPref() < b.entryPref();
  if (ourDefault != theirDefault) return ourDefault < theirDefault;
  if (a.entryMetric() != b.entryMetric()) return a.entryMetric() < b.entryMetric();
  if (a.tunnelId() != b.tunnelId()) return a.tunnelId() < b.tunnelId();
  const float ourBw = a.tunnelBw().value(), theirBw = b.tunnelBw().value();
  if (ourBw < theirBw || theirBw < ourBw) return ourBw < theirBw;
  if (a.endpoint() != b.endpoint()) return a.endpoint() < b.endpoint();
  if (a.nexthopTunnelId() != b.nexthopTunnelId())
    return a.nexthopTunnelId() < b.nexthopTunnelId();
  return a.name() < b.name();
}

U32 valueHash(const TunnelTableEntry&, U32) = delete;

void valueParse(TunnelTableEntry&, Kop::TextIt&, const Kop::TextIt&) {
  Kop::noStringConstructor(
      "!\"No String constructor for TunnelTableEntry - has collection\"", source);
}

}  // namespace Tunnel::TunnelTable

KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::TunnelEntryPref);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::TepIndex);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::NameIndex);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::ViaIndex);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::NextHopIndex);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::Id64);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::TunnelCounterId);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::TunnelTableEntry);
