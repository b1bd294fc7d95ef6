#include "Harness.h"
#include "tests/Support/Rows.h"
#include "tests/Support/Testing.h"

namespace FpmTest {
namespace {

// Catches a length that is believed. The reason must say where, what and which limit.
TEST(FpmDecoder, namesWhatIsMalformed) {
  // The place counts from the beginning of the stream, and what came before is good.
  const Bytes good = frameOf("24 0208 1=0a000000");
  for (const auto& row : Support::rowsIn("fpmagent/malformed.txt")) {
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
  for (const auto& row : Support::rowsIn("fpmagent/messages.txt")) {
    FrameReader frames;
    frames.feed(frameOf(row[0]));
    EXPECT_EQ(text(decode(*frames.next()).at(0)), row[1]);
  }
}

}  // namespace
}  // namespace FpmTest
