#include <gmock/gmock.h>

#include "Harness.h"
#include "tests/Support/Rows.h"

namespace FpmTest {
namespace {

// Catches a length that is believed. The reason must say where, what and which limit.
TEST(FpmDecoder, namesWhatIsMalformed) {
  const auto rows = Support::rowsOf(R"(
24 0208 1=0a000000 @0=02                      | offset 0: frame version: found 2, expected 1
24 0208 1=0a000000 @1=02                      | offset 1: frame type: found 2, expected 1 (netlink)
200 - @3=13                                   | offset 2: frame length: found 19, expected at least 20
24 0208 1=0a000000 @4=0f                      | offset 4: nlmsg_len: found 15, expected 16 to 36
24 0208 1=0a000000 @4=25                      | offset 4: nlmsg_len: found 37, expected 16 to 36
24 02 #11                                     | offset 20: rtmsg: found 11 bytes, expected at least 12
29 -                                          | offset 20: ndmsg: found 0 bytes, expected at least 12
200 00 #0 +010203                             | offset 20: message head: found 3 bytes, expected at least 16
24 0208 1=0a000000 @32=03                     | offset 32: route: length of an attribute: found 3, expected 4 to 8
24 0208 1=0a000000 @32=09                     | offset 32: route: length of an attribute: found 9, expected 4 to 8
24 0208 .0102                                 | offset 32: route: found 2 bytes, expected at least 4
24 0221 1=0a000000                            | offset 21: rtm_dst_len: found 33, expected at most 32
24 0208                                       | offset 20: RTA_DST: found none, expected an address for prefix length 8
24 0a08 1=0a000000                            | offset 36: RTA_DST: found 4 bytes, expected 16
24 1c18 1=00010100                            | offset 21: rtm_dst_len: found 24, expected 20, the bits of a label
24 1c14                                       | offset 20: RTA_DST: found none, expected a label
24 1c14 1=0001000000011100                    | offset 36: RTA_DST: found 8 bytes, expected 4
24 1c14 1=00000000                            | offset 36: RTA_DST: found a last label without bottom of stack
24 1c14 1=00010100 19=0001010000011100        | offset 44: RTA_NEWDST: found bottom of stack before the last label
24 1c14 1=00010100 19=0000000000              | offset 44: RTA_NEWDST: found 5 bytes, expected a multiple of 4
24 1c14 1=00010100 18=02                      | offset 44: RTA_VIA: found 1 byte, expected at least 2
24 1c14 1=00010100 18=090000000000            | offset 46: RTA_VIA: found an address of family 9, expected family 2 or 10
24 0208 1=0a000000 4=0100                     | offset 44: RTA_OIF: found 2 bytes, expected 4
24 0208 1=0a000000 9=0700000000000000         | offset 44: RTA_MULTIPATH: length of a hop: found 7, expected 8 to 8
24 0208 1=0a000000 21=0100 22=0700010000000000 | offset 56: MPLS_IPTUNNEL_DST: found 3 bytes, expected a multiple of 4
104 00                                        | offset 20: NHA_ID: found none, expected an identifier above 0
104 02 1=07000000 2=00000000000000            | offset 40: NHA_GROUP: found 7 bytes, expected a multiple of 8
104 02 1=07000000 6=00000000000000000000000000000000 | offset 40: NHA_GATEWAY: found 16 bytes, expected 4
)");
  // The place counts from the beginning of the stream, and what came before is good.
  const Bytes good = frameOf("24 0208 1=0a000000");
  for (const auto& row : rows) {
    SCOPED_TRACE(row[0]);
    FrameReader frames;
    frames.feed(good);
    ASSERT_TRUE(frames.next());
    frames.feed(frameOf(row[0]));
    std::string reason = "taken";
    try {
      while (const auto run = frames.next())
        decode(*run);
    } catch (const MalformedException& e) {
      reason = e.what();
      reason = "offset " + std::to_string(e.offset() - good.size()) +
               reason.substr(reason.find(':'));
    }
    EXPECT_THAT(reason, testing::StartsWith(row[1]));
  }
}

// Catches a field that is read into the wrong member, and the line of a log that lies.
TEST(FpmDecoder, messagesReadAsTheyWereWritten) {
  std::string rows = R"(
24 1c140000fec10001 1=00063100 9=OUT2000000004000000160012000a00V60000 | new switched path 99 ldp hop via 10.0.0.2 swap 17 hop via fe80::1 if 4
25 1c14 1=00063100                                                     | deleted switched path 99 unspec
24 0a210000004d0001 1=20010db8000000000000000000000000 6=07000000 15=e8030000 4=70110100 5=V6 | new route 2001:db8::/33 table 1000 protocol 77 metric 7 via fe80::1 if 70000
24 02000000feba0001 9=PUSHPUSH                                         | new route 0.0.0.0/0 bgp hop via 10.0.0.2 if 3 push 16/1048575 hop via 10.0.0.2 if 3 push 16/1048575
24 02080000febb0001 1=0a000000 30=05000000                             | new route 10.0.0.0/8 isis via id 5
104 02 1=05000000 2=060000000000000006000000000000000700000000000000   | new next hop 5 group 6 6 7
104 02 1=06000000 5=03000000 6=0a000002 7=0100 8=LABELS                | new next hop 6 via 10.0.0.2 if 3 push 16/1048575
105 02 1=06000000                                                      | deleted next hop 6
)";
  for (const auto& [word, hex] : {
           std::pair("OUT", "1c000000000000000a00120002000a00000200000800130000011100"),
           {"PUSH",   "2800000003000000080005000a000002060015000100000010001600LABELS"},
           {"LABELS", "0c00010000010000fffff100"                                      }, // 16, 1048575
           {"V6",     "fe800000000000000000000000000001"                              }
  })
    rows = Support::replaced(rows, word, hex);
  for (const auto& row : Support::rowsOf(rows)) {
    FrameReader frames;
    frames.feed(frameOf(row[0]));
    EXPECT_EQ(text(decode(*frames.next()).at(0)), row[1]);
  }
}

}  // namespace
}  // namespace FpmTest
