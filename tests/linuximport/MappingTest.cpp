#include <map>

#include <gtest/gtest.h>

#include "apps/linuximport/Mapping.h"
#include "tests/linuximport/Messages.h"

namespace LinuxImport {
namespace {

using namespace Tunnel;
using Vantor::IntfId;
using Vantor::IpGenAddr;

IpGenAddr ip(const char* text) {
  return *text ? IpGenAddr(Kop::String(text)) : IpGenAddr();
}
GreHdrFlagsType flags(U32 bits) {
  return static_cast<GreHdrFlagsType>(bits);
}
std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words)
    text += (text.empty() ? "" : ", ") + word;
  return text;
}

std::map<std::string, Link> recordedLinks() {
  std::map<std::string, Link> links;
  const Bytes recording = recorded("links.nl");
  forEachMessage(recording, [&](const nlmsghdr* header) {
    if (header->nlmsg_type != RTM_NEWLINK) return;
    Link link = readLink(payloadOf(header));
    links.emplace(link.name, std::move(link));
  });
  return links;
}

// Catches an attribute read in the wrong byte order, width or family, or put into the wrong
// member: everything against what `ip` was told when a real kernel was recorded.
TEST(Mapping, readsWhatAKernelTells) {
  constexpr U32 key = keyFlag, all = checksumFlag | keyFlag | sequenceFlag;
  const IpGenAddr a = ip("10.0.0.1"), a6 = ip("fd00::1"), none;
  struct Row {
    const char* name;
    Description description;
    const char* text;  // what is left out, or why it is no tunnel
  };
  // clang-format off
  const Row rows[] = {
      {"g0", GreTunnelInfo(a, ip("10.0.0.2"), 0, 64, true, 0, flags(key), flags(key), 9, 9), ""},
      {"g1", GreTunnelInfo(a, ip("10.0.0.3"), 0x48, 17, true, 0, flags(all), flags(checksumFlag | key),
                           0x05060708, 0x01020304), "interface below 11"},
      {"g2", GreTunnelInfo(a, ip("10.0.0.4"), 1, 0, false, 0, noFlag, noFlag, 0, 0), "mark 3"},
      {"g3", {}, "external: its packets bring their tunnels"},
      {"g4", GreTunnelInfo(ip("10.0.0.9"), none, 0, 33, true, 0, flags(key), flags(key), 77, 77), ""},
      {"g5", GreTunnelInfo(a, ip("10.0.0.2"), 0, 0, true, 0x6558, noFlag, noFlag, 0, 0), ""},
      {"e1", GreTunnelInfo(a, ip("10.0.0.6"), 0, 0, true, 0x88be, flags(key | sequenceFlag),
                           flags(key | sequenceFlag), 100, 100), "ERSPAN index 123"},
      {"e2", GreTunnelInfo(a, ip("10.0.0.7"), 0, 0, true, 0x22eb, flags(key | sequenceFlag),
                           flags(key | sequenceFlag), 101, 101), "ERSPAN direction 1, ERSPAN hardware 7"},
      {"h0", GreTunnelInfo(a6, ip("fd00::2"), 0x48, 64, true, 0, flags(key), flags(key), 5, 5),
       "flow label 0x12345, encapsulation limit 3"},
      {"h1", GreTunnelInfo(a6, ip("fd00::3"), 1, 0, true, 0, sequenceFlag, noFlag, 0, 0), ""},
      {"h2", GreTunnelInfo(a6, ip("fd00::4"), 0, 9, true, 0x6558, noFlag, noFlag, 0, 0), "encapsulation limit 4"},
      {"h3", GreTunnelInfo(a6, ip("fd00::5"), 0, 64, true, 0x88be, flags(key | sequenceFlag),
                           flags(key | sequenceFlag), 9, 9), "encapsulation limit 4, ERSPAN index 5"},
      {"i0", L3TunnelInfo(a, ip("10.0.0.2"), 0, 64, true), "any inner protocol"},
      {"i1", L3TunnelInfo(a, ip("10.0.0.3"), 0x10, 5, true), "inner protocol MPLS"},
      {"i2", {}, "external: its packets bring their tunnels"},
      {"s0", L3TunnelInfo(a, ip("10.0.0.2"), 0, 64, true), "any inner protocol"},
      {"s1", L3TunnelInfo(a, none, 0, 64, true), "any inner protocol, peers by the addresses inside"},
      {"t0", L3TunnelInfo(a6, ip("fd00::2"), 0xb8, 64, true), "encapsulation limit 4, any inner protocol"},
      {"t1", L3TunnelInfo(a6, ip("fd00::3"), 1, 0, true),
       "flow label of the packet inside, encapsulation limit 4, inner protocol IPv4"},
      {"v0", IpsecVtiTunnelInfo(a, ip("10.0.0.2"), 0, 0, false, 5), ""},
      {"v1", IpsecVtiTunnelInfo(a, ip("10.0.0.3"), 0, 0, false, 7), "incoming key 6"},
      {"w0", IpsecVtiTunnelInfo(a6, ip("fd00::2"), 0, 0, true, 42), ""},
      {"x0", VxlanTunnelInfo(ip("10.0.0.2"), IntfId("Vxlan100")),
       "own address 10.0.0.1, TTL 8, TOS 32, UDP port 4789"},
      {"x1", VxlanTunnelInfo(ip("fd00::2"), IntfId("Vxlan16777215")), "UDP port 8472"},
      {"x2", {}, "to a group, 239.1.1.1"},
      {"x3", {}, "names no peer"},
      {"x4", {}, "external: its packets bring their tunnels"},
      {"n0", {}, "no table for tunnels of this kind"},
      {"gre0", {}, "names no end"},   {"gretap0", {}, "names no end"}, {"erspan0", {}, "names no end"},
      {"tunl0", {}, "names no end"},  {"sit0", {}, "names no end"},    {"ip_vti0", {}, "names no end"},
      {"ip6tnl0", {}, "names no end"}, {"ip6gre0", {}, "names no end"}, {"ip6_vti0", {}, "names no end"},
      {"lo", {}, ""},                 {"un0", {}, ""},                 {"vrf0", {}, ""},
  };
  // clang-format on
  const auto links = recordedLinks();
  EXPECT_EQ(links.size(), std::size(rows));
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ASSERT_TRUE(links.contains(row.name));
    const Mapped mapped = map(links.at(row.name));
    EXPECT_TRUE(mapped.description == row.description);
    EXPECT_EQ(mapped.reason + joined(mapped.leftOut), row.text);
  }
}

