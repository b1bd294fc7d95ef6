#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tunnel/TunnelTableHivelTypes.h"
#include "apps/tunnelctl/CommandLine.h"
#include "apps/tunnelctl/Record.h"
#include "tests/tunnelctl/RandomValues.h"

namespace Tunnelctl {
namespace {

using namespace Tunnel::TunnelTable;
using testing::HasSubstr;

using Values = std::vector<std::pair<std::string, std::string>>;  // of fields, in order

std::string str(const Kop::String& text) {
  return {text.data(), text.size()};
}

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

Values randomEntry(Random& random, std::vector<U8>& bytes) {
  const auto number = [&] { return static_cast<U32>(random.number()); };
  TunnelTableEntry entry(randomTunnel(random),
                         TunnelEntryPref(static_cast<U8>(number())));
  entry.nexthopTunnelIdIs(randomTunnel(random));
  entry.entryMetricIs(number());
  entry.tunnelBwIs(TunnelBandwidth(static_cast<float>(random.below(1000)) / 8));
  Values values{
      {"tunnelId",        std::to_string(entry.tunnelId().value())       },
      {"nexthopTunnelId", std::to_string(entry.nexthopTunnelId().value())},
      {"entryPref",       std::to_string(entry.entryPref().value())      },
      {"entryMetric",     std::to_string(entry.entryMetric())            },
      {"tunnelBw",        str(Kop::strepOf(entry.tunnelBw().value()))    },
  };
  const U64 endpoints = random.below(17), name = random.below(129);
  values.emplace_back("endpoint count", std::to_string(endpoints));
  for (U64 i = 0; i < endpoints; ++i) {
    const Vantor::IpGenAddr address = randomAddress(random);
    const Vantor::IpGenPrefix prefix(
        address, static_cast<U32>(random.below(address.bitCount() + 1)));
    entry.endpointIs(TepIndex(static_cast<U8>(i)), prefix);
    values.emplace_back("endpoint[" + std::to_string(i) + "]", str(prefix.stringValue()));
  }
  values.emplace_back("name count", std::to_string(name));
  entry.setName(
      Kop::String(std::string(name, static_cast<char>('a' + random.below(26)))));
  if (name > 0) values.emplace_back("name", str(entry.getName()));
  bytes.resize(entry.serializeLen());
  entry.serialize(bytes.data());
  return values;
}

Values randomVia(Random& random, std::vector<U8>& bytes) {
  MplsCosVia via;
  via.nexthopIs(randomAddress(random));
  via.intfIdIs(Vantor::IntfId::fromValue(random.number()));
  via.ipDscpIs(Vantor::IpDscp(static_cast<U8>(random.number())));
  via.mplsExpIs(U3(static_cast<unsigned>(random.below(8))));
  Vantor::DynamicMplsLabelStack labels;
  for (U64 i = random.below(20); i > 0; --i)
    labels.labelPush(static_cast<U32>(random.below(Vantor::maxMplsLabel + 1)));
  via.labelsIs(labels);
  Values values{
      {"nexthop",      str(via.nexthop().stringValue())          },
      {"intfId",       str(via.intfId().stringValue())           },
      {"ipDscp",       std::to_string(via.ipDscp().value())      },
      {"mplsExp",      std::to_string(U32{via.mplsExp()})        },
      {"labels count", std::to_string(labels.computedStackSize())},
  };
  for (U32 i = 0; i < labels.computedStackSize(); ++i)
    values.emplace_back("labels[" + std::to_string(i) + "]",
                        std::to_string(labels.computedLabel(i)));
  bytes.resize(via.serializeLen());
  via.serialize(bytes.data());
  return values;
}

// Catches a table of fields that is not the form that the types write, a field whose place or
// width is told wrong, and a cut that is not noticed.
TEST(Record, fieldsAreThoseOfTheTypes) {
  constexpr U32 seed = 11;
  Random random(seed);
  const struct {
    const char* type;
    Values (*make)(Random&, std::vector<U8>&);
  } forms[] = {
      {"TunnelTableEntry", randomEntry},
      {"MplsCosVia",       randomVia  },
  };
  for (int i = 0; i < 300; ++i)
    for (const auto& [type, make] : forms) {
      SCOPED_TRACE(std::string(type) + " " + std::to_string(i) + " seed " +
                   std::to_string(seed));
      std::vector<U8> bytes;
      const Values expected = make(random, bytes);
      const Record record = readRecord(*findRecordForm(type), bytes);
      EXPECT_TRUE(record.complete) << record.error;
      EXPECT_EQ(record.error, "");
      EXPECT_EQ(record.size, bytes.size());
      Values found;
      U64 end = 0;
      for (const RecordField& field : record.fields) {
        EXPECT_EQ(field.offset, end);
        end += field.width;
        found.emplace_back(field.name, field.value.text);
      }
      EXPECT_EQ(found, expected);
      const std::size_t cut = random.below(bytes.size());
      const Record part =
          readRecord(*findRecordForm(type), std::span<const U8>(bytes).first(cut));
      EXPECT_FALSE(part.complete);
      EXPECT_THAT(part.error, HasSubstr("of " + std::to_string(cut)));
      EXPECT_LE(part.size, cut);
    }
}

// Catches a bad record that is taken for a good one, or whose message does not say field,
// place, what was found and what is allowed.
TEST(Record, badRecordsAreToldByField) {
  const std::string head = "0500000000300000 0000000000000000 37 0a000000 00000000 ";
  const std::string address = "01000000 0a000001 000000000000000000000000 ";
  const std::string via = address + "0000000000000000 00 ";
  const struct {
    const char* type;
    std::string hex;
    int status;
    const char* text;  // of the output, or else of the error
  } rows[] = {
      {"TunnelTableEntry",          head + "00000000 00000000",                        0, "LDP tunnel index 5"                                                     },
      {"TunnelTableEntry",          head + "00000000 02000000 5231",                   0, "name             R1\n"                                                  },
      {"TunnelTableEntry",          head + "11000000",                                 1,
       "endpoint count at offset 25: found 17, allowed 0 to 16; 29 bytes are there"                                                                                },
      {"TunnelTableEntry",          head + "02000000" + address,                       1,
       "found 2, which takes 48 bytes, but 20 are left of 49"                                                                                                      },
      {"TunnelTableEntry",          head + "00000000 81000000",                        1,
       "name count at offset 29: found 129, allowed 0 to 128"                                                                                                      },
      {"TunnelTableEntry",          head + "00000000 00000000 ff",                     1, "ends at offset 33, but 34"                                              },
      {"TunnelTableEntry",
       head + "01000000 0700000000000000 0000000000000000"
              "0000000000000000 00000000",                                             1, "endpoint[0] at offset 29: found 7, allowed 0 for no address, 1 for IPv4"},
      {"TunnelTableEntry",          head + "01000000" + address + "21000000 00000000", 1,
       "endpoint[0] at offset 29: found 33, allowed 0 to 32 as the length of 10.0.0.1"                                                                             },
      {"TunnelTableEntry",          "0000000000900100",                                1, "found type 25 in 439804651110400"                                       },
      {"TunnelTableEntry",          "00000000000000ff",                                1,
       "tunnelId at offset 0: found 18374686479671623680, allowed 0 to 562949953421311"                                                                            },
      {"MplsCosVia",                via + "05 00000000",                               0, "10.0.0.1"                                                               },
      {"MplsCosVia",                via + "09 00000000",                               1,
       "mplsExp at offset 29: found 9, allowed 0 to 7"                                                                                                             },
      {"MplsCosVia",                via + "05 01000000 00001000",                      1,
       "labels[0] at offset 34: found 1048576, allowed 0 to 1048575"                                                                                               },
      {"MplsCosVia",                via + "05 ffffffff",                               1,
       "which takes 17179869180 bytes, but 0 are left"                                                                                                             },
      {"MplsCosVia",                "",                                                1, "nexthop at offset 0: needs 20 bytes, but 0 are left of 0"               },
      {"MulticastTunnelTableEntry", "0500000000600100 02000000 0a01",                  0, "0a01"                                                                   },
      {"MulticastTunnelTableEntry", "0500000000600100 03000000 0a01",                  1,
       "mcastTreeId count at offset 8: found 3, which takes 3 bytes, but 2 are left of "
       "14"                                                                                                                                                        },
      {"DynamicMplsLabelStack",     "0x01000000-10000000",                             0, "labels[0]     16"                                                       },
      {"DynamicMplsLabelStack",     "010",                                             2,
       "--hex: found 3 hexadecimal digits, expected two"                                                                                                           },
      {"DynamicMplsLabelStack",     "01 x",                                            2, "--hex: found x at character 4"                                          },
      {"frob",                      "",                                                2, "TYPE 'frob': expected one of TunnelTableEntry, MplsCosVia"              },
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.type + std::string(" ") + row.hex);
    std::ostringstream out, err;
    EXPECT_EQ(run({"record", row.type, "--hex", row.hex}, {out, err}), row.status);
    EXPECT_THAT(row.status == 0 ? out.str() : err.str(), HasSubstr(row.text));
  }
}

// Catches records behind one another that are not found, and a bad one that hides the good
// ones in front of it.
TEST(Record, severalAreReadUntilOneCannotBe) {
  std::ostringstream out, err;
  const std::string one = "01000000 10000000", cut = "02000000 10000000";
  EXPECT_EQ(
      run({"-j", "record", "DynamicMplsLabelStack", "--all", "--hex", one + one + cut},
          {out, err}),
      1);
  EXPECT_THAT(err.str(),
              HasSubstr("record 2, which begins at 16: labels count at offset 0"));
  const Json records = parseJson(out.str());
  ASSERT_EQ(records.items.size(), 3u);
  EXPECT_EQ(records.items[1].find("offset")->text, "8");
  EXPECT_TRUE(records.items[1].find("error")->is(Json::Kind::null));
  EXPECT_TRUE(records.items[2].find("error")->is(Json::Kind::string));
}

}  // namespace
}  // namespace Tunnelctl
