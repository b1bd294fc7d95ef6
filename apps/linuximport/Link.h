#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Kop/Types.h"
#include "Vantor/IpGenAddr.h"

// Interfaces as the kernel's messages tell them.

namespace LinuxImport {

// An attribute of a message that cannot be read.
struct Fault {
  std::string
      attribute;     // with those around it: "IFLA_LINKINFO.IFLA_INFO_DATA.IFLA_GRE_TTL"
  std::string what;  // "3 bytes, expected 1"
};

// Which attributes describe a kind of interface.
enum class Family : U8 {
  none,   // no tunnel
  ip,     // IFLA_IPTUN_*
  gre,    // IFLA_GRE_*
  vti,    // IFLA_VTI_*
  vxlan,  // IFLA_VXLAN_*
  other,  // a tunnel of a kind that has no table
};

// What the kernel calls a kind of interface, and what that means.
struct Kind {
  std::string_view name;
  Family family;
  bool isIpv6;      // the outer header
  U16 greProtocol;  // in the GRE header; 0: that of each packet
};
// Of family `none` for a name that no tunnel has.
const Kind& kindNamed(std::string_view name);

// One interface. Numbers are in host order whatever order the kernel tells them in; what a
// kind does not have is zero or empty.
struct Link {
  U32 index = 0;
  std::string name;
  std::string kindName;  // empty: none is told
  bool isBridgePort =
      false;  // tells of the bridge that the interface is in, not of itself

  // ---- of tunnels ----
  Vantor::IpGenAddr local, remote;  // of the outer header; empty: any
  U8 ttl = 0;                       // or hop limit; 0: that of the packet inside
  U8 tos = 0;                       // the whole byte; bit 0: that of the packet inside
  U8 pathMtuDiscovery = 0;
  U8 collectMetadata = 0;  // each packet brings its own tunnel
  U32 lower = 0;  // index of the interface that packets leave by; 0: by their route
  U32 mark = 0;   // for routing and filtering
  U16 iFlags = 0, oFlags = 0;
  U32 iKey = 0, oKey = 0;
  U16 encapType = 0;     // of a UDP header between: TUNNEL_ENCAP_*
  U8 innerProtocol = 0;  // an IP protocol number; 0: any
  U32 flowInfo = 0;      // of IPv6: traffic class and flow label
  U32 flags6 = 0;        // of IPv6: IP6_TNL_F_*
  U8 encapLimit = 0;
  U8 erspanVersion = 0;
  U32 erspanIndex = 0;
  U8 erspanDirection = 0;
  U16 erspanHardware = 0;
  U32 vni = 0;
  U16 port = 0;  // UDP, of the peer
  U8 ttlInherit = 0;

  std::vector<Fault> faults;  // as read, but for these
  const Kind& kind() const { return kindNamed(kindName); }
};

// Reads an interface from what follows the header of an RTM_NEWLINK or RTM_DELLINK message:
// an ifinfomsg and attributes. Attributes that nobody here asks for are passed over, so that
// newer kernels can be read.
//
// Errors   none: any bytes give a link. Faults say what is cut, has another width than the
//          kernel gives it, or is no name.
// Owner    the bytes begin at a multiple of 4.
Link readLink(std::span<const U8> payload);

}  // namespace LinuxImport
