#pragma once

#include "Kop/Hash.h"
#include "Kop/U3.h"
#include "Kop/Value.h"
#include "Tunnel/Export.h"
#include "Tunnel/TunnelIds.h"
#include "Vantor/DynamicMplsLabelStack.h"
#include "Vantor/IntfId.h"
#include "Vantor/IpDscp.h"
#include "Vantor/IpGenAddr.h"
#include "Vantor/IpGenPrefix.h"
#include "Vantor/MplsLabelOperation.h"

// Next hops of tunnels, and where tunnels end.
//
// Each type has rules of its own on what equality, order and hash look at:
//
//                  equality, text, log     order                   hash
//   Via            next hop, interface     interface, next hop     next hop, interface
//   TunnelVia      ... encapsulation       ... encapsulation       as Via
//   MplsVia        ... labels              ... labels              ... labels
//   MplsCosVia     ... labels, DSCP, EXP   ... labels, DSCP        ... labels, DSCP, EXP
//   BgpLuVia       labels, vias            labels, count, vias     labels, vias
//
// Tables are walked interface by interface, so the interface decides an order first. Hashes
// of the vias are one-at-a-time without a seed; a field is folded in as 4 bytes unless the
// type says otherwise.

namespace Tunnel::TunnelTable {

// One hop: an address and the interface towards it.
class TUNNEL_EXPORT Via : public Kop::Value<Via> {
  KOP_VALUE(Via);

  KOP_ATTR(2, Vantor::IpGenAddr, nexthop);
  KOP_ATTR(3, Vantor::IntfId, intfId);
  KOP_FUNCTION(4, U32, hash);
};
TUNNEL_EXPORT bool valueLess(const Via& a, const Via& b);

// A hop behind an encapsulation, which is not in the hash: hops that differ in it alone
// collide.
class TUNNEL_EXPORT TunnelVia : public Via {
  KOP_VALUE(TunnelVia, Via);

  KOP_ATTR(130, EncapId, encapId);
  KOP_REDEFINED(4, U32, hash);
};
TUNNEL_EXPORT bool valueLess(const TunnelVia& a, const TunnelVia& b);

// A hop and what it does to the label stack.
class TUNNEL_EXPORT MplsVia : public Via {
  KOP_VALUE(MplsVia, Via);

  KOP_ATTR(130, Vantor::MplsLabelOperation, labels);
  KOP_REDEFINED(4, U32, hash);
};
TUNNEL_EXPORT bool valueLess(const MplsVia& a, const MplsVia& b);

// A hop with labels and the class of service to mark. Kept in tables in shared memory in
// this form, host byte order at any alignment:
//
//     0          20          28       29        30
//     | nexthop  | intfId    | ipDscp | mplsExp | labels ...
//     | image    | U64       | U8     | U8      | the stack's own form
//
// Order    two that differ in mplsExp alone are unequal, and neither is less.
// Hash     mplsExp is folded in as one byte.
// Log      ipDscp U32, of which the low byte is kept; mplsExp U8, of which 3 bits are kept.
class TUNNEL_EXPORT MplsCosVia : public Via {
  KOP_VALUE(MplsCosVia, Via);

  KOP_ATTR(130, Vantor::DynamicMplsLabelStack, labels);
  KOP_ATTR(131, Vantor::IpDscp, ipDscp);
  KOP_ATTR(132, U3, mplsExp);  // the traffic class
  KOP_CONSTANT(133, U32, mplsCosViaFixedLen, 30);
  KOP_REDEFINED(4, U32, hash);

  // Bytes of the binary form.
  KOP_FUNCTION(134, U32, serializeLen);
  // Writes it; with a null buffer nothing.
  KOP_FUNCTION(135, void, serialize, Kop::VoidPtr buffer);
  // Bytes of the form at the start of `len` bytes. Only the head's when the stack is not
  // complete, or there is not even a head.
  KOP_FUNCTION(136, U32, deserializeLen, Kop::VoidPtrConst buffer, U32 len);

  // Replaces the value by that form. Any family, interface and DSCP is taken as it stands, of
  // mplsExp the low 3 bits and of a label the low 20.
  // Errors   Drem::InvalidSizeException for a form that ends early; the value stays.
  void deserialize(Kop::VoidPtrConst buffer, U32 len);
  KOP_METHOD(137, deserialize);

 public:
  explicit operator bool() const;  // differs from the default
};
TUNNEL_EXPORT bool valueLess(const MplsCosVia& a, const MplsCosVia& b);

// A BGP labelled-unicast hop: one label operation over a set of hops, each with a flag.
//
// Equality  leaves the flags out: a collection that holds an equal value keeps it, with its
//           flags.
// Order     walks the hops in the map's order, which the hops alone decide.
// Hash      folds in the finished hash of each hop.
// Text      is never read back: the string constructor is an assertion.
class TUNNEL_EXPORT BgpLuVia : public Kop::Value<BgpLuVia> {
  KOP_VALUE(BgpLuVia);

  KOP_MAP(2, via, Via, TunnelTable::Via, bool);
  KOP_ATTR(3, Vantor::MplsLabelOperation, labels);
  KOP_FUNCTION(4, U32, hash);

 public:
  explicit BgpLuVia(const Vantor::MplsLabelOperation& labels) : labels_(labels) {}
  explicit operator bool() const;  // differs from the default
};
TUNNEL_EXPORT bool valueEqual(const BgpLuVia& a, const BgpLuVia& b);
TUNNEL_EXPORT bool valueLess(const BgpLuVia& a, const BgpLuVia& b);
[[noreturn]] TUNNEL_EXPORT void valueParse(BgpLuVia& via,
                                           Kop::TextIt& it,
                                           const Kop::TextIt& end);

// Where a tunnel ends, for traffic of one colour or of any.
class TUNNEL_EXPORT ColoredTunnelEndpoint : public Kop::Value<ColoredTunnelEndpoint> {
  KOP_VALUE(ColoredTunnelEndpoint);

  KOP_ATTR(2, Vantor::IpGenPrefix, tep);
  KOP_ATTR(3, U32, color);
  KOP_ATTR(4, bool, isColored);                   // whether color means anything
  KOP_FUNCTION(5, bool, isNullPrefix);            // tep is 0.0.0.0/0 or ::/0
  KOP_FUNCTION(6, Vantor::IpGenAddr, ipGenAddr);  // tep's address
  KOP_FUNCTION(7, Kop::String, stringValue);      // "10.0.0.0/8", "10.0.0.0/8|100"
  KOP_FUNCTION(8, U32, hash, U32 seed);
};

inline U32 Via::hash() const {
  return Kop::OneAtATime().u32(nexthop().hash()).u32(intfId().hash()).result();
}
inline U32 TunnelVia::hash() const {
  return Via::hash();
}
inline U32 MplsVia::hash() const {
  return Kop::OneAtATime()
      .u32(nexthop().hash())
      .u32(intfId().hash())
      .u32(labels().hash())
      .result();
}

inline bool ColoredTunnelEndpoint::isNullPrefix() const {
  return tep().isNullPrefix();
}
inline Vantor::IpGenAddr ColoredTunnelEndpoint::ipGenAddr() const {
  return tep().ipGenAddr();
}

}  // namespace Tunnel::TunnelTable
