#pragma once

#include <array>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Vantor/IpGenPrefix.h"
#include "apps/fpmagent/Frames.h"

// The netlink messages of a forwarding-plane manager as values: what the kernel's headers
// call RTM_NEWROUTE, RTM_DELROUTE, RTM_NEWNEXTHOP and RTM_DELNEXTHOP, in the sender's byte
// order, which is this machine's.

namespace Fpm {

// A stack of MPLS labels, the outermost first. Of a stack deeper than `maxKept` only the
// depth is known.
struct Labels {
  static constexpr U32 maxKept = 16;

  U32 count = 0;
  std::array<U32, maxKept> labels{};  // 0 behind the count

  bool tooDeep() const { return count > maxKept; }
  std::span<const U32> kept() const { return {labels.data(), tooDeep() ? 0 : count}; }
  friend bool operator==(const Labels&, const Labels&) = default;
};

// One way out. Of a switched path the labels replace the one that came; otherwise they are
// pushed.
struct Hop {
  Vantor::IpGenAddr address;  // empty: the destination is on the link
  U32 interface = 0;          // the kernel's index, 0 without one
  Labels labels;
  U16 otherEncap = 0;  // the kernel's number of an encapsulation that is not MPLS

  friend bool operator==(const Hop&, const Hop&) = default;
};

struct RouteMessage {
  static constexpr U32 mainTable = 254;

  bool isNew = true;      // otherwise it is deleted
  bool switched = false;  // of labelled packets: `label` counts, otherwise `prefix`
  U32 label = 0;
  Vantor::IpGenPrefix prefix{};  // host bits are 0
  U32 table = mainTable;
  U8 protocol = 0;    // who made it; of a deleted switched path often not said
  U32 metric = 0;     // 0 also when it is not said
  U32 nextHopId = 0;  // the hops are those of this object; 0: they are `hops`
  std::vector<Hop> hops{};

  friend bool operator==(const RouteMessage&, const RouteMessage&) = default;
};

struct NextHopMessage {
  bool isNew = true;
  U32 id = 0;  // never 0
  bool isGroup = false;
  std::vector<U32> group{};  // identifiers of the members
  std::vector<Hop> hops{};   // of a single one; none when it drops what comes

  friend bool operator==(const NextHopMessage&, const NextHopMessage&) = default;
};

// A neighbour: an address, or a remote MAC address and the tunnel endpoint it is behind.
struct NeighbourMessage {
  bool isNew = true;
};

// A message, or a family or kind of route, that says nothing about tunnels.
struct OtherMessage {
  U16 type = 0;   // the kernel's number
  U8 family = 0;  // likewise, 0 when the message has none
};

using Message =
    std::variant<RouteMessage, NextHopMessage, NeighbourMessage, OtherMessage>;

// All messages of a frame, in order.
// Errors   MalformedException: a length that leaves the message or does not fit the field,
//          a field that is missing, labels without a bottom of stack.
std::vector<Message> decode(const Run& frame);

// "isis" for 187; "protocol 77" when the number has no name here.
std::string protocolText(U8 protocol);

// One line for a log: "new route 10.0.0.0/8 isis metric 20 via id 31".
std::string text(const Message& message);

}  // namespace Fpm
