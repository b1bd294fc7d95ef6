#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <tuple>

#include <gtest/gtest.h>

#include "Kop/Exception.h"
#include "Toggle/Toggle.h"
#include "Tunnel/TunnelBasicTypes.h"
#include "Tunnel/TunnelIntfId.h"

namespace Tunnel::TunnelTable {
namespace {

template <class E>
std::string thrown(const std::function<void()>& action) {
  try {
    action();
  } catch (const E& error) {
    return error.what();
  }
  return "nothing thrown";
}
// As it arrives from a peer: unchecked.
TunnelId raw(U64 word) {
  Kop::NboAttrLog::Out out;
  out.writeU64(word);
  Kop::NboAttrLog::In in(out.data(), out.size());
  return TunnelId(in);
}
TunnelId rawOf(U64 type, U64 indexAndAf) {
  return raw(type << 44 | indexAndAf);
}
constexpr U64 afBit = 1ull << 43;

struct Kind {
  U32 type;
  const char* name;
  const char* cliText;
  int table;  // none: -1
  int transport;
  char family;  // A: IPv4 only, B: by the bit, C: none
  bool entropyLabel;
};
constexpr Kind kinds[] = {
    {0,  "invalidTunnel",           "invalidTunnel",    0,  0, 'A', false},
    {1,  "bgpLuPushTunnel",         "BGP LU Push",      2,  1, 'A', true },
    {2,  "bgpLuTunnel",             "BGP LU",           1,  1, 'A', true },
    {3,  "ldpTunnel",               "LDP",              3,  1, 'A', true },
    {4,  "nexthopTunnel",           "Nexthop",          -1, 0, 'A', false},
    {5,  "staticTunnel",            "Static MPLS",      9,  1, 'B', true },
    {6,  "evpnVxlanTunnel",         "EVPN VXLAN",       15, 0, 'A', false},
    {7,  "srTunnel",                "IS-IS SR",         7,  1, 'B', true },
    {8,  "srTeSegmentListTunnel",   "SR-TE",            11, 1, 'C', true },
    {9,  "staticInterfaceTunnel",   "Static Interface", -1, 2, 'C', false},
    {10, "rsvpTunnel",              "RSVP",             -1, 1, 'A', true },
    {11, "nexthopGroupTunnel",      "Nexthop Group",    10, 1, 'B', false},
    {12, "tiLfaTunnel",             "TI-LFA",           16, 1, 'A', false},
    {13, "ospfSrTunnel",            "OSPF SR",          8,  1, 'B', true },
    {14, "srTePolicyTunnel",        "SR-TE Policy",     17, 1, 'A', false},
    {15, "vxlanVtepEncapTunnel",    "VXLAN VTEP Encap", -1, 0, 'A', false},
    {16, "rsvpLerTunnel",           "RSVP LER",         6,  1, 'A', false},
    {17, "rsvpFrrTunnel",           "RSVP FRR",         4,  1, 'A', false},
    {18, "kelSdkSbfdSessionTunnel", "KelSdk sBFD",      18, 1, 'A', false},
    {19, "vxlanTunnel",             "VXLAN",            -1, 0, 'A', false},
    {20, "rsvpLerSubTunnel",        "RSVP LER SUB",     5,  1, 'A', false},
    {21, "isisFlexAlgoTunnel",      "IS-IS FlexAlgo",   19, 1, 'B', true },
    {22, "mldpTunnel",              "MLDP",             20, 1, 'A', false},
    {31, "maxTunnelType",           "maxTunnelType",    -1, 0, 'A', false},
};
constexpr U32 noTypes[] = {23, 24, 25, 26, 27, 28, 29, 30, 32, 33, 64, 0xfffff};

int familyOf(const Kind& kind, bool ipv6) {
  return kind.family == 'C' ? 0 : kind.family == 'B' && ipv6 ? 2 : 1;
}

// Catches a property that is computed from the number, shifted by a row, or guessed for a
// number that is no type.
TEST(TunnelKinds, propertiesByType) {
  for (const Kind& kind : kinds) {
    SCOPED_TRACE(kind.name);
    const auto type = static_cast<TunnelType>(kind.type);
    EXPECT_EQ(valueToStrep(type), kind.name);
    EXPECT_EQ(TunnelTypeInstance(Kop::String(kind.name)), type);
    EXPECT_EQ(TunnelTypeInstance(kind.type), type);
    for (const bool json : {false, true})
      EXPECT_EQ(TunnelId::tunnelTypeToCliStrep(type, json), kind.cliText);
    const TunnelId id(TunnelId::convertToTunnelValue(type, 26));
    EXPECT_EQ(id.tunnelType(), type);
    EXPECT_EQ(id.typeCliStr(), kind.cliText);
    EXPECT_TRUE(kind.table < 0 || int{id.tableType()} == kind.table);
    EXPECT_EQ(int{id.tunnelTransportType()}, kind.transport);
    EXPECT_EQ(id.supportsEntropyLabelPush(), kind.entropyLabel);
    EXPECT_EQ(id.toStrep(), Kop::String(std::string("Table:") + kind.name + "-Index:1a"));
    EXPECT_EQ(id.toCliStrep(),
              Kop::String(std::string(kind.cliText) + " tunnel index 26"));
    EXPECT_EQ(id.addressFamilyCliStr(), "IPv4");
    EXPECT_EQ(int(id.tunnelAf()), familyOf(kind, false));

    const TunnelId six(TunnelId::convertToTunnelValue(type, afBit | 26));
    EXPECT_EQ(six.addressFamilyCliStr(), "IPv6");
    EXPECT_EQ(six.tunnelIndex(), 26u);
    if (kind.family != 'A') {
      EXPECT_EQ(int(six.tunnelAf()), familyOf(kind, true));
      continue;
    }
    std::ostringstream message;
    message << "IPv6 not yet supported for " << std::hex << kind.type;
    EXPECT_EQ(thrown<Kop::InternalException>([&] { six.tunnelAf(); }), message.str());
  }
  for (const U32 number : noTypes) {
    SCOPED_TRACE(number);
    const auto type = static_cast<TunnelType>(number);
    for (const bool json : {false, true})
      EXPECT_EQ(TunnelId::tunnelTypeToCliStrep(type, json), "");
    EXPECT_EQ(valueToStrep(type), Kop::String(std::to_string(number)));
    EXPECT_THROW(TunnelTypeInstance(number), Kop::RangeException);
    const TunnelId id = rawOf(number, 26);
    EXPECT_EQ(U32{id.tunnelType()}, number);
    EXPECT_FALSE(id.supportsEntropyLabelPush());
    EXPECT_EQ(id.tunnelAf(), Vantor::ipv4);
    std::ostringstream hex;
    hex << std::hex << number;
    EXPECT_EQ(thrown<Kop::InternalException>([&] { id.tunnelTransportType(); }),
              "Unexpected tunnelType " + hex.str());
    EXPECT_EQ(
        thrown<Kop::InternalException>([&] { rawOf(number, afBit | 1).tunnelAf(); }),
        "IPv6 not yet supported for " + hex.str());
  }
}

// Catches an assertion that has become an answer, an exception, or another text.
TEST(TunnelKindsDeathTest, tableOfATypeWithoutOne) {
  testing::GTEST_FLAG(death_test_style) = "fast";
  for (const Kind& kind : kinds) {
    if (kind.table >= 0) continue;
    EXPECT_EXIT((void)rawOf(kind.type, 1).tableType(), testing::KilledBySignal(SIGABRT),
                "Tunnel/TunnelBasicTypes: .*Assertion "
                "\"false && \"No tunnel table identifier for type\"\" failed");
  }
  for (const U32 number : noTypes)
    EXPECT_EXIT((void)rawOf(number, 1).tableType(), testing::KilledBySignal(SIGABRT),
                "Tunnel/TunnelBasicTypes: .*Assertion "
                "\"false && \"Unknown tunnel type used\"\" failed");
}

// Catches a shift or mask at the wrong bit, and a check at the wrong limit.
TEST(TunnelIdLayout, convert) {
  EXPECT_EQ(TunnelId::convertToTunnelValue(ldpTunnel, 5), 0x300000000005u);
  EXPECT_EQ(TunnelId::convertToTunnelValue(static_cast<TunnelType>(37), 1),
            0x500000000001u);
  EXPECT_EQ(TunnelId::convertToTunnelValue(ldpTunnel, 0xfffffffffff), 0x3fffffffffffu);
  for (const U64 index : {U64{1} << 44, ~U64{0}})
    EXPECT_EQ(thrown<Kop::RangeException>(
                  [&] { TunnelId::convertToTunnelValue(ldpTunnel, index); }),
              "Invalid 'indexAndAf'value, value is above 2^44");
  const TunnelId largest(TunnelId::maxValue);
  EXPECT_EQ(largest.tunnelType(), maxTunnelType);
  EXPECT_EQ(largest.tunnelIndex(), TunnelIdConstants::tunnelIndexMask);
  EXPECT_EQ(largest.extractIndexAndAf(), 0xfffffffffffu);
  EXPECT_TRUE(largest.isValid());
  EXPECT_FALSE(TunnelId().isValid());
}

// Catches an algorithm's number that is taken from, or put into, another type's index.
TEST(TunnelIdLayout, flexAlgo) {
  const TunnelId id(TunnelId::convertToFlexAlgoTunnelValue(isisFlexAlgoTunnel, 128, 7));
  EXPECT_EQ(id.value(), 0x1540000000007u);
  EXPECT_EQ(id.extractFlexAlgoId(), 128);
  EXPECT_EQ(id.tunnelIndex(), 7u);
  EXPECT_EQ(id.toStrep(), "Table:isisFlexAlgoTunnel-Index:7");
  // An index beyond 35 bits merges with the algorithm.
  EXPECT_EQ(TunnelId::convertToFlexAlgoTunnelValue(isisFlexAlgoTunnel, 128, 1ull << 35),
            0x1540800000000u);
  EXPECT_EQ(thrown<Kop::RangeException>(
                [] { TunnelId::convertToFlexAlgoTunnelValue(srTunnel, 1, 1); }),
            "convertToFlexAlgoTunnelValue only supported for flex algo tunnels");
  EXPECT_EQ(thrown<Kop::RangeException>([] {
              TunnelId::convertToFlexAlgoTunnelValue(isisFlexAlgoTunnel, 1, 1ull << 44);
            }),
            "Invalid 'indexAndAf'value, value is above 2^44");
  EXPECT_EQ(thrown<Kop::RangeException>([] {
              TunnelId(TunnelId::convertToTunnelValue(srTunnel, 1)).extractFlexAlgoId();
            }),
            "extractFlexAlgoId only supported for flex algo tunnels");
  for (const Kind& kind : kinds)
    EXPECT_EQ(TunnelId::isFlexAlgoTunnelType(static_cast<TunnelType>(kind.type)),
              kind.type == 21);
}

// Catches a range check that is missing where a text or a program makes an identifier, or
// that is made where the log brings one.
TEST(TunnelIdRange, checkedUnlessFromTheLog) {
  const std::string message =
      "Tunnel::TunnelTable::TunnelId::value < Tunnel::TunnelTable::TunnelId::minValue or "
      "> Tunnel::TunnelTable::TunnelId::maxValue not allowed";
  EXPECT_EQ(thrown<Kop::RangeException>([] { TunnelId(1ull << 49); }), message);
  EXPECT_EQ(
      thrown<Kop::RangeException>([] { strepToValue<TunnelId>("562949953421312"); }),
      message);
  EXPECT_EQ(strepToValue<TunnelId>("562949953421311").value(), TunnelId::maxValue);
  EXPECT_EQ(raw(~U64{0}).value(), ~U64{0});
  EXPECT_EQ(strepToValue<TunnelIdConstants>(""), TunnelIdConstants());
  EXPECT_THROW(strepToValue<TunnelIdConstants>("1"), Kop::Exception);
}

// Catches an interface that another part of the system would not decode to the tunnel, and a
// policy that is shown as a dynamic tunnel or whose parts are split elsewhere.
TEST(TunnelInterfaces, wordsAndNames) {
  using Vantor::DynamicTunnelIntfId;
  constexpr U64 policy = U64{srTePolicyTunnel} << 44;
  const std::tuple<U64, U64, const char*> rows[] = {
      {0,                      0x3a00000000000000, "DynamicTunnel0.0"               },
      {0x300000000005,         0x3a00300000000005, "DynamicTunnel3145728.5"         },
      {0x580001234567,         0x3a00580001234567, "DynamicTunnel5767169.2311527"   },
      {TunnelId::maxValue,     0x3a01ffffffffffff, "DynamicTunnel33554431.16777215" },
      {policy | 5,             0x13001e0000000005, "SrTePolicyTunnel1966080.5"      },
      {policy | afBit | 5,     0x13001e0000000005, "SrTePolicyTunnel1966080.5"      },
      {policy | 0x7fffff,      0x13001e00007fffff, "SrTePolicyTunnel1966080.8388607"},
      {policy | 0x800000,      0x13001e0001000000, "SrTePolicyTunnel1966081.0"      },
      {policy | U64{1} << 40,  0x13001e0000000000, "SrTePolicyTunnel1966080.0"      },
      {policy | 0x7ffffffffff, 0x13001fffff7fffff, "SrTePolicyTunnel2097151.8388607"},
  };
  for (const auto& [tunnel, word, name] : rows) {
    SCOPED_TRACE(name);
    const Vantor::IntfId intf = TunnelId(tunnel).intfId();
    EXPECT_EQ(intf.value(), word);
    EXPECT_EQ(intf, Vantor::IntfId(name));
    EXPECT_EQ(TunnelId(tunnel).intfCliStr(), name);
    const bool isDynamic = name[0] == 'D';
    EXPECT_EQ(DynamicTunnelIntfId::isDynamicTunnelIntfId(intf), isDynamic);
    EXPECT_EQ(DynamicTunnelIntfId::tunnelId(intf), isDynamic ? tunnel : 0);
    if (!isDynamic) continue;
    EXPECT_EQ(intf, DynamicTunnelIntfId::tunnelIdToIntfId(tunnel));
    EXPECT_EQ(valueToStrep(DynamicTunnelIntfId(intf)), Kop::String(std::to_string(word)));
  }
  EXPECT_EQ(DynamicTunnelIntfId::tunnelId(DynamicTunnelIntfId::tunnelIdToIntfId(~U64{0})),
            0x00ffffffffffffffu);
  for (const char* name : {"", "Vlan1", "Ethernet3/1"})
    EXPECT_EQ(DynamicTunnelIntfId::tunnelId(Vantor::IntfId(name)), 0u);
  EXPECT_EQ(thrown<Kop::Exception>([] { strepToValue<DynamicTunnelIntfId>("x"); }),
            "cannot read attribute 'intfId'");
  const TunnelId configured(TunnelId::convertToTunnelValue(staticInterfaceTunnel, 12));
  EXPECT_EQ(configured.intfCliStr(), "Tunnel12");
  EXPECT_EQ(configured.intfId().stringValue(), "DynamicTunnel9437184.12");
}

// Catches a process-wide locale that gets into texts that other programs read.
TEST(TunnelIdTexts, followNoLocale) {
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  const auto before =
      std::locale::global(std::locale(std::locale::classic(), new Grouping));
  const TunnelId id(TunnelId::convertToTunnelValue(ldpTunnel, 1234567));
  EXPECT_EQ(id.toCliStrep(), "LDP tunnel index 1234567");
  EXPECT_EQ(id.toStrep(), "Table:ldpTunnel-Index:12d687");
  EXPECT_EQ(valueToStrep(id), "52776559367815");
  std::ostringstream out;
  out << EncapId(1234567);
  EXPECT_EQ(out.str(), "1234567");
  std::locale::global(before);
}

// Catches an encapsulation's fields that overlap, and texts at the wrong kind.
TEST(EncapIds, fieldsAndTexts) {
  EncapId id;
  id.encapValueIs(mplsEncap, 7);
  EXPECT_EQ(id.encapIdValue(), 0x40000007u);
  EXPECT_EQ(id.encapType(), mplsEncap);
  EXPECT_EQ(id.encapIndex(), 7u);
  EXPECT_EQ(thrown<Kop::RangeException>([&] { id.encapValueIs(greEncap, 0x10000000); }),
            "Invalid 'encapIndex'");
  EXPECT_EQ(id.encapIdValue(), 0x40000007u);  // as it was
  id.encapValueIs(greEncap, 0x0fffffff);
  EXPECT_EQ(id.encapIdValue(), 0x1fffffffu);
  id.encapValueIs(static_cast<EncapType>(15), 1);
  EXPECT_EQ(id.encapIdValue(), 0xf0000001u);

  constexpr const char* texts[][2] = {
      {"Invalid",        "Invalid"     },
      {"GRE",            "GRE"         },
      {"IPsec",          "IPsec"       },
      {"GRE over IPsec", "GREoverIPsec"},
      {"MPLS",           "MPLS"        },
      {"Invalid",        "Invalid"     },
  };
  for (U32 kind = 0; kind < 16; ++kind) {
    id.encapIdValueIs(kind << 28 | 1);
    for (const bool json : {false, true})
      EXPECT_EQ(id.typeCliStr(json), kind < 6 ? texts[kind][json] : "") << kind;
  }
  EXPECT_EQ(EncapId::typeCliStrep(static_cast<EncapType>(255), true), "");
}

// Catches an unknown bandwidth that passes for a number, or the reverse.
TEST(TunnelBandwidths, presentAndValid) {
  const std::tuple<float, bool, bool> rows[] = {
      {TunnelBandwidth().value(),               false, false},
      {TunnelBandwidth::defaultValue,           true,  true },
      {-0.0f,                                   true,  true },
      {1e38f,                                   true,  true },
      {-0.5f,                                   true,  false},
      {std::numeric_limits<float>::infinity(),  true,  false},
      {-std::numeric_limits<float>::infinity(), true,  false},
      {std::numeric_limits<float>::quiet_NaN(), true,  false},
  };
  for (const auto& [value, isPresent, isValid] : rows) {
    const TunnelBandwidth bandwidth(value);
    EXPECT_EQ(bandwidth.isPresent(), isPresent) << value;
    EXPECT_EQ(bandwidth.isValid(), isValid) << value;
    EXPECT_EQ(Kop::ValueOps<TunnelBandwidth>::truth(bandwidth), isPresent) << value;
  }
}

// Catches a sequence number that comes to 0, which means that there is none.
TEST(SequenceNumbers, wrapPastZero) {
  constexpr std::array<U16, 3> rows[] = {
  // number, added, sum
      {65535, 1,     1    },
      {65535, 2,     1    },
      {65535, 3,     2    },
      {65000, 536,   1    },
      {0,     0,     0    },
      {7,     0,     7    },
      {0,     9,     9    },
      {1,     65535, 1    },
      {65535, 65535, 65534},
  };
  for (const auto& [number, added, sum] : rows) {
    TunnelEntrySequenceNumber a(number);
    EXPECT_EQ((a += TunnelEntrySequenceNumber(added)).value(), sum);
  }
  EXPECT_EQ(strepToValue<TunnelEntrySequenceNumber>("0").value(), 0);
  EXPECT_THROW(strepToValue<TunnelEntrySequenceNumber>("65536"), Kop::RangeException);
}

// Runs in a process of its own, because each toggle is asked once per process.
class TogglesDeathTest : public testing::Test {
 protected:
  TogglesDeathTest() {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    std::filesystem::create_directories(directory_);
    setenv("TOGGLE_DIR", directory_.c_str(), 1);
  }
  ~TogglesDeathTest() override { std::filesystem::remove_all(directory_); }
  void fileIs(const std::string& content) const {
    std::ofstream(directory_ + "/Tunnel.json") << content;
  }
  const std::string directory_ =
      testing::TempDir() + "toggles-" +
      testing::UnitTest::GetInstance()->current_test_info()->name();
};

// Prints what the two types are called, as text and as JSON.
[[noreturn]] void printTexts() {
  for (const TunnelType type : {isisFlexAlgoTunnel, ospfSrTunnel})
    for (const bool json : {false, true})
      std::fprintf(stderr, "<%s>", TunnelId::tunnelTypeToCliStrep(type, json).c_str());
  const TunnelId id(TunnelId::convertToTunnelValue(isisFlexAlgoTunnel, afBit | 26));
  std::fprintf(stderr, "<%s %d %d %d>", id.toCliStrep().c_str(), int{id.tableType()},
               int{id.tunnelTransportType()}, int(id.tunnelAf()));
  std::exit(0);
}

// Catches toggles that are mixed up, wrong by default, or change more than texts.
TEST_F(TogglesDeathTest, changeTextsOnly) {
  const std::string flex = "<IS-IS FlexAlgo><IS-IS FlexAlgo>",
                    ospf = "<OSPF SR><OSPF SR>", none = "<invalidTunnel><invalidTunnel>",
                    flexId = "<IS-IS FlexAlgo tunnel index 26 19 1 2>",
                    noneId = "<invalidTunnel tunnel index 26 19 1 2>";
  const std::array<std::string, 2> rows[] = {
      {"",                                                          flex + ospf + flexId},
      {"{}",                                                        flex + ospf + flexId},
      {R"({"FlexAlgo": false})",                                    none + ospf + noneId},
      {R"({"OspfSegmentRoutingTunnel": false})",                    flex + none + flexId},
      {R"({"FlexAlgo": false, "OspfSegmentRoutingTunnel": false})", none + none + noneId},
      {R"({"FlexAlgo": true, "OspfSegmentRoutingTunnel": true})",   flex + ospf + flexId},
  };
  for (const auto& [content, texts] : rows) {
    SCOPED_TRACE(content);
    std::filesystem::remove(directory_ + "/Tunnel.json");
    if (!content.empty()) fileIs(content);
    EXPECT_EXIT(printTexts(), testing::ExitedWithCode(0), "^" + texts + "$");
  }
}

// Catches a failure that is kept as an answer, and an answer that is asked for twice.
TEST_F(TogglesDeathTest, failureIsAskedAgainAnAnswerIsKept) {
  const auto run = [this] {
    int failures = 0;
    fileIs("{\"FlexAlgo\": maybe}");
    for (int i = 0; i < 2; ++i) {
      try {
        TunnelId::tunnelTypeToCliStrep(isisFlexAlgoTunnel, true);
      } catch (const Toggle::MalformedFileException&) {
        ++failures;
      }
    }
    fileIs("{\"FlexAlgo\": false}");
    const bool first = toggleFlexAlgoEnabled();
    fileIs("{\"FlexAlgo\": true}");
    const bool second = toggleFlexAlgoEnabled();
    std::fprintf(stderr, "%d %d %d %d", failures, first, second,
                 toggleOspfSegmentRoutingTunnelEnabled());
    std::exit(0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(0), "^2 0 0 1$");
}

}  // namespace
}  // namespace Tunnel::TunnelTable
