#include "Tunnel/Vias.h"

#include <compare>

#include "Drem/Error.h"
#include "Kop/Assert.h"
#include "Kop/ValueImpl.h"
#include "Quarn/Serializer.h"

namespace Tunnel::TunnelTable {

namespace {

constexpr const char* source = "Tunnel/TunnelBasicTypes";

std::strong_ordering hopOrder(const Via& a, const Via& b) {
  const auto order = a.intfId() <=> b.intfId();
  return order != 0 ? order : a.nexthop() <=> b.nexthop();
}

void needWholeHead(const Quarn::Serializer& s, const char* function) {
  if (s.length() != MplsCosVia::mplsCosViaFixedLen)
    Kop::assertFail("s.length() == mplsCosViaFixedLen", source, function);
}

}  // namespace

bool valueLess(const Via& a, const Via& b) {
  return hopOrder(a, b) < 0;
}

bool valueLess(const TunnelVia& a, const TunnelVia& b) {
  const auto order = hopOrder(a, b);
  return order != 0 ? order < 0 : a.encapId().encapIdValue() < b.encapId().encapIdValue();
}

bool valueLess(const MplsVia& a, const MplsVia& b) {
  const auto order = hopOrder(a, b);
  return order != 0 ? order < 0 : a.labels() < b.labels();
}

U32 MplsCosVia::hash() const {
  return Kop::OneAtATime()
      .u32(nexthop().hash())
      .u32(intfId().hash())
      .u32(labels().hash())
      .u32(ipDscp().value())
      .byte(mplsExp())
      .result();
}

bool valueLess(const MplsCosVia& a, const MplsCosVia& b) {
  auto order = hopOrder(a, b);
  if (order == 0) order = a.labels() <=> b.labels();
  return order != 0 ? order < 0 : a.ipDscp() < b.ipDscp();
}

MplsCosVia::operator bool() const {
  return !(*this == MplsCosVia());
}

U32 MplsCosVia::serializeLen() const {
  return mplsCosViaFixedLen + labels().serializeLen();
}

void MplsCosVia::serialize(Kop::VoidPtr buffer) const {
  Quarn::Serializer s(buffer);
  s.put(nexthop());
  s.put(intfId().value());
  s.put(ipDscp().value());
  s.put<U8>(mplsExp());
  needWholeHead(s, "void Tunnel::TunnelTable::MplsCosVia::serialize(Kop::VoidPtr) const");
  labels().serialize(buffer ? static_cast<U8*>(buffer) + mplsCosViaFixedLen : nullptr);
}

U32 MplsCosVia::deserializeLen(Kop::VoidPtrConst buffer, U32 len) const {
  if (!buffer || len < mplsCosViaFixedLen) return mplsCosViaFixedLen;
  return mplsCosViaFixedLen + Vantor::DynamicMplsLabelStack::deserializeLen(
                                  static_cast<const U8*>(buffer) + mplsCosViaFixedLen,
                                  len - mplsCosViaFixedLen);
}

void MplsCosVia::deserialize(Kop::VoidPtrConst buffer, U32 len) {
  if (len < mplsCosViaFixedLen)
    Drem::fmthrow<Drem::InvalidSizeException>("MplsCosVia", "deserialize",
                                              "expected size <= {}, instead got {}", len,
                                              U32{mplsCosViaFixedLen});
  Quarn::Serializer s(buffer);
  MplsCosVia read;
  read.nexthopIs(s.get<Vantor::IpGenAddr>());
  read.intfIdIs(Vantor::IntfId::fromValue(s.get<U64>()));
  read.ipDscpIs(Vantor::IpDscp(s.get<U8>()));
  read.mplsExpIs(U3::cut(s.get<U8>()));
  needWholeHead(
      s, "void Tunnel::TunnelTable::MplsCosVia::deserialize(Kop::VoidPtrConst, U32)");
  read.labels_.deserialize(s.cursor(), len - mplsCosViaFixedLen);
  *this = std::move(read);
}

U32 BgpLuVia::hash() const {
  Kop::OneAtATime hash;
  hash.u32(labels().hash());
  for (const auto& node : via())
    hash.u32(node.key().hash());
  return hash.result();
}

BgpLuVia::operator bool() const {
  return !(*this == BgpLuVia());
}

bool valueEqual(const BgpLuVia& a, const BgpLuVia& b) {
  if (!(a.labels() == b.labels()) || a.via().count() != b.via().count()) return false;
  for (auto x = a.via().iteratorConst(), y = b.via().iteratorConst(); x && y;
       x.advance(), y.advance())
    if (!(x.key() == y.key())) return false;
  return true;
}

bool valueLess(const BgpLuVia& a, const BgpLuVia& b) {
  if (!(a.labels() == b.labels())) return a.labels() < b.labels();
  if (a.via().count() != b.via().count()) return a.via().count() < b.via().count();
  for (auto x = a.via().iteratorConst(), y = b.via().iteratorConst(); x && y;
       x.advance(), y.advance()) {
    const auto order = hopOrder(x.key(), y.key());
    if (order != 0) return order < 0;
  }
  return false;
}

void valueParse(BgpLuVia&, Kop::TextIt&, const Kop::TextIt&) {
  Kop::noStringConstructor("!\"No String constructor for BgpLuVia - has collection\"",
                           source);
}

Kop::String ColoredTunnelEndpoint::stringValue() const {
  Kop::TextOut out;
  tep().bareWrite(out);
  if (isColored()) {
    out.append('|');
    out.number(color());
  }
  return out.string();
}

U32 ColoredTunnelEndpoint::hash(U32 seed) const {
  return Kop::ValueOps<ColoredTunnelEndpoint>::recordHash(*this, seed);
}

}  // namespace Tunnel::TunnelTable
