#include <csignal>

#include "Kop/Exception.h"
#include "Toggle/Toggle.h"
#include "Tunnel/TunnelBasicTypes.h"
#include "Tunnel/TunnelIntfId.h"
#include "tests/Support/Rows.h"
#include "tests/Support/Testing.h"

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
TunnelId rawOf(U64 type, U64 indexAndAf) {
  Kop::NboAttrLog::Out out;
  out.writeU64(type << 44 | indexAndAf);
  Kop::NboAttrLog::In in(out.data(), out.size());
  return TunnelId(in);
}
std::string hexOf(U32 number) {
  return Kop::stringPrintf("%x", number).c_str();
}
constexpr U64 afBit = 1ull << 43;

// Digits in groups, as a process-wide locale may want them in texts that other programs read.
struct Grouping : std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

// Catches a property that is computed from the number, shifted by a row, or guessed for a
// number that is no type, an assertion that has become an answer, and texts that follow a
// locale.
TEST(TunnelKindsDeathTest, propertiesByType) {
  testing::GTEST_FLAG(death_test_style) = "fast";
  const auto before =
      std::locale::global(std::locale(std::locale::classic(), new Grouping));
  for (const auto& row : Support::rowsIn("Tunnel/kinds.txt")) {
    const std::string &name = row[1], &cliText = row[2], &family = row[5];
    SCOPED_TRACE(name);
    const auto type = static_cast<TunnelType>(std::stoul(row[0]));
    EXPECT_EQ(TunnelTypeInstance(Kop::String(name)), type);
    EXPECT_EQ(TunnelTypeInstance(U32{type}), type);
    for (const bool json : {false, true})
      EXPECT_EQ(TunnelId::tunnelTypeToCliStrep(type, json), cliText);
    const TunnelId id(TunnelId::convertToTunnelValue(type, 1234567));
    EXPECT_EQ(valueToStrep(id), std::to_string(id.value()));
    EXPECT_EQ(id.tunnelType(), type);
    EXPECT_EQ(id.typeCliStr(), cliText);
    if (row[3] != "-") {
      EXPECT_EQ(std::to_string(id.tableType()), row[3]);
    } else {
      EXPECT_EXIT((void)id.tableType(), testing::KilledBySignal(SIGABRT),
                  "Tunnel/TunnelBasicTypes: .*Assertion "
                  "\"false && \"No tunnel table identifier for type\"\" failed");
    }
    EXPECT_EQ(std::to_string(id.tunnelTransportType()), row[4]);
    EXPECT_EQ(id.supportsEntropyLabelPush(), row[6] == "yes");
    EXPECT_EQ(id.toStrep(), "Table:" + name + "-Index:12d687");
    EXPECT_EQ(id.toCliStrep(), cliText + " tunnel index 1234567");
    EXPECT_EQ(id.addressFamilyCliStr(), "IPv4");
    EXPECT_EQ(int(id.tunnelAf()), family == "none" ? 0 : 1);
    EXPECT_EQ(TunnelId::isFlexAlgoTunnelType(type), type == isisFlexAlgoTunnel);

    const TunnelId six(TunnelId::convertToTunnelValue(type, afBit | 26));
    EXPECT_EQ(six.addressFamilyCliStr(), "IPv6");
    EXPECT_EQ(six.tunnelIndex(), 26u);
    if (family == "only")
      EXPECT_EQ(thrown<Kop::InternalException>([&] { six.tunnelAf(); }),
                "IPv6 not yet supported for " + hexOf(type));
    else
      EXPECT_EQ(int(six.tunnelAf()), family == "bit" ? 2 : 0);
  }
  for (const U32 number : {23u, 30u, 32u, 0xfffffu}) {
    SCOPED_TRACE(number);
    const auto type = static_cast<TunnelType>(number);
    for (const bool json : {false, true})
      EXPECT_EQ(TunnelId::tunnelTypeToCliStrep(type, json), "");
    EXPECT_THROW(TunnelTypeInstance(number), Kop::RangeException);
    const TunnelId id = rawOf(number, 26), six = rawOf(number, afBit | 1);
    EXPECT_EQ(U32{id.tunnelType()}, number);
    EXPECT_FALSE(id.supportsEntropyLabelPush());
    EXPECT_EQ(id.tunnelAf(), Vantor::ipv4);
    EXPECT_EQ(thrown<Kop::InternalException>([&] { id.tunnelTransportType(); }),
              "Unexpected tunnelType " + hexOf(number));
    EXPECT_EQ(thrown<Kop::InternalException>([&] { six.tunnelAf(); }),
              "IPv6 not yet supported for " + hexOf(number));
    EXPECT_EXIT((void)id.tableType(), testing::KilledBySignal(SIGABRT),
                "Tunnel/TunnelBasicTypes: .*Assertion "
                "\"false && \"Unknown tunnel type used\"\" failed");
  }
  std::locale::global(before);
}

