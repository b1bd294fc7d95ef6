#include "apps/fpmagent/Messages.h"

#include <algorithm>
#include <concepts>
#include <cstring>
#include <optional>

#include <linux/lwtunnel.h>
#include <linux/mpls_iptunnel.h>
#include <linux/neighbour.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace Fpm {
namespace {

using std::to_string;

constexpr U32 labelBits = 20;
constexpr U32 bottomOfStack = 0x100;  // in a label's four bytes

constexpr U32 aligned(U32 size) {
  return (size + 3) & ~3u;
}

std::string bytesText(U32 count) {
  return to_string(count) + (count == 1 ? " byte" : " bytes");
}

[[noreturn]] void sizeFails(const Run& run,
                            const char* field,
                            const std::string& wanted) {
  throw MalformedException(run.offset, field, bytesText(run.size()), wanted);
}

// A head that the kernel's headers lay out, from the beginning of a run.
template <class T>
T headOf(const Run& run, const char* field) {
  T head;
  if (run.size() < sizeof head)
    sizeFails(run, field, "at least " + to_string(sizeof head));
  std::memcpy(&head, run.bytes.data(), sizeof head);
  return head;
}

template <std::unsigned_integral T>
T number(const Run& run, const char* field) {
  T value;
  if (run.size() != sizeof value) sizeFails(run, field, to_string(sizeof value));
  std::memcpy(&value, run.bytes.data(), sizeof value);
  return value;
}

// Calls f(kind, value) for each attribute of a run.
template <class F>
void forEachAttribute(Run run, const char* of, F&& f) {
  while (run.size() > 0) {
    const auto head = headOf<rtattr>(run, of);
    if (head.rta_len < sizeof head || head.rta_len > run.size())
      throw MalformedException(run.offset, std::string(of) + ": length of an attribute",
                               to_string(head.rta_len), "4 to " + to_string(run.size()));
    f(head.rta_type & NLA_TYPE_MASK, run.part(sizeof head, head.rta_len - sizeof head));
    run = run.behind(std::min(aligned(head.rta_len), run.size()));
  }
}

Vantor::IpGenAddr addressOf(const Run& run, U8 family, const char* field) {
  if (family == AF_INET) {
    if (run.size() != 4) sizeFails(run, field, "4");
    U32 address = 0;
    for (const U8 byte : run.bytes)
      address = address << 8 | byte;
    return Vantor::IpGenAddr::fromIpv4(address);
  }
  if (family != AF_INET6)
    throw MalformedException(
        run.offset, field, "an address of family " + to_string(family), "family 2 or 10");
  if (run.size() != 16) sizeFails(run, field, "16");
  return Vantor::IpGenAddr::fromIpv6(run.bytes.data());
}

// The family stands in front of the address. A link-layer address names no IP next hop.
Vantor::IpGenAddr viaOf(const Run& run) {
  const auto via = headOf<rtvia>(run, "RTA_VIA");
  if (via.rtvia_family == AF_PACKET) return {};
  if (via.rtvia_family > 0xff)
    throw MalformedException(run.offset, "RTA_VIA: family", to_string(via.rtvia_family),
                             "2, 10 or 17");
  return addressOf(run.behind(sizeof via), static_cast<U8>(via.rtvia_family), "RTA_VIA");
}

Labels labelsOf(const Run& run, const char* field) {
  if (run.size() == 0 || run.size() % 4 != 0)
    sizeFails(run, field, "a multiple of 4, at least 4");
  Labels result;
  result.count = run.size() / 4;
  for (U32 i = 0; i < result.count; ++i) {
    U32 word = 0;
    for (const U8 byte : run.part(4 * i, 4).bytes)
      word = word << 8 | byte;
    const bool last = i + 1 == result.count;
    if (((word & bottomOfStack) != 0) != last)
      throw MalformedException(run.offset + 4 * i, field,
                               last ? "a last label without bottom of stack"
                                    : "bottom of stack before the last label",
                               "it in the last label alone");
    if (!result.tooDeep()) result.labels[i] = word >> (32 - labelBits);
  }
  return result;
}

// What describes one hop, collected from attributes that come in any order.
class HopFields {
 public:
  // Whether the attribute was one of a route's hop.
  bool takeRoute(int kind, const Run& value, U8 family) {
    switch (kind) {
      case RTA_GATEWAY: return gatewayIs(value, family, "RTA_GATEWAY");
      case RTA_VIA: hop_.address = viaOf(value); break;
      case RTA_OIF: hop_.interface = number<U32>(value, "RTA_OIF"); break;
      case RTA_NEWDST:
        if (family != AF_MPLS) return false;
        hop_.labels = labelsOf(value, "RTA_NEWDST");
        break;
      case RTA_ENCAP_TYPE:
      case RTA_ENCAP:
        if (family == AF_MPLS) return false;
        if (kind == RTA_ENCAP)
          encap_ = value;
        else
          encapType_ = number<U16>(value, "RTA_ENCAP_TYPE");
        break;
      default: return false;
    }
    return any_ = true;
  }
  void takeNextHop(int kind, const Run& value, U8 family) {
    switch (kind) {
      case NHA_GATEWAY: gatewayIs(value, family, "NHA_GATEWAY"); break;
      case NHA_OIF: hop_.interface = number<U32>(value, "NHA_OIF"); break;
      case NHA_ENCAP_TYPE: encapType_ = number<U16>(value, "NHA_ENCAP_TYPE"); break;
      case NHA_ENCAP: encap_ = value; break;
      default: return;
    }
    any_ = true;
  }

