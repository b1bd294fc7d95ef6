#include <climits>
#include <cstdint>

#include "Drem/Error.h"
#include "tests/Support/Testing.h"

// Catches holes filled in another order, a text looked through twice, and numbers that lose
// their sign or width.
TEST(DremFormat, holesAreFilledInOrder) {
  const void* pointer = reinterpret_cast<const void*>(std::uintptr_t{0xDeadBeef01});
  const std::string text("a\0b", 3);
  const struct {
    const char* format;
    std::initializer_list<Drem::FormatArg> args;
    std::string wanted;
  } rows[] = {
      {"no hole",    {1},                                        "no hole"                                  },
      {"{}{}",       {1, 2},                                     "12"                                       },
      {"{} of {}",   {"{}", "x"},                                "{} of x"                                  },
      {"{} {}",      {7},                                        "7 {}"                                     },
      {"{ } {0} }{", {7},                                        "{ } {0} }{"                               },
      {"{} {}",      {LLONG_MIN, ULLONG_MAX},                    "-9223372036854775808 18446744073709551615"},
      {"{} {} {}",   {std::uint8_t{200}, std::int8_t{-1}, true}, "200 -1 true"                              },
      {"{}",         {pointer},                                  "0xdeadbeef01"                             },
      {"{} {}",      {text, static_cast<const char*>(nullptr)},  {"a\0b (null)", 10}                        },
  };
  for (const auto& row : rows)
    EXPECT_EQ(Drem::fill(row.format, row.args), row.wanted) << row.format;
}

// Catches a dump that prints signed bytes or a blank at an end.
TEST(DremDump, bytes) {
  EXPECT_EQ(Drem::dumpHex(nullptr, 0), "");
  EXPECT_EQ(Drem::dumpHex("\x00\x7f\x80\xff", 4), "00 7f 80 ff");
}

// Catches a prefix in the message, which callers compare, and a copy that loses it.
TEST(DremThrow, messageComponentAndFunction) try {
  Drem::fmthrow<Drem::InvalidSizeException>("Table", "set", "{} > {}", 17u, 16);
} catch (const Drem::InvalidSizeException& error) {
  const auto copy = error;
  EXPECT_STREQ(copy.what(), "17 > 16");
  EXPECT_STREQ(copy.component(), "Table");
  EXPECT_STREQ(copy.function(), "set");
}
