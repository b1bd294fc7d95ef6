#include <map>

#include <gtest/gtest.h>

#include "apps/linuximport/Mapping.h"
#include "tests/Support/Rows.h"
#include "tests/linuximport/Messages.h"

namespace LinuxImport {
namespace {

using namespace Tunnel;
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

std::string textOf(const Description& description) {
  return std::visit(
      [](const auto& info) -> std::string {
        if constexpr (std::is_same_v<std::decay_t<decltype(info)>, std::monostate>)
          return "none";
        else
          return std::string(valueToStrep(info));
      },
      description);
}

// Catches an attribute read in the wrong byte order, width or family, or put into the wrong
// member: everything against what `ip` was told when a real kernel was recorded.
TEST(Mapping, readsWhatAKernelTells) {
  const auto rows = Support::rowsIn("linuximport/links.txt");
  const auto links = recordedLinks();
  EXPECT_EQ(links.size(), rows.size());
  for (const auto& row : rows) {
    SCOPED_TRACE(row[0]);
    ASSERT_TRUE(links.contains(row[0]));
    const Mapped mapped = map(links.at(row[0]));
    EXPECT_EQ(textOf(mapped.description), row[1]);
    const std::string said = mapped.reason + joined(mapped.leftOut);
    EXPECT_EQ(said.empty() ? "-" : said, row[2]);
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
