#include "apps/linuximport/Mapping.h"

#include <linux/if_tunnel.h>
#include <linux/ip6_tunnel.h>
#include <netinet/in.h>

namespace LinuxImport {
namespace {

using Vantor::IpGenAddr;

constexpr U32 flowLabelMask = 0xfffff;
constexpr U32 trafficClassShift = 20;
constexpr U8 inheritTos = 1;
constexpr U16 greErspan3 = 0x22eb;  // the header's version 3 is the kernel's 2
constexpr U16 knownFlags =
    Tunnel::checksumFlag | Tunnel::keyFlag | Tunnel::sequenceFlag | Tunnel::versionMask;
constexpr U32 vxlanType = 4;  // of an interface's word

std::string textOf(const IpGenAddr& address) {
  return std::string(address.stringValue());
}

std::string hex(U32 number) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (; number != 0 || text.empty(); number >>= 4)
    text.insert(text.begin(), digits[number & 15]);
  return "0x" + text;
}

bool isMulticast(const IpGenAddr& address) {
  return address.af() == Vantor::ipv4 ? address.bytes()[0] >> 4 == 0xe
                                      : address.bytes()[0] == 0xff;
}

// What no member holds, as words.
class LeftOut {
 public:
  void number(const char* what, U64 value) {
    if (value != 0) words.push_back(what + (" " + std::to_string(value)));
  }
  void text(std::string what) { words.push_back(std::move(what)); }
  std::vector<std::string> words;
};

void commonLeftOut(const Link& link, LeftOut& left) {
  left.number("interface below", link.lower);
  left.number("mark", link.mark);
  if (link.encapType == TUNNEL_ENCAP_FOU)
    left.text("FOU");
  else if (link.encapType == TUNNEL_ENCAP_GUE)
    left.text("GUE");
  else
    left.number("encapsulation", link.encapType);
}

void ipv6LeftOut(const Link& link, LeftOut& left) {
  if (link.flags6 & IP6_TNL_F_USE_ORIG_FLOWLABEL)
    left.text("flow label of the packet inside");
  else if (const U32 label = link.flowInfo & flowLabelMask)
    left.text("flow label " + hex(label));
  if (!(link.flags6 & IP6_TNL_F_IGN_ENCAP_LIMIT))
    left.number("encapsulation limit", link.encapLimit);
  if (link.flags6 & IP6_TNL_F_RCV_DSCP_COPY) left.text("DSCP copied on receipt");
  if (link.flags6 & IP6_TNL_F_USE_ORIG_FWMARK) left.text("mark of the packet inside");
}

void innerLeftOut(const Link& link, LeftOut& left) {
  switch (link.innerProtocol) {
    case 0: left.text("any inner protocol"); break;
    case IPPROTO_IPIP: left.text("inner protocol IPv4"); break;
    case IPPROTO_IPV6: left.text("inner protocol IPv6"); break;
    case IPPROTO_MPLS: left.text("inner protocol MPLS"); break;
    default: left.number("inner protocol", link.innerProtocol);
  }
}

template <class T>
void fillL3(const Link& link, T& info, LeftOut& left) {
  const bool isIpv6 = link.kind().isIpv6;
  info.srcIs(link.local);
  info.dstIs(link.remote);
  info.ttlIs(link.ttl);
  info.pathMtuDiscoveryIs(isIpv6 || link.pathMtuDiscovery != 0);
  if (!isIpv6)
    info.tosIs(link.tos);
  else if (link.flags6 & IP6_TNL_F_USE_ORIG_TCLASS)
    info.tosIs(inheritTos);
  else
    info.tosIs(static_cast<U8>(link.flowInfo >> trafficClassShift));
  if (isIpv6 && link.kind().family != Family::vti) ipv6LeftOut(link, left);
}

Tunnel::GreHdrFlagsType flagsOf(U16 flags, const char* what, LeftOut& left) {
  if (const U32 others = flags & ~knownFlags & 0xffff)
    left.text(what + (" " + hex(others)));
  return static_cast<Tunnel::GreHdrFlagsType>(flags & knownFlags);
}

Description mapGre(const Link& link, LeftOut& left) {
  Tunnel::GreTunnelInfo info;
  fillL3(link, info, left);
  const bool isErspan = link.kindName == "erspan" || link.kindName == "ip6erspan";
  info.protocolIs(isErspan && link.erspanVersion == 2 ? greErspan3
                                                      : link.kind().greProtocol);
  info.oFlagsIs(flagsOf(link.oFlags, "outgoing flags", left));
  info.iFlagsIs(flagsOf(link.iFlags, "incoming flags", left));
  info.oKeyIs(link.oKey);
  info.iKeyIs(link.iKey);
  if (isErspan) {
    left.number("ERSPAN index", link.erspanIndex);
    left.number("ERSPAN direction", link.erspanDirection);
    left.number("ERSPAN hardware", link.erspanHardware);
  }
  return info;
}

Description mapVti(const Link& link, LeftOut& left) {
  Tunnel::IpsecVtiTunnelInfo info;
  fillL3(link, info, left);
  info.ipsecTableIndexIs(link.oKey);
  if (link.iKey != link.oKey) left.text("incoming key " + std::to_string(link.iKey));
  return info;
}

Description mapVxlan(const Link& link, LeftOut& left) {
  Vantor::IntfId intf;
  intf.typeIdIs(vxlanType);
  intf.partIs(1, link.vni);
  Tunnel::VxlanTunnelInfo info;
  info.destIpIs(link.remote);
  info.srcVtiIs(intf);
  if (link.local.af() != Vantor::noAddressFamily)
    left.text("own address " + textOf(link.local));
  if (link.ttlInherit)
    left.text("TTL of the packet inside");
  else
    left.number("TTL", link.ttl);
  left.number("TOS", link.tos);
  left.number("UDP port", link.port);
  return info;
}

// Why the interface is no tunnel that a description can hold; empty when it is one.
std::string obstacle(const Link& link) {
  if (!link.faults.empty()) {
    std::string text = "malformed:";
    for (const Fault& fault : link.faults)
      text += (&fault == &link.faults.front() ? " " : "; ") + fault.attribute + ": " +
              fault.what;
    return text;
  }
  const Family family = link.kind().family;
  if (family == Family::other) return "no table for tunnels of this kind";
  if (link.collectMetadata) return "external: its packets bring their tunnels";
  const bool hasRemote = link.remote.af() != Vantor::noAddressFamily;
  if (family == Family::vxlan) {
    if (!hasRemote) return "names no peer";
    if (isMulticast(link.remote)) return "to a group, " + textOf(link.remote);
  } else if (!hasRemote && link.local.af() == Vantor::noAddressFamily) {
    return "names no end";
  }
  return {};
}

}  // namespace

Mapped map(const Link& link) {
  Mapped mapped;
  const Family family = link.kind().family;
  if (family == Family::none && link.faults.empty()) return mapped;
  mapped.reason = obstacle(link);
  if (!mapped.reason.empty()) return mapped;
  LeftOut left;
  commonLeftOut(link, left);
  switch (family) {
    case Family::ip: {
      Tunnel::L3TunnelInfo info;
      fillL3(link, info, left);
      innerLeftOut(link, left);
      if (link.kindName == "sit" && link.remote.af() == Vantor::noAddressFamily)
        left.text("peers by the addresses inside");
      mapped.description = info;
      break;
    }
    case Family::gre: mapped.description = mapGre(link, left); break;
    case Family::vti: mapped.description = mapVti(link, left); break;
    case Family::vxlan: mapped.description = mapVxlan(link, left); break;
    case Family::none:
    case Family::other: break;
  }
  mapped.leftOut = std::move(left.words);
  return mapped;
}

}  // namespace LinuxImport