  bool any() const { return any_; }
  Hop hop() const {
    Hop hop = hop_;
    if (encapType_ == LWTUNNEL_ENCAP_MPLS && encap_) {
      forEachAttribute(*encap_, "encapsulation", [&](int kind, const Run& value) {
        if (kind == MPLS_IPTUNNEL_DST) hop.labels = labelsOf(value, "MPLS_IPTUNNEL_DST");
      });
    } else if (encap_ || encapType_) {
      hop.otherEncap = encapType_;
    }
    return hop;
  }

 private:
  bool gatewayIs(const Run& value, U8 family, const char* field) {
    hop_.address = addressOf(value, family, field);
    return any_ = true;
  }

  Hop hop_;
  U16 encapType_ = 0;
  std::optional<Run> encap_;
  bool any_ = false;
};

std::vector<Hop> multipathOf(Run run, U8 family) {
  std::vector<Hop> hops;
  while (run.size() > 0) {
    const auto head = headOf<rtnexthop>(run, "RTA_MULTIPATH");
    if (head.rtnh_len < sizeof head || head.rtnh_len > run.size())
      throw MalformedException(run.offset, "RTA_MULTIPATH: length of a hop",
                               to_string(head.rtnh_len), "8 to " + to_string(run.size()));
    HopFields fields;
    const Run attributes = run.part(sizeof head, head.rtnh_len - sizeof head);
    forEachAttribute(attributes, "RTA_MULTIPATH", [&](int kind, const Run& value) {
      fields.takeRoute(kind, value, family);
    });
    Hop hop = fields.hop();
    hop.interface = static_cast<U32>(head.rtnh_ifindex);
    hops.push_back(hop);
    run = run.behind(std::min(aligned(head.rtnh_len), run.size()));
  }
  return hops;
}

Vantor::IpGenPrefix prefixOf(const rtmsg& head,
                             const std::optional<Run>& dst,
                             U64 offset) {
  const U32 bits = head.rtm_family == AF_INET ? 32 : 128;
  if (head.rtm_dst_len > bits)
    throw MalformedException(offset + offsetof(rtmsg, rtm_dst_len), "rtm_dst_len",
                             to_string(head.rtm_dst_len), "at most " + to_string(bits));
  if (!dst && head.rtm_dst_len > 0)
    throw MalformedException(
        offset, "RTA_DST", "none",
        "an address for prefix length " + to_string(head.rtm_dst_len));
  U8 bytes[Vantor::IpGenAddr::byteCount] = {};
  if (dst) {
    addressOf(*dst, head.rtm_family, "RTA_DST");
    std::copy(dst->bytes.begin(), dst->bytes.end(), bytes);
  }
  for (U32 bit = head.rtm_dst_len; bit < bits; ++bit)
    bytes[bit / 8] &= static_cast<U8>(~(0x80u >> bit % 8));
  if (head.rtm_family == AF_INET6)
    return {Vantor::IpGenAddr::fromIpv6(bytes), head.rtm_dst_len};
  U32 address = 0;
  for (int i = 0; i < 4; ++i)
    address = address << 8 | bytes[i];
  return {Vantor::IpGenAddr::fromIpv4(address), head.rtm_dst_len};
}

U32 inLabelOf(const rtmsg& head, const std::optional<Run>& dst, U64 offset) {
  if (head.rtm_dst_len != labelBits)
    throw MalformedException(offset + offsetof(rtmsg, rtm_dst_len), "rtm_dst_len",
                             to_string(head.rtm_dst_len), "20, the bits of a label");
  if (!dst) throw MalformedException(offset, "RTA_DST", "none", "a label");
  if (dst->size() != 4) sizeFails(*dst, "RTA_DST", "4");
  return labelsOf(*dst, "RTA_DST").labels[0];
}

Message routeOf(U16 type, const Run& body) {
  const auto head = headOf<rtmsg>(body, "rtmsg");
  const U8 family = head.rtm_family;
  if (family != AF_INET && family != AF_INET6 && family != AF_MPLS)
    return OtherMessage{type, family};
  // Routes by source or by type of service are others than those of the same destination.
  if (head.rtm_src_len != 0 || head.rtm_tos != 0) return OtherMessage{type, family};

  RouteMessage route;
  route.isNew = type == RTM_NEWROUTE;
  route.switched = family == AF_MPLS;
  route.table = head.rtm_table;
  route.protocol = head.rtm_protocol;
  std::optional<Run> dst, multipath;
  HopFields single;
  forEachAttribute(body.behind(sizeof head), "route", [&](int kind, const Run& value) {
    switch (kind) {
      case RTA_DST: dst = value; break;
      case RTA_PRIORITY: route.metric = number<U32>(value, "RTA_PRIORITY"); break;
      case RTA_TABLE: route.table = number<U32>(value, "RTA_TABLE"); break;
      case RTA_NH_ID: route.nextHopId = number<U32>(value, "RTA_NH_ID"); break;
      case RTA_MULTIPATH: multipath = value; break;
      default: single.takeRoute(kind, value, family);
    }
  });
  if (route.switched)
    route.label = inLabelOf(head, dst, body.offset);
  else
    route.prefix = prefixOf(head, dst, body.offset);
  if (multipath)
    route.hops = multipathOf(*multipath, family);
  else if (single.any())
    route.hops.push_back(single.hop());
  if (route.nextHopId != 0) route.hops.clear();
  return route;
}

Message nextHopOf(U16 type, const Run& body) {
  const auto head = headOf<nhmsg>(body, "nhmsg");
  NextHopMessage nextHop;
  nextHop.isNew = type == RTM_NEWNEXTHOP;
  bool drops = false;
  HopFields single;
  forEachAttribute(body.behind(sizeof head), "next hop", [&](int kind, const Run& value) {
    switch (kind) {
      case NHA_ID: nextHop.id = number<U32>(value, "NHA_ID"); break;
      case NHA_BLACKHOLE: drops = true; break;
      case NHA_GROUP:
        nextHop.isGroup = true;
        if (value.size() % sizeof(nexthop_grp) != 0)
          sizeFails(value, "NHA_GROUP", "a multiple of 8");
        nextHop.group.clear();
        for (U32 at = 0; at < value.size(); at += sizeof(nexthop_grp))
          nextHop.group.push_back(headOf<nexthop_grp>(value.behind(at), "NHA_GROUP").id);
        break;
      default: single.takeNextHop(kind, value, head.nh_family);
    }
  });
  if (nextHop.id == 0)
    throw MalformedException(body.offset, "NHA_ID", "none", "an identifier above 0");
  if (!nextHop.isGroup && !drops && single.any()) nextHop.hops.push_back(single.hop());
  return nextHop;
}

Message messageOf(const nlmsghdr& head, const Run& body) {
  switch (head.nlmsg_type) {
    case RTM_NEWROUTE:
    case RTM_DELROUTE: return routeOf(head.nlmsg_type, body);
    case RTM_NEWNEXTHOP:
    case RTM_DELNEXTHOP: return nextHopOf(head.nlmsg_type, body);
    case RTM_NEWNEIGH:
    case RTM_DELNEIGH:
      headOf<ndmsg>(body, "ndmsg");
      return NeighbourMessage{head.nlmsg_type == RTM_NEWNEIGH};
    default: return OtherMessage{head.nlmsg_type, 0};
  }
}

}  // namespace

std::vector<Message> decode(const Run& frame) {
  std::vector<Message> messages;
  Run rest = frame;
  while (rest.size() > 0) {
    const auto head = headOf<nlmsghdr>(rest, "message head");
    if (head.nlmsg_len < sizeof head || head.nlmsg_len > rest.size())
      throw MalformedException(rest.offset, "nlmsg_len", to_string(head.nlmsg_len),
                               "16 to " + to_string(rest.size()));
    const auto size = static_cast<U32>(sizeof head);
    messages.push_back(messageOf(head, rest.part(size, head.nlmsg_len - size)));
    rest = rest.behind(std::min(aligned(head.nlmsg_len), rest.size()));
  }
  return messages;
}

}  // namespace Fpm