// Catches a shift or mask at the wrong bit, a check at the wrong limit, and an algorithm's
// number that is taken from, or put into, another type's index.
TEST(TunnelIdLayout, convert) {
  const auto convert = TunnelId::convertToTunnelValue;
  const auto convertFlex = TunnelId::convertToFlexAlgoTunnelValue;
  EXPECT_EQ(convert(ldpTunnel, 5), 0x300000000005u);
  EXPECT_EQ(convert(static_cast<TunnelType>(37), 1), 0x500000000001u);
  EXPECT_EQ(convert(ldpTunnel, 0xfffffffffff), 0x3fffffffffffu);
  const TunnelId largest(TunnelId::maxValue);
  EXPECT_EQ(largest.tunnelType(), maxTunnelType);
  EXPECT_EQ(largest.tunnelIndex(), TunnelIdConstants::tunnelIndexMask);
  EXPECT_EQ(largest.extractIndexAndAf(), 0xfffffffffffu);
  EXPECT_TRUE(largest.isValid() && !TunnelId().isValid());
  const TunnelId flex(convertFlex(isisFlexAlgoTunnel, 128, 7));
  EXPECT_EQ(flex.value(), 0x1540000000007u);
  EXPECT_EQ(flex.extractFlexAlgoId(), 128);
  EXPECT_EQ(flex.tunnelIndex(), 7u);
  // An index beyond 35 bits merges with the algorithm.
  EXPECT_EQ(convertFlex(isisFlexAlgoTunnel, 128, 1ull << 35), 0x1540800000000u);

  constexpr const char* above = "Invalid 'indexAndAf'value, value is above 2^44";
  constexpr const char* range =
      "Tunnel::TunnelTable::TunnelId::value < Tunnel::TunnelTable::TunnelId::minValue or "
      "> Tunnel::TunnelTable::TunnelId::maxValue not allowed";
  const std::pair<std::function<void()>, const char*> rows[] = {
      {[&] { convert(ldpTunnel, 1ull << 44); },                     above },
      {[&] { convert(ldpTunnel, ~U64{0}); },                        above },
      {[&] { convertFlex(isisFlexAlgoTunnel, 1, 1ull << 44); },     above },
      {[&] { convertFlex(srTunnel, 1, 1); },
       "convertToFlexAlgoTunnelValue only supported for flex algo tunnels"},
      {[&] { TunnelId(convert(srTunnel, 1)).extractFlexAlgoId(); },
       "extractFlexAlgoId only supported for flex algo tunnels"           },
      {[] { TunnelId(1ull << 49); },                                range },
      {[] { strepToValue<TunnelId>("562949953421312"); },           range },
  };
  for (const auto& [action, text] : rows)
    EXPECT_EQ(thrown<Kop::RangeException>(action), text);
  EXPECT_EQ(strepToValue<TunnelId>("562949953421311").value(), TunnelId::maxValue);
  EXPECT_EQ(rawOf(~U64{0}, ~U64{0}).value(), ~U64{0}) << "unchecked, as it arrives";
}

