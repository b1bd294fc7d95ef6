#include <limits>
#include <sstream>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Kop/Hash.h"
#include "Kop/Text.h"
#include "TestTypes.h"

namespace Kop {
namespace {

using std::string_literals::operator""s;

// What parsing a text as T throws, or its machine form when it is accepted.
template <class T>
std::string parsed(const std::string& text) {
  try {
    return std::string(std::string_view(valueToStrep(strepToValue<T>(text))));
  } catch (const RangeException& error) {
    return "range: "s + error.what();
  } catch (const Exception& error) {
    return "error: "s + error.what();
  }
}

// Catches a text that is read back as something else, or taken although it is none.
TEST(Text, builtInsComeBackOrAreRefused) {
  const struct {
    std::string (*parse)(const std::string&);
    std::vector<const char*> same, tooLarge, unreadable;
  } alike[] = {
      {parsed<U8>,     {"255", "0"},                                                     {"256"},                  {}                         },
      {parsed<U16>,    {"65535"},                                                        {"65536"},                {}                         },
      {parsed<U32>,    {"4294967295"},                                                   {"4294967296"},           {"", "-1", "+1", " 1", "x"}},
      {parsed<U64>,    {"18446744073709551615"},                                         {"18446744073709551616"}, {}                         },
      {parsed<bool>,   {"True", "False"},                                                {},                       {"true", "1", "Trues"}     },
      {parsed<float>,
       {"0.0", "-0.0", "-1.0", "0.1", "16777216.0", "1e+09", "1e-45", "3.4028235e+38",
        "inf", "-inf", "nan"},
       {"1e39"},
       {"-nan", "NAN", "infinity", "", "-"}                                                                                                   },
      {parsed<String>,
       {"''", "'a b, \"c\"})'", R"('\\ \' \n \r \t \x00 \x1f \x7f')", "'\xc3\xa9\x80'"},
       {},
       {"a", "'a", "'a\\", R"('\q')", R"('\x4')", R"('\x4G')", R"('\xAB')"}                                                                   },
  };
  for (const auto& row : alike) {
    for (const char* text : row.same)
      EXPECT_EQ(row.parse(text), text);
    for (const char* text : row.tooLarge)
      EXPECT_EQ(row.parse(text), "range: attribute 'value' out of range") << text;
    for (const char* text : row.unreadable)
      EXPECT_EQ(row.parse(text), "error: cannot read attribute 'value'") << text;
  }
  EXPECT_EQ(parsed<U8>("007"), "7");
  EXPECT_EQ(parsed<float>("7"), "7.0");
  EXPECT_EQ(parsed<String>("'\n\x01'"), R"('\n\x01')");
  EXPECT_EQ(parsed<String>(R"('\x41')"), "'A'");
  const auto behind = "error: unexpected text after the value: "s;
  EXPECT_EQ(parsed<U32>("1 "), behind + " ");
  EXPECT_EQ(parsed<U32>("0x10"), behind + "x10");
  EXPECT_EQ(parsed<float>("nan(1)"), behind + "(1)");
  EXPECT_EQ(parsed<float>("1.5x"), behind + "x");
  EXPECT_EQ(parsed<String>("'a'b"), behind + "b");
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
  EXPECT_EQ(valueToStrep(U8{65}), "65");
  EXPECT_EQ(valueToStrep(-std::numeric_limits<float>::quiet_NaN()), "nan");
}

// Catches text that is lost where the buffer leaves the object.
TEST(Text, growsByteByByte) {
  TextOut out;
  std::string wanted;
  for (U32 i = 0; i < 600; ++i) {
    out.append(static_cast<char>('a' + i % 26));
    wanted += static_cast<char>('a' + i % 26);
    if (i % 7 == 0) out.number(i), wanted += std::to_string(i);
    ASSERT_EQ(out.view(), wanted);
  }
  EXPECT_EQ(stringPrintf("%s-%u", wanted.c_str(), 5u), String(wanted + "-5"));
}

// Catches a hash that changed: keys of other processes are placed and named by it.
TEST(Hashes, areTheFixedOnes) {
  const Sample::Port port(U64{5}, U8{1});
  EXPECT_EQ(Hash(0).result(), 0u);
  EXPECT_EQ(ValueOps<Sample::Port>::hash(port, 0), 0x45eb402eu);
  EXPECT_EQ(ValueOps<Sample::Port>::hash(port, 1), 0x22e480fbu);
  const Sample::Level level(7);
  EXPECT_EQ(ValueOps<Sample::Level>::hash(level, 99), hashSingleAttr(U16{7}, 0))
      << "no seed";
  EXPECT_EQ(hashSingleAttr(-0.0f, 1), hashSingleAttr(0.0f, 1));
  EXPECT_EQ(OneAtATime().u64(0).result(), 0u);
  EXPECT_NE(OneAtATime().u64(1).result(), OneAtATime().u64(256).result());
  EXPECT_EQ(OneAtATime().u32(0x64636261).result(), hashString("abcd"));
  EXPECT_EQ(hashSingleAttr(Sample::line, 0), hashSingleAttr(U8{1}, 0));
}

// Catches an off-by-one between strings that stand in the object and those that do not.
TEST(Strings, areWholeOnBothSidesOfTheirInlineSize) {
  std::vector<String> all;
  for (const std::size_t size : {0u, 1u, 14u, 15u, 16u, 17u, 300u}) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
      bytes[i] = static_cast<char>(i * 37);  // also NUL, also above 0x7f
    SCOPED_TRACE(size);
    const String string(bytes);
    EXPECT_EQ(std::string(string.begin(), string.end()), bytes);
    EXPECT_EQ(string.c_str()[size], '\0');
    EXPECT_EQ(string.empty(), size == 0);
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
