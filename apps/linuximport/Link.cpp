#include "apps/linuximport/Link.h"

#include <algorithm>
#include <array>
#include <cstring>

#include <linux/if_link.h>
#include <linux/if_tunnel.h>
#include <linux/ip6_tunnel.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <libmnl/libmnl.h>

namespace LinuxImport {
namespace {

using Bytes = std::span<const U8>;

constexpr U16 greEthernet = 0x6558, greErspan = 0x88be;

constexpr Kind kinds[] = {
    {"ipip",      Family::ip,    false, 0          },
    {"sit",       Family::ip,    false, 0          },
    {"ip6tnl",    Family::ip,    true,  0          },
    {"gre",       Family::gre,   false, 0          },
    {"gretap",    Family::gre,   false, greEthernet},
    {"erspan",    Family::gre,   false, greErspan  },
    {"ip6gre",    Family::gre,   true,  0          },
    {"ip6gretap", Family::gre,   true,  greEthernet},
    {"ip6erspan", Family::gre,   true,  greErspan  },
    {"vti",       Family::vti,   false, 0          },
    {"vti6",      Family::vti,   true,  0          },
    {"vxlan",     Family::vxlan, false, 0          },
    {"geneve",    Family::other, false, 0          },
    {"bareudp",   Family::other, false, 0          },
    {"gtp",       Family::other, false, 0          },
    {"pfcp",      Family::other, false, 0          },
    {"amt",       Family::other, false, 0          },
    {"xfrm",      Family::other, false, 0          },
    {"wireguard", Family::other, false, 0          },
    {"ovpn",      Family::other, false, 0          },
};
constexpr Kind noTunnel{"", Family::none, false, 0};

U32 big32(const U8* p) {
  return U32{p[0]} << 24 | U32{p[1]} << 16 | U32{p[2]} << 8 | p[3];
}

// ---- what each attribute is ----

template <auto member>
void number8(Link& link, const U8* p) {
  link.*member = *p;
}
template <auto member>
void present(Link& link, const U8*) {
  link.*member = 1;
}
template <auto member>
void big(Link& link, const U8* p) {
  if constexpr (sizeof(link.*member) == 2)
    link.*member = static_cast<U16>(p[0] << 8 | p[1]);
  else
    link.*member = big32(p);
}
template <auto member>
void host(Link& link, const U8* p) {
  std::memcpy(&(link.*member), p, sizeof(link.*member));
}
// "Any" is no address, whether the kernel leaves it out or tells zeros.
template <auto member, bool isIpv6>
void address(Link& link, const U8* p) {
  const auto found =
      isIpv6 ? Vantor::IpGenAddr::fromIpv6(p) : Vantor::IpGenAddr::fromIpv4(big32(p));
  if (!found.isZero()) link.*member = found;
}

template <bool isIpv6>
void flags6(Link& link, const U8* p) {
  if constexpr (isIpv6) host<&Link::flags6>(link, p);
}

struct Rule {
  U16 number;
  std::string_view name;
  std::size_t size;  // bytes
  void (*take)(Link& link, const U8* payload);
};
#define RULE(attribute, size, ...)           \
  Rule {                                     \
    attribute, #attribute, size, __VA_ARGS__ \
  }
#define ADDRESS_RULE(attribute, member) \
  RULE(attribute, isIpv6 ? 16 : 4, address<&Link::member, isIpv6>)

template <bool isIpv6>
constexpr auto ipRules = std::to_array<Rule>({
    ADDRESS_RULE(IFLA_IPTUN_LOCAL, local),
    ADDRESS_RULE(IFLA_IPTUN_REMOTE, remote),
    RULE(IFLA_IPTUN_LINK, 4, host<&Link::lower>),
    RULE(IFLA_IPTUN_TTL, 1, number8<&Link::ttl>),
    RULE(IFLA_IPTUN_TOS, 1, number8<&Link::tos>),
    RULE(IFLA_IPTUN_PMTUDISC, 1, number8<&Link::pathMtuDiscovery>),
    RULE(IFLA_IPTUN_PROTO, 1, number8<&Link::innerProtocol>),
    RULE(IFLA_IPTUN_ENCAP_LIMIT, 1, number8<&Link::encapLimit>),
    RULE(IFLA_IPTUN_FLOWINFO, 4, big<&Link::flowInfo>),
    RULE(IFLA_IPTUN_ENCAP_TYPE, 2, host<&Link::encapType>),
    RULE(IFLA_IPTUN_COLLECT_METADATA, 0, present<&Link::collectMetadata>),
    RULE(IFLA_IPTUN_FWMARK, 4, host<&Link::mark>),
    // With an IPv4 header these are other flags, of 16 bits, that nobody here asks for.
    RULE(IFLA_IPTUN_FLAGS, isIpv6 ? 4 : 2, flags6<isIpv6>),
});

template <bool isIpv6>
constexpr auto greRules = std::to_array<Rule>({
    ADDRESS_RULE(IFLA_GRE_LOCAL, local),
    ADDRESS_RULE(IFLA_GRE_REMOTE, remote),
    RULE(IFLA_GRE_LINK, 4, host<&Link::lower>),
    RULE(IFLA_GRE_IFLAGS, 2, big<&Link::iFlags>),
    RULE(IFLA_GRE_OFLAGS, 2, big<&Link::oFlags>),
    RULE(IFLA_GRE_IKEY, 4, big<&Link::iKey>),
    RULE(IFLA_GRE_OKEY, 4, big<&Link::oKey>),
    RULE(IFLA_GRE_TTL, 1, number8<&Link::ttl>),
    RULE(IFLA_GRE_TOS, 1, number8<&Link::tos>),
    RULE(IFLA_GRE_PMTUDISC, 1, number8<&Link::pathMtuDiscovery>),
    RULE(IFLA_GRE_ENCAP_LIMIT, 1, number8<&Link::encapLimit>),
    RULE(IFLA_GRE_FLOWINFO, 4, big<&Link::flowInfo>),
    RULE(IFLA_GRE_FLAGS, 4, host<&Link::flags6>),
    RULE(IFLA_GRE_ENCAP_TYPE, 2, host<&Link::encapType>),
    RULE(IFLA_GRE_COLLECT_METADATA, 0, present<&Link::collectMetadata>),
    RULE(IFLA_GRE_FWMARK, 4, host<&Link::mark>),
    RULE(IFLA_GRE_ERSPAN_VER, 1, number8<&Link::erspanVersion>),
    RULE(IFLA_GRE_ERSPAN_INDEX, 4, host<&Link::erspanIndex>),
    RULE(IFLA_GRE_ERSPAN_DIR, 1, number8<&Link::erspanDirection>),
    RULE(IFLA_GRE_ERSPAN_HWID, 2, host<&Link::erspanHardware>),
});

template <bool isIpv6>
constexpr auto vtiRules = std::to_array<Rule>({
    ADDRESS_RULE(IFLA_VTI_LOCAL, local),
    ADDRESS_RULE(IFLA_VTI_REMOTE, remote),
    RULE(IFLA_VTI_LINK, 4, host<&Link::lower>),
    RULE(IFLA_VTI_IKEY, 4, big<&Link::iKey>),
    RULE(IFLA_VTI_OKEY, 4, big<&Link::oKey>),
    RULE(IFLA_VTI_FWMARK, 4, host<&Link::mark>),
});

constexpr Rule vxlanRules[] = {
    RULE(IFLA_VXLAN_ID, 4, host<&Link::vni>),
    RULE(IFLA_VXLAN_GROUP, 4, address<&Link::remote, false>),
    RULE(IFLA_VXLAN_GROUP6, 16, address<&Link::remote, true>),
    RULE(IFLA_VXLAN_LOCAL, 4, address<&Link::local, false>),
    RULE(IFLA_VXLAN_LOCAL6, 16, address<&Link::local, true>),
    RULE(IFLA_VXLAN_LINK, 4, host<&Link::lower>),
    RULE(IFLA_VXLAN_TTL, 1, number8<&Link::ttl>),
    RULE(IFLA_VXLAN_TTL_INHERIT, 1, number8<&Link::ttlInherit>),
    RULE(IFLA_VXLAN_TOS, 1, number8<&Link::tos>),
    RULE(IFLA_VXLAN_PORT, 2, big<&Link::port>),
    RULE(IFLA_VXLAN_COLLECT_METADATA, 1, number8<&Link::collectMetadata>),
};

std::span<const Rule> rulesOf(const Kind& kind) {
  switch (kind.family) {
    case Family::ip: return kind.isIpv6 ? ipRules<true> : ipRules<false>;
    case Family::gre: return kind.isIpv6 ? greRules<true> : greRules<false>;
    case Family::vti: return kind.isIpv6 ? vtiRules<true> : vtiRules<false>;
    case Family::vxlan: return vxlanRules;
    case Family::none:
    case Family::other: break;
  }
  return {};
}

// ---- attributes in bytes ----

class Reader {
 public:
  explicit Reader(Link& link) : link_(link) {}