// Catches an interface that another part of the system would not decode to the tunnel, and a
// policy that is shown as a dynamic tunnel or whose parts are split elsewhere.
TEST(TunnelInterfaces, wordsAndNames) {
  using Vantor::DynamicTunnelIntfId;
  constexpr U64 policy = U64{srTePolicyTunnel} << 44;
  const std::tuple<U64, U64, const char*> rows[] = {
      {0,                      0x3a00000000000000, "DynamicTunnel0.0"               },
      {0x300000000005,         0x3a00300000000005, "DynamicTunnel3145728.5"         },
      {TunnelId::maxValue,     0x3a01ffffffffffff, "DynamicTunnel33554431.16777215" },
      {policy | 5,             0x13001e0000000005, "SrTePolicyTunnel1966080.5"      },
      {policy | afBit | 5,     0x13001e0000000005, "SrTePolicyTunnel1966080.5"      },
      {policy | 0x800000,      0x13001e0001000000, "SrTePolicyTunnel1966081.0"      },
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
}

// Catches an encapsulation's fields that overlap, and texts at the wrong kind.
TEST(EncapIds, fieldsAndTexts) {
  EncapId id;
  id.encapValueIs(mplsEncap, 7);
  EXPECT_EQ(id.encapIdValue(), 0x40000007u);
  EXPECT_EQ(id.encapIndex(), 7u);
  EXPECT_EQ(thrown<Kop::RangeException>([&] { id.encapValueIs(greEncap, 0x10000000); }),
            "Invalid 'encapIndex'");
  EXPECT_EQ(id.encapIdValue(), 0x40000007u);  // as it was
  id.encapValueIs(greEncap, 0x0fffffff);
  EXPECT_EQ(id.encapIdValue(), 0x1fffffffu);
  constexpr const char* texts[] = {"Invalid", "GRE",     "IPsec", "GRE over IPsec",
                                   "MPLS",    "Invalid", ""};
  for (const U32 kind : {0u, 1u, 2u, 3u, 4u, 5u, 15u}) {
    id.encapValueIs(static_cast<EncapType>(kind), 1);
    EXPECT_EQ(id.encapType(), kind);
    const char* const text = texts[std::min(kind, 6u)];
    EXPECT_EQ(id.typeCliStr(false), text) << kind;
    EXPECT_EQ(id.typeCliStr(true), kind == 3 ? "GREoverIPsec" : text) << kind;
  }
}

// Catches an unknown bandwidth that passes for a number, or the reverse.
TEST(TunnelBandwidths, presentAndValid) {
  constexpr float inf = std::numeric_limits<float>::infinity();
  const std::tuple<float, bool, bool> rows[] = {
      {TunnelBandwidth().value(),               false, false},
      {TunnelBandwidth::defaultValue,           true,  true },
      {-0.5f,                                   true,  false},
      {inf,                                     true,  false},
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
      {0,     0,     0    },
      {65535, 65535, 65534},
  };
  for (const auto& [number, added, sum] : rows) {
    TunnelEntrySequenceNumber a(number);
    EXPECT_EQ((a += TunnelEntrySequenceNumber(added)).value(), sum);
  }
}

// Prints what the two types are called, as text and as JSON, and what must not change.
void printTexts() {
  for (const TunnelType type : {isisFlexAlgoTunnel, ospfSrTunnel})
    for (const bool json : {false, true})
      std::fprintf(stderr, "<%s>", TunnelId::tunnelTypeToCliStrep(type, json).c_str());
  const TunnelId id(TunnelId::convertToTunnelValue(isisFlexAlgoTunnel, afBit | 26));
  std::fprintf(stderr, "<%s %d %d %d>", id.toCliStrep().c_str(), int{id.tableType()},
               int{id.tunnelTransportType()}, int(id.tunnelAf()));
}

// Catches toggles that are mixed up, wrong by default, change more than texts, keep a failure
// as an answer, or are asked twice. In processes of their own: each is asked once per process.
TEST(TogglesDeathTest, changeTextsOnlyAndAreAskedOnce) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  const std::string directory = testing::TempDir() + "toggles";
  std::filesystem::create_directories(directory);
  setenv("TOGGLE_DIR", directory.c_str(), 1);
  const auto fileIs = [&](const std::string& content) {
    std::ofstream(directory + "/Tunnel.json") << content;
  };
  const std::string flex = "<IS-IS FlexAlgo><IS-IS FlexAlgo>",
                    ospf = "<OSPF SR><OSPF SR>", none = "<invalidTunnel><invalidTunnel>",
                    rest = " tunnel index 26 19 1 2>";
  const std::array<std::string, 2> rows[] = {
      {"{}",                                     flex + ospf + "<IS-IS FlexAlgo" + rest},
      {R"({"FlexAlgo": false})",                 none + ospf + "<invalidTunnel" + rest },
      {R"({"OspfSegmentRoutingTunnel": false})", flex + none + "<IS-IS FlexAlgo" + rest},
  };
  for (const auto& [content, texts] : rows) {
    SCOPED_TRACE(content);
    const auto run = [&, &content = content] {
      fileIs("{\"FlexAlgo\": maybe}");
      for (int i = 0; i < 2; ++i)
        EXPECT_THROW(TunnelId::tunnelTypeToCliStrep(isisFlexAlgoTunnel, true),
                     Toggle::MalformedFileException);
      fileIs(content);
      printTexts();
      fileIs(R"({"FlexAlgo": true, "OspfSegmentRoutingTunnel": true})");
      printTexts();
      std::exit(testing::Test::HasFailure());
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "^" + texts + texts + "$");
  }
  std::filesystem::remove_all(directory);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
