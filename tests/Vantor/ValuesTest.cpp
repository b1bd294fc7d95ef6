#include <span>

#include "Drem/Error.h"
#include "Kop/Module.h"
#include "Vantor/DynamicMplsLabelStack.h"
#include "Vantor/EthAddr.h"
#include "Vantor/GreKeyType.h"
#include "Vantor/IntfId.h"
#include "Vantor/IpDscp.h"
#include "Vantor/IpGenPrefix.h"
#include "Vantor/MplsLabelOperation.h"
#include "tests/Vantor/ValueLaws.h"

using namespace Vantor;

template <>
IpGenAddr arbitrary(Random& random) {
  U8 bytes[16];
  for (U32 i = 0; i < 16; i += 2) {  // many zero groups, some small ones
    const U32 group = static_cast<U32>(random()) >> below(random, 32);
    bytes[i] = below(random, 2) ? 0 : static_cast<U8>(group >> 8);
    bytes[i + 1] = below(random, 2) ? 0 : static_cast<U8>(group);
  }
  switch (below(random, 8)) {
    case 0: return IpGenAddr();
    case 1:
    case 2:
    case 3: return IpGenAddr::fromIpv4(static_cast<U32>(random()));
    case 4: std::memcpy(bytes, "\0\0\0\0\0\0\0\0\0\0\xff\xff", 12); [[fallthrough]];
    default: return IpGenAddr::fromIpv6(bytes);
  }
}
template <>
IpGenPrefix arbitrary(Random& random) {
  const auto addr = arbitrary<IpGenAddr>(random);
  return IpGenPrefix(addr, below(random, addr.bitCount() + 1));
}
template <>
IntfId arbitrary(Random& random) {
  const U64 types[] = {0, 1, 1, 1, 2, 3, 4, 5, 6, 19, 58, 255, random() & 255};
  const U64 type = types[below(random, std::size(types))];
  U64 rest = (random() & ((U64{1} << 56) - 1)) >> below(random, 57);
  if (below(random, 3) == 0) rest &= ~U64{0xffffff};
  if (type == 1 && below(random, 2)) rest |= U64{1} << 50;  // an Ethernet module
  if (type == 0 && below(random, 2)) {                      // a short name
    rest = 0;
    for (U32 i = below(random, 8); i > 0; --i)
      rest = rest >> 8 | U64{0x20 + below(random, 0x5f)} << 48;
  }
  return IntfId::fromValue(type << 56 | rest);
}
template <>
EthAddr arbitrary(Random& random) {
  const U64 bits = random();
  U8 bytes[6];
  std::memcpy(bytes, &bits, sizeof bytes);
  return EthAddr::fromBytes(bytes);
}
template <>
IpDscp arbitrary(Random& random) {
  return IpDscp(static_cast<U8>(random()));
}
static U32 arbitraryLabel(Random& random) {
  return below(random, maxMplsLabel + 1) >> below(random, 21);
}
template <>
MplsLabelOperation arbitrary(Random& random) {
  MplsLabelOperation labels(static_cast<MplsOperation>(below(random, 6)));  // 2 unnamed
  for (U32 i = below(random, MplsLabelOperation::maxLabels + 1); i > 0; --i)
    labels.labelPush(arbitraryLabel(random));
  return labels;
}
template <>
DynamicMplsLabelStack arbitrary(Random& random) {
  DynamicMplsLabelStack stack;
  for (U32 i = below(random, 40); i > 0; --i)
    stack.labelPush(arbitraryLabel(random));
  return stack;
}

using AllValues = testing::Types<IpGenAddr,
                                 IpGenPrefix,
                                 IntfId,
                                 EthAddr,
                                 IpDscp,
                                 MplsLabelOperation,
                                 DynamicMplsLabelStack>;
INSTANTIATE_TYPED_TEST_SUITE_P(Vantor, ValueLaws, AllValues);

