#include <gmock/gmock.h>

#include "Tunnel/TunnelTableHivelTypes.h"
#include "apps/tunnelctl/Record.h"
#include "tests/tunnelctl/RandomValues.h"

namespace Tunnelctl {
namespace {

using namespace Tunnel::TunnelTable;

Vantor::IpGenAddr randomAddress(Random& random) {
  U8 bytes[16];
  for (U8& byte : bytes)
    byte = static_cast<U8>(random.number());
  switch (random.below(3)) {
    case 0: return {};
    case 1: return Vantor::IpGenAddr::fromIpv4(static_cast<U32>(random.number()));
    default: return Vantor::IpGenAddr::fromIpv6(bytes);
  }
}
TunnelId randomTunnel(Random& random) {
  return TunnelId(TunnelId::convertToTunnelValue(
      static_cast<TunnelType>(random.below(23)),
      random.number() & TunnelIdConstants::tunnelIndexMask));
}

// Catches a table of fields that is not the form that the type writes, a field whose place or
// width is told wrong, and a cut that is not noticed.
TEST(Record, fieldsAreThoseOfTheType) {
  Random random(11);
  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE(round);
    const auto number = [&] { return static_cast<U32>(random.number()); };
    TunnelTableEntry entry(randomTunnel(random),
                           TunnelEntryPref(static_cast<U8>(number())));
    entry.nexthopTunnelIdIs(randomTunnel(random));
    entry.entryMetricIs(number());
    entry.tunnelBwIs(TunnelBandwidth(static_cast<float>(random.below(1000)) / 8));
    const U64 endpoints = random.below(17), name = random.below(129);
    std::vector<std::pair<std::string, std::string>> expected{
        {"tunnelId",        std::to_string(entry.tunnelId().value())           },
        {"nexthopTunnelId", std::to_string(entry.nexthopTunnelId().value())    },
        {"entryPref",       std::to_string(entry.entryPref().value())          },
        {"entryMetric",     std::to_string(entry.entryMetric())                },
        {"tunnelBw",        std::string(Kop::strepOf(entry.tunnelBw().value()))},
        {"endpoint count",  std::to_string(endpoints)                          },
    };
    for (U64 i = 0; i < endpoints; ++i) {
      const Vantor::IpGenAddr address = randomAddress(random);
      const Vantor::IpGenPrefix prefix(
          address, static_cast<U32>(random.below(address.bitCount() + 1)));
      entry.endpointIs(TepIndex(static_cast<U8>(i)), prefix);
      expected.emplace_back("endpoint[" + std::to_string(i) + "]", prefix.stringValue());
    }
    expected.emplace_back("name count", std::to_string(name));
    entry.setName(
        Kop::String(std::string(name, static_cast<char>('a' + random.below(26)))));
    if (name > 0) expected.emplace_back("name", entry.getName());
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
    EXPECT_LE(part.size, cut);
  }
}

}  // namespace
}  // namespace Tunnelctl
