#include "Tunnel/TunnelTableHivelTypes.h"
#include "apps/tunnelctl/Record.h"
#include "tests/Support/Testing.h"
#include "tests/tunnelctl/RandomValues.h"

namespace Tunnelctl {
namespace {

using namespace Tunnel::TunnelTable;

// Catches a table of fields that is not the form that the type writes, a field whose place or
// width is told wrong, and a cut that is not noticed.
TEST(Record, fieldsAreThoseOfTheType) {
  Random random(11);
  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE(round);
    auto entry = Samples::sample<TunnelTableEntry>(random);
    entry.nexthopTunnelIdIs(Samples::sample<TunnelTableEntry>(random).tunnelId());
    const std::string name(random.below(129), static_cast<char>('a' + random.below(26)));
    entry.setName(Kop::String(name));
    std::vector<std::pair<std::string, std::string>> expected{
        {"tunnelId",        std::to_string(entry.tunnelId().value())           },
        {"nexthopTunnelId", std::to_string(entry.nexthopTunnelId().value())    },
        {"entryPref",       std::to_string(entry.entryPref().value())          },
        {"entryMetric",     std::to_string(entry.entryMetric())                },
        {"tunnelBw",        std::string(Kop::strepOf(entry.tunnelBw().value()))},
        {"endpoint count",  std::to_string(entry.endpoint().count())           },
    };
    for (U8 i = 0; i < entry.endpoint().count(); ++i)
      expected.emplace_back("endpoint[" + std::to_string(i) + "]",
                            entry.endpoint(TepIndex(i)).stringValue());
    expected.emplace_back("name count", std::to_string(name.size()));
    if (!name.empty()) expected.emplace_back("name", name);
    std::vector<U8> bytes(entry.serializeLen());
    entry.serialize(bytes.data());

    const RecordForm& form = *findRecordForm("TunnelTableEntry");
    const Record record = readRecord(form, bytes);
    EXPECT_TRUE(record.complete && record.error.empty()) << record.error;
    EXPECT_EQ(record.size, bytes.size());
    std::vector<std::pair<std::string, std::string>> found;
    U64 end = 0;
    for (const RecordField& field : record.fields) {
      EXPECT_EQ(field.offset, end);
      end += field.width;
      found.emplace_back(field.name, field.value.text);
    }
    EXPECT_EQ(found, expected);
    const std::size_t cut = random.below(bytes.size());
    const Record part = readRecord(form, std::span<const U8>(bytes).first(cut));
    EXPECT_FALSE(part.complete);
    EXPECT_THAT(part.error, testing::HasSubstr("of " + std::to_string(cut)));
  }
}

}  // namespace
}  // namespace Tunnelctl
