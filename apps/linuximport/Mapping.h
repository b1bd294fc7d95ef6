#pragma once

#include <string>
#include <variant>
#include <vector>

#include "Tunnel/IpTunnels.h"
#include "apps/linuximport/Link.h"

// What an interface of the kernel is as one of our descriptions of tunnels.
//
//   member            ipip sit ip6tnl | gre* ip6gre* erspan | vti vti6 | vxlan
//   L3 src            IFLA_*_LOCAL; no address when the kernel says any
//   L3 dst            IFLA_*_REMOTE; likewise
//   L3 ttl            IFLA_*_TTL: TTL or hop limit; 0, as in the kernel, that of the packet
//                     inside; of vti 0: the security association decides
//   L3 tos            the whole byte, never shifted by the two bits of ECN. IPv4: IFLA_*_TOS,
//                     in which 1 means that of the packet inside. IPv6: bits 20 to 27 of
//                     IFLA_*_FLOWINFO, or 1 when IP6_TNL_F_USE_ORIG_TCLASS is set
//   L3 pathMtuDiscovery
//                     IPv4: IFLA_*_PMTUDISC, false of vti. IPv6: true, as nobody on the way
//                     cuts such packets
//   gre protocol      0: each packet has its own; 0x6558 Ethernet of gretap; of ERSPAN 0x88be,
//                     or 0x22eb in version 2
//   gre iFlags oFlags IFLA_GRE_IFLAGS, OFLAGS (big-endian, bits of the header as they stand);
//                     bits that the enumeration does not name are told as left out
//   gre iKey oKey     IFLA_GRE_IKEY, OKEY (big-endian)
//   vti ipsecTableIndex
//                     IFLA_VTI_OKEY (big-endian): it marks the associations that protect
//   vxlan destIp      IFLA_VXLAN_GROUP or GROUP6, when it is a single host
//   vxlan srcVti      "Vxlan<VNI>" of IFLA_VXLAN_ID: the kernel's own names rarely fit the
//                     word that an interface is here, and its interfaces have one VNI each
//
// No description has room for: MTU, the interface below, marks, the UDP header between (FOU,
// GUE), flow label and encapsulation limit, the inner protocol of plain tunnels, how 6to4 and
// 6rd find a peer, an incoming key of vti unlike the outgoing one, what ERSPAN adds, and of VXLAN the own address, TTL, TOS
// and UDP port. Such a thing that is set is told with the tunnel; MTU, which all have, is not.
//
// No tunnel here: interfaces with `external`, whose packets bring their tunnels; the kernel's
// fallbacks (gre0, tunl0 ..), which name no end; VXLAN to a group or to peers that are only in
// its forwarding table; kinds that no description fits (geneve, xfrm, wireguard ..).
// IpsecGreTunnelInfo never comes out, since policies and not interfaces put GRE under IPsec.

namespace LinuxImport {

// Interfaces in several tables have the order of these.
using Description = std::variant<std::monostate,
                                 Tunnel::L3TunnelInfo,
                                 Tunnel::GreTunnelInfo,
                                 Tunnel::IpsecVtiTunnelInfo,
                                 Tunnel::VxlanTunnelInfo>;

struct Mapped {
  Description description;           // none for what is no tunnel here
  std::string reason;                // why not, of a tunnel; empty for other interfaces
  std::vector<std::string> leftOut;  // "mark 3"
  bool isTunnel() const { return description.index() != 0 || !reason.empty(); }
  bool operator==(const Mapped&) const = default;
};

Mapped map(const Link& link);

}  // namespace LinuxImport
