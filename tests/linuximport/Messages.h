#pragma once

#include <linux/if_link.h>
#include <linux/if_tunnel.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <libmnl/libmnl.h>

#include "Kop/Types.h"
#include "tests/Support/Process.h"
#include "tests/Support/Testing.h"

// Messages of the kernel: recorded ones (see ORIGIN), and such as no kernel would send.

namespace LinuxImport {

using Bytes = std::vector<U8>;

inline void forEachMessage(const Bytes& bytes,
                           const std::function<void(const nlmsghdr*)>& visit) {
  auto left = static_cast<int>(bytes.size());
  auto* header = reinterpret_cast<const nlmsghdr*>(bytes.data());
  for (; mnl_nlmsg_ok(header, left); header = mnl_nlmsg_next(header, &left))
    visit(header);
}
inline std::span<const U8> payloadOf(const nlmsghdr* header) {
  return {static_cast<const U8*>(mnl_nlmsg_get_payload(header)),
          mnl_nlmsg_get_payload_len(header)};
}

// One message with an interface in it.
class Message {
 public:
  Message(U16 type, U32 sequence, U16 flags = 0) {
    mnl_nlmsg_put_header(buffer_);
    header()->nlmsg_type = type;
    header()->nlmsg_seq = sequence;
    header()->nlmsg_flags = flags;
  }
  Message& link(U32 index, const std::string& name) {
    auto* const info =
        static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(header(), sizeof(ifinfomsg)));
    info->ifi_index = static_cast<int>(index);
    mnl_attr_put_strz(header(), IFLA_IFNAME, name.c_str());
    return *this;
  }
  // Attributes of a kind as NUMBER=HEX, or NUMBER:N=HEX of one that claims N bytes.
  Message& tunnel(const std::string& kind, const std::string& attributes) {
    nlattr* const info = mnl_attr_nest_start(header(), IFLA_LINKINFO);
    mnl_attr_put_strz(header(), IFLA_INFO_KIND, kind.c_str());
    nlattr* const nest = mnl_attr_nest_start(header(), IFLA_INFO_DATA);
    std::istringstream words(attributes);
    for (std::string word; words >> word;) {
      std::string bytes;
      for (auto at = word.find('=') + 1; at < word.size(); at += 2)
        bytes += static_cast<char>(std::stoul(word.substr(at, 2), nullptr, 16));
      auto* const last = static_cast<nlattr*>(mnl_nlmsg_get_payload_tail(header()));
      mnl_attr_put(header(), static_cast<U16>(std::stoul(word)), bytes.size(),
                   bytes.data());
      if (const auto colon = word.find(':'); colon != word.npos)
        last->nla_len = static_cast<U16>(std::stoul(word.substr(colon + 1)));
    }
    mnl_attr_nest_end(header(), nest);
    mnl_attr_nest_end(header(), info);
    return *this;
  }
  Message& number(int value) {
    std::memcpy(mnl_nlmsg_put_extra_header(header(), sizeof value), &value, sizeof value);
    return *this;
  }
  std::span<const U8> span() const {
    return {reinterpret_cast<const U8*>(buffer_), header()->nlmsg_len};
  }
  std::span<const U8> payload() const { return payloadOf(header()); }

 private:
  nlmsghdr* header() { return reinterpret_cast<nlmsghdr*>(buffer_); }
  const nlmsghdr* header() const { return reinterpret_cast<const nlmsghdr*>(buffer_); }

  alignas(8) char buffer_[512] = {};
};

}  // namespace LinuxImport