// Catches what no kernel sends and one day does: attributes that are cut or have another
// width, names without end, flags and an encapsulation without a name.
TEST(Mapping, namesWhatItCannotRead) {
  struct Row {
    const char* kind;
    std::function<void(nlmsghdr*)> data;
    const char* text;
  };
  const U8 six[6] = {10, 0, 0, 1, 0, 0};
  const auto ends = [](nlmsghdr* h) { mnl_attr_put_u32(h, IFLA_GRE_REMOTE, 0x0200000a); };
  // clang-format off
  const Row rows[] = {
      {"gre", [&](nlmsghdr* h) { mnl_attr_put(h, IFLA_GRE_LOCAL, 6, six); },
       "malformed: IFLA_LINKINFO.IFLA_INFO_DATA.IFLA_GRE_LOCAL: 6 bytes, expected 4"},
      {"ip6gre", ends,
       "malformed: IFLA_LINKINFO.IFLA_INFO_DATA.IFLA_GRE_REMOTE: 4 bytes, expected 16"},
      {"ipip",
       [](nlmsghdr* h) {
         mnl_attr_put_u16(h, IFLA_IPTUN_TTL, 1);
         mnl_attr_put(h, IFLA_IPTUN_PMTUDISC, 0, nullptr);
       },
       "malformed: IFLA_LINKINFO.IFLA_INFO_DATA.IFLA_IPTUN_TTL: 2 bytes, expected 1; "
       "IFLA_LINKINFO.IFLA_INFO_DATA.IFLA_IPTUN_PMTUDISC: 0 bytes, expected 1"},
      {"vxlan",
       [](nlmsghdr* h) {
         mnl_attr_put_u32(h, IFLA_VXLAN_ID, 1);
         auto* const last = static_cast<nlattr*>(mnl_nlmsg_get_payload_tail(h));
         mnl_attr_put_u32(h, IFLA_VXLAN_GROUP, 1);
         last->nla_len = 400;
       },
       "malformed: IFLA_LINKINFO.IFLA_INFO_DATA: attribute 2 claims 400 bytes, 8 are left"},
      {"a-kind-whose-name-is-longer-than-any-that-the-kernel-would-ever-take", ends,
       "malformed: IFLA_LINKINFO.IFLA_INFO_KIND: not a name of 1 to 63 bytes"},
      {"gre",
       [&](nlmsghdr* h) {
         ends(h);
         mnl_attr_put_u16(h, IFLA_GRE_IFLAGS, 0x0060);  // big-endian 0x6000: key, routing
         mnl_attr_put_u16(h, IFLA_GRE_ENCAP_TYPE, TUNNEL_ENCAP_GUE);
         mnl_attr_put_u32(h, 999, 1);  // from a kernel to come
       },
       "GUE, incoming flags 0x4000"},
  };
  // clang-format on
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    const Message message =
        Message(RTM_NEWLINK, 0).link(7, "t7").tunnel(row.kind, row.data);
    const Link link = readLink(message.payload());
    EXPECT_EQ(link.index, 7u);
    EXPECT_EQ(link.name, "t7");
    const Mapped mapped = map(link);
    EXPECT_EQ(mapped.reason + joined(mapped.leftOut), row.text);
    EXPECT_NE(mapped.reason.empty(), mapped.description.index() == 0);
  }
}

// Catches a read past the end (under the address sanitizer), and a cut message that is taken
// for a whole one.
TEST(Mapping, findsEveryCut) {
  const Bytes recording = recorded("links.nl");
  forEachMessage(recording, [&](const nlmsghdr* header) {
    const auto payload = payloadOf(header);
    const Link link = readLink(payload);
    if (header->nlmsg_type != RTM_NEWLINK || link.name != "g1") return;
    std::size_t malformed = 0;
    for (std::size_t size = 0; size < payload.size(); ++size) {
      const Mapped mapped = map(
          readLink(Bytes(payload.begin(), payload.begin() + static_cast<long>(size))));
      // Cut before the attributes of tunnels, or behind them, in padding or between others.
      EXPECT_TRUE(!mapped.isTunnel() || mapped == map(link) ||
                  mapped.reason.starts_with("malformed"))
          << size;
      malformed += mapped.reason.starts_with("malformed");
    }
    EXPECT_GT(malformed, payload.size() / 2);
  });
}

}  // namespace
}  // namespace LinuxImport
