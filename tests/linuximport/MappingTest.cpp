#include "apps/linuximport/Mapping.h"
#include "tests/Support/Rows.h"
#include "tests/Support/Testing.h"
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
  const Bytes recording = Support::bytesIn("tests/linuximport/links.nl");
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
  for (const auto& row : Support::rowsIn("linuximport/malformed.txt")) {
    SCOPED_TRACE(row[2]);
    const Link link =
        readLink(Message(RTM_NEWLINK, 0).link(7, "t7").tunnel(row[0], row[1]).payload());
    EXPECT_EQ(std::to_string(link.index) + link.name, "7t7");
    const Mapped mapped = map(link);
    EXPECT_EQ(mapped.reason + joined(mapped.leftOut), row[2]);
    EXPECT_NE(mapped.reason.empty(), mapped.description.index() == 0);
  }
}

}  // namespace
}  // namespace LinuxImport
