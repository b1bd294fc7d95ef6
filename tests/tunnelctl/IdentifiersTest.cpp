#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tunnel/TunnelIntfId.h"
#include "apps/tunnelctl/Identifiers.h"

namespace Tunnelctl {
namespace {

using namespace Tunnel::TunnelTable;
using testing::HasSubstr;

// "table=ldpTunnelTable family=IPv4": the members a row names.
std::string shown(const Json& record, const std::string& names) {
  std::string text;
  std::size_t begin = 0;
  while (begin < names.size()) {
    const std::size_t end = std::min(names.find(' ', begin), names.size());
    const std::string name = names.substr(begin, end - begin);
    const Json* const found = record.find(name);
    text += (text.empty() ? "" : " ") + (found ? plain(*found) : "no " + name);
    begin = end + 1;
  }
  return text;
}

// Catches a text form that is read as another tunnel, and a property shown of a wrong kind.
TEST(TunnelIdDecode, readsEveryForm) {
  const struct {
    const char* text;
    const char* names;
    const char* values;
  } rows[] = {
      {"52776558133253",              "hex kind number type index family algorithm",
       "0x300000000005 ldpTunnel 3 LDP 5 IPv4 -"                                                                                           },
      {"0x300000000005",              "value table transport entropyLabel interface text diagnostic",
       "52776558133253 ldpTunnelTable mplsTunnel yes DynamicTunnel3145728.5 "
       "LDP tunnel index 5 Table:ldpTunnel-Index:5"                                                                                        },
      {"LDP tunnel index 26",         "value",                                                        "52776558133274"                     },
      {"ldp tunnel index 0x1a",       "value",                                                        "52776558133274"                     },
      {"SR-TE Policy tunnel index 5", "kind interface",
       "srTePolicyTunnel SrTePolicyTunnel1966080.5"                                                                                        },
      {"SrTePolicyTunnel1966080.5",   "kind index",                                                   "srTePolicyTunnel 5"                 },
      {"Table:ldpTunnel-Index:1a",    "value",                                                        "52776558133274"                     },
      {"DynamicTunnel3145728.5",      "kind index",                                                   "ldpTunnel 5"                        },
      {"Tunnel12",                    "kind index interface family table",
       "staticInterfaceTunnel 12 Tunnel12 - -"                                                                                             },
      {"0x1540000000007",             "kind index algorithm",                                         "isisFlexAlgoTunnel 7 128"           },
      {"0x580001234567",              "kind family index",                                            "staticTunnel IPv6 19088743"         },
      {"0x380000000005",              "kind family",                                                  "ldpTunnel -"                        }, // this kind has no IPv6
      {"0x800000000001",              "kind family table",
       "srTeSegmentListTunnel - srTeSegmentListTunnelTable"                                                                                },
      {"0",                           "kind table entropyLabel",                                      "invalidTunnel invalidTunnelTable no"},
      {"0x1700000000001",             "kind number type table transport",                             "- 23 - - -"                         },
      {"0x1ffffffffffff",             "kind index table transport",
       "maxTunnelType 8796093022207 - unknownTunnel"                                                                                       },
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(shown(describe(readTunnelId(row.text)), row.names), row.values);
  }
}

// Catches arguments that are taken for something else, and errors that do not help.
TEST(TunnelIdDecode, refusesWhatIsNoIdentifier) {
  const struct {
    const char* text;
    const char* error;
  } rows[] = {
      {"0x2000000000000",                  "above the largest identifier 562949953421311"},
      {"18446744073709551616",             "expected a number"                           },
      {"-1",                               "expected a number"                           },
      {"0x",                               "expected a number"                           },
      {"",                                 "expected a number"                           },
      {"5 ",                               "expected a number"                           },
      {"LDP tunnel index 8796093022208",   "'LDP tunnel index 8796093022208'"            },
      {"XYZ tunnel index 5",               "'XYZ tunnel index 5'"                        },
      {"Table:ldpTunnel-Index:",           "'Table:ldpTunnel-Index:'"                    },
      {"Table:ldpTunnel-Index:1g",         "'Table:ldpTunnel-Index:1g'"                  },
      {"Ethernet1",                        "a tunnel's interface"                        },
      {"DynamicTunnel4294967295.16777215", "a tunnel's interface"                        },
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    try {
      readTunnelId(row.text);
      ADD_FAILURE() << "was taken";
    } catch (const UsageError& error) {
      EXPECT_THAT(error.what(), HasSubstr(row.error));
    }
  }
}

// Catches a kind, family or index bit that one of the forms loses, and any kind that runs
// into an assertion.
TEST(TunnelIdDecode, everyFormOfEveryKindReadsBack) {
  constexpr U32 seed = 77;
  std::mt19937_64 random(seed);
  for (U64 kind = 0; kind < 32; ++kind) {
    for (int i = 0; i < 200; ++i) {
      const TunnelId id(kind << 44 | (random() & 0xfffffffffff) >> (random() % 44));
      const Json json = describe(id);
      SCOPED_TRACE(writeJson(json, false));
      for (const char* name : {"value", "hex"})
        EXPECT_EQ(readTunnelId(plain(*json.find(name))), id);
      const TunnelType type = id.tunnelType();
      const bool isNamed = !json.find("kind")->is(Json::Kind::null);
      const U64 kindAndIndex = kind << 44 | id.tunnelIndex();
      if (isNamed) {
        // Texts for people leave out family and algorithm.
        EXPECT_EQ(readTunnelId(plain(*json.find("text"))).value(), kindAndIndex);
        EXPECT_EQ(readTunnelId(plain(*json.find("diagnostic"))).value(), kindAndIndex);
      }
      const TunnelId back = readTunnelId(plain(*json.find("interface")));
      if (type == srTePolicyTunnel) {
        EXPECT_EQ(back.value(), kindAndIndex & ~(U64{7} << 40));
      } else if (type != staticInterfaceTunnel) {
        EXPECT_EQ(back, id);
      }
    }
  }
}

// Catches a kind whose table is asked for although it has none: that ends the process.
TEST(TunnelIdDeathTest, exactlyTheKindsShownWithoutTableHaveNone) {
  testing::FLAGS_gtest_death_test_style = "fast";
  for (U64 kind = 0; kind < 32; ++kind) {
    SCOPED_TRACE(kind);
    const TunnelId id(kind << 44 | 1);
    if (hasTable(id.tunnelType())) {
      EXPECT_NE(Kop::EnumOps<TunnelTableIdentifier>::name(id.tableType()), "");
    } else {
      EXPECT_DEATH(id.tableType(), "Tunnel/TunnelBasicTypes");
    }
  }
}

// Catches an identifier put together for another tunnel, or one that cannot be.
TEST(TunnelIdEncode, buildsOnlyWhatExists) {
  const struct {
    TunnelIdParts parts;
    U64 value;
    const char* error;
  } rows[] = {
      {{"ldpTunnel", "26", false, {}},                   52776558133274,  ""                                              },
      {{"LDP", "0x1a", false, {}},                       52776558133274,  ""                                              },
      {{"is-is flexalgo", "7", false, "128"},            0x1540000000007, ""                                              },
      {{"isisFlexAlgoTunnel", "7", true, {}},            0x1580000000007, ""                                              },
      {{"Static MPLS", "1", true, {}},                   0x580000000001,  ""                                              },
      {{"ldpTunnel", "8796093022207", false, {}},        0x37ffffffffff,  ""                                              },
      {{"ldpTunnel", "8796093022208", false, {}},        0,               "INDEX '8796093022208'"                         },
      {{"isisFlexAlgoTunnel", "0x800000000", false, {}}, 0,               "(0x7ffffffff)"                                 },
      {{"isisFlexAlgoTunnel", "1", false, "256"},        0,               "--algo '256'"                                  },
      {{"ldpTunnel", "1", false, "5"},                   0,               "only isisFlexAlgoTunnel has one"               },
      {{"ldpTunnel", "1", true, {}},                     0,               "ldpTunnel has no IPv6"                         },
      {{"srTeSegmentListTunnel", "1", true, {}},         0,               "has no IPv6"                                   },
      {{"", "1", false, {}},                             0,               "KIND ''"                                       },
      {{"frob", "1", false, {}},                         0,               "expected one of invalidTunnel, bgpLuPushTunnel"},
      {{"ldpTunnel", "x", false, {}},                    0,               "INDEX 'x'"                                     },
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.parts.kind + " " + row.parts.index + " " + row.error);
    try {
      EXPECT_EQ(makeTunnelId(row.parts).value(), row.value);
      EXPECT_STREQ(row.error, "");
    } catch (const UsageError& error) {
      EXPECT_STRNE(row.error, "");
      EXPECT_THAT(error.what(), HasSubstr(row.error));
    }
  }
}

// Catches kinds mixed up: VXLAN is shown as invalid, but is not the invalid kind.
TEST(Encap, decodesAndEncodes) {
  const struct {
    const char* kind;
    const char* index;
    U32 value;
    const char* shown;
  } rows[] = {
      {"mplsEncap",    "7",         0x40000007, "mplsEncap MPLS 7"              },
      {"MPLS",         "0xfffffff", 0x4fffffff, "mplsEncap MPLS 268435455"      },
      {"vxlanEncap",   "1",         0x50000001, "vxlanEncap Invalid 1"          },
      {"Invalid",      "1",         1,          "invalidEncap Invalid 1"        },
      {"GREoverIPsec", "2",         0x30000002, "ipSecGreEncap GRE over IPsec 2"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.kind);
    const EncapId id = makeEncapId(row.kind, row.index);
    EXPECT_EQ(id.encapIdValue(), row.value);
    EXPECT_EQ(shown(describe(readEncapId(std::to_string(row.value))), "kind type index"),
              row.shown);
  }
  EXPECT_EQ(shown(describe(readEncapId("0xf0000001")), "kind number type index"),
            "- 15 - 1");
  for (const char* bad : {"4294967296", "x", "", "-1"})
    EXPECT_THROW(readEncapId(bad), UsageError) << bad;
  EXPECT_THROW(makeEncapId("MPLS", "0x10000000"), UsageError);
  EXPECT_THROW(makeEncapId("frob", "1"), UsageError);
}

// Catches a word and a name that are not each other's.
TEST(Intf, wordsAndNamesAreEachOthers) {
  const struct {
    const char* text;
    const char* shown;
  } rows[] = {
      {"DynamicTunnel3145728.5",
       "DynamicTunnel3145728.5 0x3a00300000000005 58 3145728 5 52776558133253 LDP tunnel "
       "index 5"                                                      },
      {"4179393230757953541",
       "DynamicTunnel3145728.5 0x3a00300000000005 58 3145728 5 52776558133253 LDP tunnel "
       "index 5"                                                      },
      {"Vlan10",                 "Vlan10 0x30000000a000000 3 10 0 - -"},
      {"0",                      "- 0x0 0 0 0 - -"                    },
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(
        shown(describe(readIntfId(row.text)), "name hex type part1 part0 tunnel text"),
        row.shown);
  }
  EXPECT_THROW(readIntfId("DynamicTunnel1.99999999"), UsageError);
  EXPECT_THROW(readIntfId("an interface name"), UsageError);
}

// Catches words of one text that are taken one by one, and the other way round.
TEST(TunnelIdDecode, wordsMayBeOneTextOrSeveralIdentifiers) {
  EXPECT_EQ(decodeTunnelIds({"LDP", "tunnel", "index", "26"}).items.size(), 1u);
  EXPECT_EQ(decodeTunnelIds({"LDP tunnel index 26", "5"}).items.size(), 2u);
  EXPECT_EQ(decodeTunnelIds({"5", "Tunnel12", "0x7"}).items.size(), 3u);
  EXPECT_THROW(decodeTunnelIds({"5", "frob"}), UsageError);
  EXPECT_THROW(decodeTunnelIds({"XYZ", "tunnel", "index", "26"}), UsageError);
}

}  // namespace
}  // namespace Tunnelctl
