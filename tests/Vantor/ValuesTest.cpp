#include "Vantor/DynamicMplsLabelStack.h"
#include "Vantor/EthAddr.h"
#include "Vantor/IntfId.h"
#include "Vantor/IpDscp.h"
#include "Vantor/IpGenPrefix.h"
#include "Vantor/MplsLabelOperation.h"
#include "tests/Support/Testing.h"

using namespace Vantor;

// Catches an Ethernet address that is read with a digit or a byte too few or too many.
TEST(EthAddrText, onlySixPairsOfHexDigits) {
  EXPECT_EQ(EthAddr("00:1C:73:0a:0B:0c").stringValue(), "00:1c:73:0a:0b:0c");
  for (const char* text :
       {"", "00:1c:73:0a:0b", "00:1c:73:0a:0b:0c:0d", "0:1c:73:0a:0b:0c",
        "000:1c:73:0a:0b:c", "00-1c-73-0a-0b-0c", "00:1c:73:0a:0b:0g", "001c.730a.0b0c",
        "00:1c:73:0a:0b:0 ", " 0:1c:73:0a:0b:0c", "00:1c:73:0a:0b:0c:"})
    EXPECT_THROW(EthAddr{text}, Kop::Exception) << text;
}

// Catches a label or an operation beyond its limit that gets into a value.
TEST(Labels, limits) {
  MplsLabelOperation labels(push, std::vector<U32>{16, 20});
  EXPECT_EQ(valueToStrep(labels), "push[16, 20]");
  EXPECT_EQ(valueToStrep(MplsLabelOperation()), "noOperation[]");
  EXPECT_THROW(labels.labelPush(0x100000), Kop::RangeException);
  EXPECT_THROW(labels.labelIs(2, 1), Kop::RangeException);
  EXPECT_THROW(labels.label(2), Kop::RangeException);
  for (U32 i = labels.labelCount(); i < MplsLabelOperation::maxLabels; ++i)
    labels.labelPush(maxMplsLabel);
  EXPECT_THROW(labels.labelPush(1), Kop::RangeException);

  const auto parse = [](const char* text) {
    return Kop::strepToValue<MplsLabelOperation>(text);
  };
  for (const char* text :
       {"push[1048576]", "push[4294967296]", "4294967296[]",
        "push[0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16]"})
    EXPECT_THROW(parse(text), Kop::RangeException) << text;
  for (const char* text :
       {"push", "push[1,2]", "push[1, ]", "push[ 1]", "shove[1]", "[1]"})
    try {
      parse(text);
      ADD_FAILURE() << text;
    } catch (const Kop::RangeException&) {
      ADD_FAILURE() << text;
    } catch (const Kop::Exception&) {
    }

  const std::initializer_list<std::vector<U32>> corrupt = {
      {1,  17      },
      { 1, 1, 0x100000}
  };
  for (const auto& words : corrupt) {
    Kop::NboAttrLog::Out out;
    for (const U32 word : words)
      out.writeU32(word);
    for (int i = 0; i < 32; ++i)
      out.writeU32(0);
    Kop::NboAttrLog::In in(out.data(), out.size());
    EXPECT_THROW(MplsLabelOperation{in}, Kop::LogCorruptException);
  }
}

// Catches a comparison that starts at the wrong end, and a hash that is not the one that
// records are mixed with.
TEST(Labels, orderAndHash) {
  const DynamicMplsLabelStack a{16, 20}, b{17, 19}, c{1000};
  EXPECT_LT(b, a);  // the highest index decides
  EXPECT_LT(c, b);
  EXPECT_EQ(DynamicMplsLabelStack().hash(), 0u);
  EXPECT_EQ(a.hash(), Kop::OneAtATime().u32(16).u32(20).result());
  const MplsLabelOperation d(push, a.labels()), e(push, b.labels());
  EXPECT_LT(d, e);  // index 0 decides
  EXPECT_LT(e, MplsLabelOperation(swap));
  EXPECT_EQ(d.hash(), Kop::OneAtATime().u32(1).u32(16).u32(20).result());
}
