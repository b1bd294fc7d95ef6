#include "Kop/GenericIfImpl.h"
#include "Kop/Hash.h"
#include "Kop/PodArray.h"
#include "Kop/Text.h"
#include "Kop/U3.h"
#include "TestTypes.h"
#include "tests/Support/Rows.h"
#include "tests/Support/Testing.h"

namespace Kop {
namespace {

using std::string_literals::operator""s;

// Catches a text that is read back as something else, or taken although it is none, and an
// error that does not say where.
TEST(Text, comesBackOrIsRefused) {
  std::map<std::string_view, const TypeOps*> types;
  for (const auto* const ops :
       {&TypeOpsOf<bool>::ops, &TypeOpsOf<U8>::ops, &TypeOpsOf<U16>::ops,
        &TypeOpsOf<U32>::ops, &TypeOpsOf<U64>::ops, &TypeOpsOf<float>::ops,
        &TypeOpsOf<String>::ops, &TypeOpsOf<U3>::ops,
        &TypeOpsOf<PodArray<U32, U8, 4>>::ops, &TypeOpsOf<Sample::Shape>::ops,
        &TypeOpsOf<Sample::Colour>::ops, &TypeOpsOf<Sample::Area>::ops,
        &TypeOpsOf<Sample::Level>::ops, &TypeOpsOf<Sample::Port>::ops})
    types[ops->name] = ops;
  auto rows = Support::rowsIn("Kop/texts.txt");
  rows.push_back({"U32", " 1", "error: cannot read attribute 'value'"});
  rows.push_back({"U32", "1 ", "error: unexpected text after the value:  "});
  rows.push_back({"Kop::String", "'\n\x01'", R"('\n\x01')"});
  for (const auto& row : rows) {
    GenericValue value(types.at(row[0]));
    std::string read;
    try {
      value.textIs(row[1]);
      read = value.text().c_str();
    } catch (const RangeException& error) {
      read = "range: "s + error.what();
    } catch (const Exception& error) {
      read = "error: "s + error.what();
    }
    EXPECT_EQ(read, row[2] == "=" ? row[1] : row[2]) << row[0] << ' ' << row[1];
  }
}

TEST(Text, everyByteAndEveryPowerComesBack) {
  for (int byte = 0; byte < 256; ++byte) {
    const char text[] = {'a', static_cast<char>(byte), 'b'};
    const String string(text, 3);
    EXPECT_EQ(strepToValue<String>(valueToStrep(string)), string) << byte;
  }
  for (U32 bits = 0; bits < 0xff800000u; bits += 0x0001'2345) {
    const float value = std::bit_cast<float>(bits);
    if (value != value) continue;
    const float back = strepToValue<float>(valueToStrep(value));
    EXPECT_EQ(std::bit_cast<U32>(back), bits);
  }
  EXPECT_EQ(valueToStrep(-std::numeric_limits<float>::quiet_NaN()), "nan");
}

// Catches a hash that changed: keys of other processes are placed and named by it.
TEST(Hashes, areTheFixedOnes) {
  const auto level = ValueOps<Sample::Level>::hash(Sample::Level(7), 99);
  EXPECT_EQ(level, hashSingleAttr(U16{7}, 0)) << "no seed";
  EXPECT_EQ(hashSingleAttr(-0.0f, 1), hashSingleAttr(0.0f, 1));
  EXPECT_EQ(hashSingleAttr(Sample::line, 0), hashSingleAttr(U8{1}, 0));
}

// Catches an off-by-one between strings that stand in the object and those that do not.
TEST(Strings, areWholeOnBothSidesOfTheirInlineSize) {
  std::vector<String> all;
  for (const std::size_t size : {0u, 1u, 14u, 15u, 16u, 17u, 300u}) {
    SCOPED_TRACE(size);
    std::string bytes;
    while (bytes.size() < size)
      bytes += static_cast<char>(bytes.size() * 37);  // also NUL, also above 0x7f
    const String string(bytes);
    EXPECT_EQ(std::string(string.begin(), string.end()), bytes);
    EXPECT_EQ(string.c_str()[size], '\0');
    String copy = string, moved = std::move(copy);
    EXPECT_TRUE(copy.empty());  // NOLINT: what a moved-from string is, is promised
    EXPECT_EQ(moved, string);
    EXPECT_EQ(moved.data() == string.data(), size > 15) << "long ones share their block";
    moved = static_cast<const String&>(moved);  // itself
    copy = moved;
    moved = String("short");
    EXPECT_EQ(copy, string);
    std::ostringstream out;
    out << copy;
    EXPECT_EQ(out.str(), bytes);
    NboAttrLog::Out log;
    log.writeString(copy);
    NboAttrLog::In in(log.data(), log.size());
    EXPECT_EQ(in.nextString(), copy);
    for (const String& shorter : all)
      EXPECT_TRUE(shorter < copy && !(copy < shorter) && !(shorter == copy));
    all.push_back(copy);
  }
  EXPECT_LT(String("b"), String("aa")) << "the shorter first";
  EXPECT_LT(String("a"), String("\xff")) << "bytes are unsigned";
  EXPECT_LT(String("a\0a", 3), String("a\0b", 3));
  EXPECT_EQ(String(static_cast<const char*>(nullptr)), "");
}

}  // namespace
}  // namespace Kop