  template <class Visit>
  void forEach(const std::string& within, Bytes bytes, const Visit& visit) {
    while (bytes.size() >= sizeof(nlattr)) {
      const auto* const attr = reinterpret_cast<const nlattr*>(bytes.data());
      if (!mnl_attr_ok(attr, static_cast<int>(bytes.size())))
        return fault(within, "attribute " + std::to_string(mnl_attr_get_type(attr)) +
                                 " claims " + std::to_string(mnl_attr_get_len(attr)) +
                                 " bytes, " + std::to_string(bytes.size()) + " are left");
      visit(mnl_attr_get_type(attr),
            Bytes(static_cast<const U8*>(mnl_attr_get_payload(attr)),
                  mnl_attr_get_payload_len(attr)));
      const std::size_t step = MNL_ALIGN(mnl_attr_get_len(attr));
      bytes = bytes.subspan(std::min(step, bytes.size()));
    }
    if (!bytes.empty())
      fault(within, std::to_string(bytes.size()) + " bytes after the last attribute");
  }

  std::string text(const std::string& attribute, Bytes bytes, std::size_t limit) {
    const auto* const end = static_cast<const U8*>(
        bytes.empty() ? nullptr : std::memchr(bytes.data(), 0, bytes.size()));
    const auto size = static_cast<std::size_t>(end ? end - bytes.data() : 0);
    if (size == 0 || size > limit) {
      fault(attribute, "not a name of 1 to " + std::to_string(limit) + " bytes");
      return {};
    }
    return {reinterpret_cast<const char*>(bytes.data()), size};
  }

