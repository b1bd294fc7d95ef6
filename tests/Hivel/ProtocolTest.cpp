#include "Harness.h"
#include "Hivel/Exception.h"
#include "tests/Support/Testing.h"

namespace HivelTest {
namespace {

Bytes bytesOf(std::string_view hex) {
  Bytes bytes;
  std::string digits;
  for (const char c : hex)
    if (c != ' ' && (digits += c).size() == 2) {
      bytes.push_back(static_cast<U8>(std::stoul(digits, nullptr, 16)));
      digits.clear();
    }
  return bytes;
}

ServerStatus someStatus() {
  ServerStatus status{"s", 7, 1, 2, 3, 4, 5, {}, {}};
  status.connections.push_back({1, "c", 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13});
  status.paths.push_back({"p", "T", "w", 1, 2, 3, 4});
  return status;
}

// The wire form by hand; back as it was; refused at every shorter length and with a byte too
// many. Catches a field that moved, changed its width or its byte order (a peer of another
// build would not understand it), a reader and a writer that disagree, and a decoder that
// reads past what has come.
template <class Message>
void expectForm(const char* name, const Message& message, std::string_view hex) {
  SCOPED_TRACE(name);
  const Bytes whole = frameOf(message), frame(whole.begin() + 4, whole.end());
  EXPECT_EQ(whole, bytesOf(hex));
  EXPECT_STREQ(frameName(frame[0]), name);
  EXPECT_EQ(decode<Message>(frame), message);
  for (std::size_t size = 0; size < frame.size(); ++size) {
    // A copy of just that size: a read behind it is seen by the address sanitizer.
    const Bytes cut(frame.begin(), frame.begin() + static_cast<long>(size));
    EXPECT_THROW(decode<Message>(cut), ProtocolException) << size;
  }
  Bytes longer = frame, other = frame;
  longer.push_back(0);
  EXPECT_THROW(decode<Message>(longer), ProtocolException);
  other[0] ^= 1;
  EXPECT_THROW(decode<Message>(other), ProtocolException);
}
TEST(ProtocolFrames, areAsDrawn) {
  using namespace Frame;
  // clang-format off
  expectForm("hello", Hello{protocolMagic, 1, "ab", 0x0102, {{"M", 0xff}}},
             "00000028 40 4849564c 00000001 00000002 6162 0000000000000102 00000001 00000001 "
             "4d 00000000000000ff");
  expectForm("mount", Frame::Mount{5, Mode::adopt, true, "p", "T", "n", 9},
             "0000001e 41 00000005 02 01 00000001 70 00000001 54 00000001 6e 0000000000000009");
  expectForm("mounted", Mounted{5, "T", "n", 9, 3, "w", false},
             "00000025 42 00000005 00000001 54 00000001 6e 0000000000000009 0000000000000003 "
             "00000001 77 00");
  expectForm("refused", Refused{1, "no"}, "0000000b 43 00000001 00000002 6e6f");
  expectForm("waiting", Waiting{1}, "00000005 44 00000001");
  expectForm("adopted", Adopted{1, 2}, "0000000d 45 00000001 0000000000000002");
  expectForm("pathState", PathState{1, 2, "", true},
             "00000012 46 00000001 0000000000000002 00000000 01");
  expectForm("unmount", Unmount{1, true}, "00000006 47 00000001 01");
  expectForm("unmounted", Unmounted{1}, "00000005 48 00000001");
  expectForm("gone", Gone{1, ""}, "00000009 49 00000001 00000000");
  expectForm("list", List{1, false, "a"}, "0000000b 4a 00000001 00 00000001 61");
  expectForm("listEntry", ListEntry{1, true, "a", ""},
             "0000000f 4b 00000001 01 00000001 61 00000000");
  expectForm("listEnd", ListEnd{1}, "00000005 4c 00000001");
  expectForm("unwatch", Unwatch{1}, "00000005 4d 00000001");
  expectForm("sync", Sync{1}, "00000005 4e 00000001");
  expectForm("synced", Synced{1}, "00000005 4f 00000001");
  expectForm("status", Status{1}, "00000005 50 00000001");
  expectForm("statusIs", StatusIs{1, someStatus()},
             "000000c2 51 00000001 00000001 73 00000007 0000000000000001 0000000000000002 "
             "0000000000000003 0000000000000004 0000000000000005 "
             "00000001 0000000000000001 00000001 63 00000002 00000003 00000004 00000005 "
             "0000000000000006 0000000000000007 0000000000000008 0000000000000009 "
             "000000000000000a 000000000000000b 000000000000000c 000000000000000d "
             "00000001 00000001 70 00000001 54 00000001 77 0000000000000001 00000002 00000003 "
             "0000000000000004");
  expectForm("error", Error{false, "x"}, "00000007 52 00 00000001 78");
  // clang-format on
}
// Catches a value without meaning that is taken for another one.
TEST(ProtocolFrames, haveModesAndFlags) {
  Bytes mode = frameOf(Frame::Mount{}), flag = frameOf(Frame::Unmount{});
  mode[9] = 3;
  flag[9] = 2;
  EXPECT_THROW(decode<Frame::Mount>(std::span(mode).subspan(4)), ProtocolException);
  EXPECT_THROW(decode<Frame::Unmount>(std::span(flag).subspan(4)), ProtocolException);
}

// Catches frames that depend on how the bytes were cut, and a buffer that grows on a length
// word's mere promise.
TEST(ProtocolFrames, comeWholeHoweverTheBytesArrive) {
  std::minstd_rand random(5);
  FrameReader reader(1 << 17);
  Bytes run;
  std::size_t last = 0;
  for (U32 number = 0; number < 3000; ++number) {
    const Bytes frame =
        frameOf(Frame::Error{true, std::string(number * 37 % 70000, 'x')});
    run.insert(run.end(), frame.begin(), frame.end());
    const std::size_t size = random() % (run.size() + 1);
    reader.feed({run.data(), size});
    run.erase(run.begin(), run.begin() + static_cast<long>(size));
    while (const auto next = reader.next())
      EXPECT_EQ(decode<Frame::Error>(*next).reason.size(), last++ * 37 % 70000);
  }
  EXPECT_GT(last, 2000u);
  FrameReader promised(1 << 24);
  promised.feed(bytesOf("00ffffff 40"));
  EXPECT_FALSE(promised.next());
  EXPECT_LE(promised.memory(), 16u);
}
// Catches control bytes of a peer in a log line or on a terminal.
TEST(ProtocolText, isMadePrintable) {
  EXPECT_EQ(printable("a\x1b[31m\n\xff"), "a?[31m??");
  EXPECT_EQ(printable("abcdef", 3), "abc");
}

}  // namespace
}  // namespace HivelTest