// Catches enumerators that are renamed or renumbered, and a module that does not register.
TEST(VantorModule, enumerationsAndValuesAreFoundByName) {
  EXPECT_EQ(valueToStrep(noAddressFamily), "noAddressFamily");
  EXPECT_EQ(AddressFamilyInstance(1), ipv4);
  EXPECT_EQ(AddressFamilyInstance("ipv6"), ipv6);
  EXPECT_THROW(AddressFamilyInstance(3), Kop::RangeException);
  EXPECT_EQ(MplsOperationInstance("pop"), 3u);
  EXPECT_EQ(GreKeyTypeInstance(1), GreKeyTypeInstance("configuredGreKey"));
  for (const char* name :
       {"Vantor::AddressFamily", "Vantor::MplsOperation", "Vantor::GreKeyType",
        "Vantor::IpGenAddr", "Vantor::IpGenPrefix", "Vantor::IntfId", "Vantor::EthAddr",
        "Vantor::IpDscp", "Vantor::MplsLabelOperation", "Vantor::DynamicMplsLabelStack"})
    EXPECT_NE(Kop::findType(name), nullptr) << name;
}

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

  struct Row {
    const char* text;
    bool isRange;
  };
  for (const Row& row : std::initializer_list<Row>{
           {"push[1048576]",                                                  true },
           {"push[4294967296]",                                               true },
           {"push[0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16]", true },
           {"4294967296[]",                                                   true },
           {"push",                                                           false},
           {"push[",                                                          false},
           {"push[1,2]",                                                      false},
           {"push[1, ]",                                                      false},
           {"push[ 1]",                                                       false},
           {"shove[1]",                                                       false},
           {"[1]",                                                            false}
  }) {
    SCOPED_TRACE(row.text);
    try {
      Kop::strepToValue<MplsLabelOperation>(row.text);
      ADD_FAILURE();
    } catch (const Kop::RangeException&) {
      EXPECT_TRUE(row.isRange);
    } catch (const Kop::Exception&) {
      EXPECT_FALSE(row.isRange);
    }
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

std::vector<U8> bytesOf(std::initializer_list<U32> words) {
  std::vector<U8> bytes(words.size() * 4);
  if (!bytes.empty()) std::memcpy(bytes.data(), words.begin(), bytes.size());
  return bytes;
}

// Catches a binary form that is measured in 32 bits, read beyond its end, or taken in part.
TEST(LabelStackBinary, sizesAreCheckedAgainstTheBuffer) {
  struct Row {
    std::vector<U8> bytes;
    U32 len, wanted;
  };
  const Row rows[] = {
      {bytesOf({}),              0,  0 },
      {bytesOf({0}),             3,  0 },
      {bytesOf({0}),             4,  4 },
      {bytesOf({2, 16, 20}),     12, 12},
      {bytesOf({2, 16, 20, 9}),  16, 12},
      {bytesOf({2, 16, 20}),     11, 0 },
      {bytesOf({0x40000000}),    4,  0 }, // 4 + 4n is 4 modulo 2^32
      {bytesOf({0xffffffff, 1}), 8,  0 }
  };
  for (const Row& row : rows) {
    const std::vector<U8> bytes(row.bytes.begin(), row.bytes.begin() + row.len);
    SCOPED_TRACE(testing::PrintToString(bytes));
    EXPECT_EQ(DynamicMplsLabelStack::deserializeLen(bytes.data(), row.len), row.wanted);
    DynamicMplsLabelStack stack{7};
    if (row.wanted != 0) {
      stack.deserialize(bytes.data(), row.len);
      EXPECT_EQ(stack.serializeLen(), row.wanted);
      std::vector<U8> again(row.wanted);
      stack.serialize(again.data());
      EXPECT_TRUE(std::equal(again.begin(), again.end(), bytes.begin()));
    } else {
      EXPECT_THROW(stack.deserialize(bytes.data(), row.len), Drem::InvalidSizeException);
      EXPECT_EQ(stack, DynamicMplsLabelStack{7});
    }
  }
  DynamicMplsLabelStack stack;
  stack.deserialize(bytesOf({1, 0xffe00010}).data(), 8);
  EXPECT_EQ(stack, DynamicMplsLabelStack{0x10});
  stack.serialize(nullptr);
}
