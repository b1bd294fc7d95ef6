#include <functional>

#include <linux/rtnetlink.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Harness.h"

namespace FpmTest {
namespace {

using testing::HasSubstr;

Bytes route(U8 family, U8 length, const std::vector<Bytes>& attributes) {
  return frame({
      message(RTM_NEWROUTE,
              join({{family, length, 0, 0, 254, 187, 0, 1}, u32(0), join(attributes)}
              ))
  });
}
Bytes nextHop(const std::vector<Bytes>& attributes) {
  return frame({
      message(RTM_NEWNEXTHOP, join({{2, 0, 11, 0}, u32(0), join(attributes)}
       ))
  });
}
Bytes with(Bytes bytes, std::size_t at, U8 value) {
  bytes[at] = value;
  return bytes;
}

constexpr U8 inet = 2, inet6 = 10, mpls = 28;
const Bytes ten = attribute(RTA_DST, {10, 0, 0, 0});
const Bytes label = attribute(RTA_DST, labelStack({16}));

// Catches a length that is believed. The reason must say where, what and which limit.
TEST(FpmDecoder, namesWhatIsMalformed) {
  const Bytes good = route(inet, 8, {ten});
  struct Row {
    Bytes bytes;
    const char* reason;
  };
  const Row rows[] = {
      {with(good,                                                      0,                                 2), "offset 0: frame version: found 2, expected 1"},
      {with(good,                1,                                                 2), "offset 1: frame type: found 2, expected 1 (netlink)"},
      {{1, 1, 0, 19},                                              "offset 2: frame length: found 19, expected at least 20"                            },
      {with(good,                                                              4,                                                                                   15), "offset 4: nlmsg_len: found 15, expected 16 to 36"},
      {with(good,                                                              4,                                                           37), "offset 4: nlmsg_len: found 37, expected 16 to 36"},
      {frame({message(RTM_NEWROUTE, Bytes(11))}),
       "offset 20: rtmsg: found 11 bytes, expected at least 12"},
      {frame({message(RTM_DELNEIGH, {})}),
       "offset 20: ndmsg: found 0 bytes, expected at least 12"                        },
      {frame({message(200, {}), {1, 2, 3}}),
       "offset 20: message head: found 3 bytes, expected at least 16"                                            },
      {with(good,       32,                                                                                 3),
       "offset 32: route: length of an attribute: found 3, expected 4 to 8"},
      {with(good,        32,                 9),
       "offset 32: route: length of an attribute: found 9, expected 4 to 8"},
      {route(inet, 8,{{1, 2}}), "offset 32: route: found 2 bytes, expected at least 4"},
      {route(inet,                                                      33,     {ten}), "offset 21: rtm_dst_len: found 33, expected at most 32"},
      {route(inet,                                                              8,                                                                                       {}),
       "offset 20: RTA_DST: found none, expected an address for prefix length 8"},
      {route(inet6,                                                            8,                              {ten}), "offset 36: RTA_DST: found 4 bytes, expected 16"},
      {route(mpls,                                                     24,                                                                                     {label}),
       "offset 21: rtm_dst_len: found 24, expected 20, the bits of a label"},
      {route(mpls,        20,                                         {}), "offset 20: RTA_DST: found none, expected a label"},
      {route(mpls,       20,                              {attribute(RTA_DST, labelStack({16, 17}))}),
       "offset 36: RTA_DST: found 8 bytes, expected 4"},
      {route(mpls,                                                              20,                                                                                      {attribute(RTA_DST, Bytes(4))}),
       "offset 36: RTA_DST: found a last label without bottom of stack"},
      {route(mpls,                                                           20,
       {label, attribute(RTA_NEWDST, join({labelStack({16}), labelStack({17})}))}),
       "offset 44: RTA_NEWDST: found bottom of stack before the last label"},
      {route(mpls,                                                    20,                         {label, attribute(RTA_NEWDST, Bytes(5))}),
       "offset 44: RTA_NEWDST: found 5 bytes, expected a multiple of 4"},
      {route(mpls,              20,                                               {label, attribute(RTA_VIA, {2})}),
       "offset 44: RTA_VIA: found 1 byte, expected at least 2"},
      {route(mpls,        20,{label, attribute(RTA_VIA, join({u16(9), Bytes(4)}))}),
       "offset 46: RTA_VIA: found an address of family 9, expected family 2 or 10"},
      {route(inet,                                                              8,                                                                                      {ten, attribute(RTA_OIF, u16(1))}),
       "offset 44: RTA_OIF: found 2 bytes, expected 4"},
      {route(inet,                                                           8,  {ten, attribute(RTA_MULTIPATH, join({u16(7), u16(0), u32(0)}))}),
       "offset 44: RTA_MULTIPATH: length of a hop: found 7, expected 8 to 8"},
      {route(inet,                                                     8,
       {ten, attribute(RTA_ENCAP_TYPE, u16(1)),
              attribute(RTA_ENCAP, attribute(1, Bytes(3)))}),
       "offset 56: MPLS_IPTUNNEL_DST: found 3 bytes, expected a multiple of 4"},
      {nextHop({}),                "offset 20: NHA_ID: found none, expected an identifier above 0"                                                },
      {nextHop({attribute(1, u32(7)), attribute(2, Bytes(7))}),
       "offset 40: NHA_GROUP: found 7 bytes, expected a multiple of 8"},
      {nextHop({attribute(1, u32(7)), attribute(6, Bytes(16))}),
       "offset 40: NHA_GATEWAY: found 16 bytes, expected 4"                                                                                     },
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.reason);
    FrameReader frames;
    // The place counts from the beginning of the stream, and what came before is good.
    frames.feed(join({good, row.bytes}));
    ASSERT_TRUE(frames.next());
    std::string reason = "taken";
    try {
      while (const auto run = frames.next())
        decode({run->bytes, run->offset - good.size()});
    } catch (const MalformedException& e) {
      reason = e.what();
      if (reason.find(": frame ") != reason.npos)
        reason = "offset " + std::to_string(e.offset() - good.size()) +
                 reason.substr(reason.find(':'));
    }
    EXPECT_THAT(reason, testing::StartsWith(row.reason));
  }
}

// Catches a field that is read into the wrong member, and the line of a log that lies.
TEST(FpmDecoder, messagesReadAsTheyWereWritten) {
  const Vantor::IpGenAddr v4("10.0.0.2"), v6("fe80::1");
  const Hop push{
      v4, 3, {2, {16, 1048575}}
  },
      plain{v6, 70000, {}}, out{v4, 0, {1, {17}}};
  const Vantor::IpGenPrefix ipv6(Kop::String("2001:db8::/33")),
      any(Kop::String("0.0.0.0/0"));
  struct Row {
    Message message;
    const char* line;
  };
  const Row rows[] = {
      {RouteMessage{true, true, 99, {}, 254, 193, 0, 0, {out, {v6, 4, {}}}},
       "new switched path 99 ldp hop via 10.0.0.2 swap 17 hop via fe80::1 if 4"                               },
      {RouteMessage{false, true, 99},                                        "deleted switched path 99 unspec"},
      {RouteMessage{true, false, 0, ipv6, 1000, 77, 7, 0, {plain}},
       "new route 2001:db8::/33 table 1000 protocol 77 metric 7 via fe80::1 if 70000"                         },
      {RouteMessage{true, false, 0, any, 254, 186, 0, 0, {push, push}},
       "new route 0.0.0.0/0 bgp hop via 10.0.0.2 if 3 push 16/1048575"
       " hop via 10.0.0.2 if 3 push 16/1048575"                                                               },
      {RouteMessage{true, false, 0, any, 254, 187, 0, 5},
       "new route 0.0.0.0/0 isis via id 5"                                                                    },
      {NextHopMessage{true, 5, true, {6, 6, 7}, {}},                         "new next hop 5 group 6 6 7"     },
      {NextHopMessage{true, 6, false, {}, {push}},
       "new next hop 6 via 10.0.0.2 if 3 push 16/1048575"                                                     },
      {NextHopMessage{false, 6},                                             "deleted next hop 6"             },
  };
  std::vector<Bytes> all;
  for (const Row& row : rows)
    all.push_back(encoded(row.message));
  FrameReader frames;
  frames.feed(frame(all));
  const auto messages = decode(*frames.next());
  ASSERT_EQ(messages.size(), std::size(rows));
  for (std::size_t i = 0; i < messages.size(); ++i) {
    SCOPED_TRACE(rows[i].line);
    EXPECT_EQ(text(messages[i]), rows[i].line);
    EXPECT_EQ(encoded(messages[i]), all[i]);
  }
}

}  // namespace
}  // namespace FpmTest
