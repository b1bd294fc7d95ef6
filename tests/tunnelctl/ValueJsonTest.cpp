#include "apps/tunnelctl/Output.h"
#include "apps/tunnelctl/ValueJson.h"
#include "apps/tunnelctl/Verbs.h"
#include "tests/Support/Rows.h"
#include "tests/Support/Testing.h"
#include "tests/tunnelctl/RandomValues.h"

namespace Tunnelctl {
namespace {

using Kop::GenericValue;

std::string jsonOf(const GenericValue& value) {
  return writeJson(toJson(*value.type(), value.get()), false);
}

// Catches an attribute, key or byte that is lost, reordered or spelled so that it does not
// read back, in any registered type, and a reader of texts that stops early.
TEST(ValueJson, everyTypeReadsBackWhatItWrites) {
  constexpr U32 seed = 4711;
  Random random(seed);
  U32 texts = 0;
  eachValueType([&](const Kop::TypeRecord& type) {
    SCOPED_TRACE(std::string(type.name) + " seed " + std::to_string(seed));
    const Kop::TypeOps& ops = *type.value->ops;
    for (int i = 0; i < 100; ++i) {
      const GenericValue value = random.value(ops);
      const std::string json = jsonOf(value);
      SCOPED_TRACE(json);
      GenericValue read(&ops);
      fromJson(ops, read.get(), parseJson(json), Where(), Numbers::any);
      ASSERT_TRUE(read == value);
      ASSERT_EQ(json, jsonOf(read));  // equality may be a hand-written rule

      if (!isReadable(ops)) continue;
      ++texts;
      GenericValue fromItsText(&ops);
      const std::string text(value.text());
      fromText(ops, fromItsText.get(), text);
      ASSERT_EQ(json, jsonOf(fromItsText));
      if (i > 0 || formOf(ops).shape != Form::Shape::record) continue;
      for (std::size_t size = 0; size < text.size(); ++size)
        EXPECT_THROW(fromText(ops, read.get(), text.substr(0, size)), DataError) << size;
      EXPECT_THROW(fromText(ops, read.get(), text + " "), DataError);
    }
  });
  EXPECT_GE(texts, 800u);
}

// Catches flags that cannot be combined in a configuration and counted enumerators that can,
// numbers that have no digits, and an ordered map that is written in another order than its
// own.
TEST(ValueJson, readsAttributesAsAConfigurationSaysThem) {
  for (const auto& row : Support::rowsIn("tunnelctl/attributes.txt")) {
    SCOPED_TRACE(row[2]);
    const auto* ops = findTypeNamed(row[0]).member(std::string_view(row[1]))->ops->type;
    GenericValue value(ops);
    const auto read = [&] {
      fromJson(*ops, value.get(), parseJson(row[2]), Where(), Numbers::declared);
      return jsonOf(value);
    };
    if (row[3] == "-")
      EXPECT_THROW(read(), DataError);
    else
      EXPECT_EQ(read(), row[3]);
  }
}

// Catches Ethernet10 before Ethernet2, and an order that is none, which sort must not get.
TEST(NaturalOrder, isAnOrderThatCountsDigits) {
  const auto sorted = Support::wordsOf(
      "'' 1 02 2 10 99999999999999999999 100000000000000000000 Ethernet1 Ethernet1/2 "
      "Ethernet1/10 Ethernet2 Ethernet10 a a0 a00 a9b a10a b");
  for (std::size_t i = 0; i < std::size(sorted); ++i)
    for (std::size_t j = 0; j < std::size(sorted); ++j)
      EXPECT_EQ(naturalLess(sorted[i], sorted[j]), i < j)
          << sorted[i] << " and " << sorted[j];
}

// Catches names that move the cursor, or that pass for an empty cell or for another name.
TEST(Printable, hidesNothing) {
  const std::pair<std::string, std::string> rows[] = {
      {"",             "''"          },
      {"a\x1b[2J",     "'a\\x1b[2J'" },
      {"a\nb",         "'a\\nb'"     },
      {" a",           "' a'"        },
      {"gr\xc3\xb6n!", "gr\xc3\xb6n!"},
      {"\xff\x00x",    "0xff"        }
  };
  for (const auto& [text, shown] : rows)
    EXPECT_EQ(printable(text), shown);
}

}  // namespace
}  // namespace Tunnelctl