  void apply(std::span<const Rule> rules, const std::string& within, Bytes data) {
    forEach(within, data, [&](U16 number, Bytes payload) {
      for (const Rule& rule : rules)
        if (rule.number == number) take(rule, within, payload);
    });
  }

  void take(const Rule& rule, const std::string& within, Bytes payload) {
    if (payload.size() == rule.size)
      rule.take(link_, payload.data());
    else
      fault(within + "." + std::string(rule.name),
            std::to_string(payload.size()) + (payload.size() == 1 ? " byte" : " bytes") +
                ", expected " + std::to_string(rule.size));
  }

  void fault(std::string attribute, std::string what) {
    link_.faults.push_back({std::move(attribute), std::move(what)});
  }

 private:
  Link& link_;
};

}  // namespace

const Kind& kindNamed(std::string_view name) {
  for (const Kind& kind : kinds)
    if (kind.name == name) return kind;
  return noTunnel;
}

Link readLink(std::span<const U8> payload) {
  Link link;
  Reader reader(link);
  ifinfomsg header{};
  const std::size_t headerSize = MNL_ALIGN(sizeof header);
  if (payload.size() < headerSize) {
    reader.fault("ifinfomsg", std::to_string(payload.size()) + " bytes, expected " +
                                  std::to_string(headerSize));
    return link;
  }
  std::memcpy(&header, payload.data(), sizeof header);
  link.index = static_cast<U32>(header.ifi_index);
  link.isBridgePort = header.ifi_family != AF_UNSPEC;

  Bytes info, data;
  reader.forEach("message", payload.subspan(headerSize), [&](U16 number, Bytes bytes) {
    if (number == IFLA_IFNAME)
      link.name = reader.text("IFLA_IFNAME", bytes, IFNAMSIZ - 1);
    else if (number == IFLA_LINKINFO)
      info = bytes;
  });
  const std::string infoName = "IFLA_LINKINFO", dataName = infoName + ".IFLA_INFO_DATA";
  constexpr std::size_t longestKind = 63;
  reader.forEach(infoName, info, [&](U16 number, Bytes bytes) {
    if (number == IFLA_INFO_KIND)
      link.kindName = reader.text(infoName + ".IFLA_INFO_KIND", bytes, longestKind);
    else if (number == IFLA_INFO_DATA)
      data = bytes;
  });

  reader.apply(rulesOf(link.kind()), dataName, data);
  return link;
}

}  // namespace LinuxImport
