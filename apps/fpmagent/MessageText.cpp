#include <algorithm>
#include <iterator>

#include "apps/fpmagent/Messages.h"

// Messages as lines of a log.

namespace Fpm {
namespace {

using std::to_string;

struct ProtocolName {
  U8 number;
  const char* name;
};
// 193 and above are the daemon's own, beyond those of the kernel's headers.
constexpr ProtocolName protocolNames[] = {
    {0,   "unspec"  },
    {1,   "redirect"},
    {2,   "kernel"  },
    {3,   "boot"    },
    {4,   "admin"   },
    {9,   "ra"      },
    {16,  "dhcp"    },
    {42,  "babel"   },
    {186, "bgp"     },
    {187, "isis"    },
    {188, "ospf"    },
    {189, "rip"     },
    {190, "ripng"   },
    {192, "eigrp"   },
    {193, "ldp"     },
    {196, "static"  },
    {198, "srte"    },
};

std::string textOf(const Hop& hop, const char* operation) {
  std::string line;
  if (hop.address.bitCount() != 0)
    line += " via " + std::string(hop.address.stringValue());
  if (hop.interface != 0) line += " if " + to_string(hop.interface);
  if (hop.labels.tooDeep()) {
    line += std::string(" ") + operation + " " + to_string(hop.labels.count) + " labels";
  } else if (hop.labels.count != 0) {
    line += std::string(" ") + operation + " ";
    for (const U32 label : hop.labels.kept())
      line += (line.back() == ' ' ? "" : "/") + to_string(label);
  }
  if (hop.otherEncap != 0) line += " encap " + to_string(hop.otherEncap);
  return line;
}

std::string textOf(const std::vector<Hop>& hops, const char* operation) {
  std::string line;
  for (const Hop& hop : hops)
    line += (hops.size() > 1 ? " hop" : "") + textOf(hop, operation);
  return line;
}

struct Lines {
  std::string operator()(const RouteMessage& route) const {
    std::string line = route.isNew ? "new " : "deleted ";
    if (route.switched)
      line += "switched path " + to_string(route.label);
    else
      line += "route " + std::string(route.prefix.stringValue());
    if (!route.switched && route.table != RouteMessage::mainTable)
      line += " table " + to_string(route.table);
    line += " " + protocolText(route.protocol);
    if (route.metric != 0) line += " metric " + to_string(route.metric);
    if (route.nextHopId != 0) line += " via id " + to_string(route.nextHopId);
    return line + textOf(route.hops, route.switched ? "swap" : "push");
  }
  std::string operator()(const NextHopMessage& nextHop) const {
    std::string line = nextHop.isNew ? "new next hop " : "deleted next hop ";
    line += to_string(nextHop.id);
    if (nextHop.isGroup) line += " group";
    for (const U32 id : nextHop.group)
      line += " " + to_string(id);
    return line + textOf(nextHop.hops, "push");
  }
  std::string operator()(const NeighbourMessage& neighbour) const {
    return neighbour.isNew ? "new neighbour" : "deleted neighbour";
  }
  std::string operator()(const OtherMessage& other) const {
    std::string line = "message " + to_string(other.type);
    if (other.family != 0) line += " of family " + to_string(other.family);
    return line;
  }
};

}  // namespace

std::string protocolText(U8 protocol) {
  const auto* const found =
      std::find_if(std::begin(protocolNames), std::end(protocolNames),
                   [&](const ProtocolName& row) { return row.number == protocol; });
  return found != std::end(protocolNames) ? found->name
                                          : "protocol " + to_string(protocol);
}

std::string text(const Message& message) {
  return std::visit(Lines(), message);
}

}  // namespace Fpm
