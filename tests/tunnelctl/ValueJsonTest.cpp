#include <gtest/gtest.h>

#include "apps/tunnelctl/Output.h"
#include "apps/tunnelctl/ValueJson.h"
#include "apps/tunnelctl/Verbs.h"
#include "tests/tunnelctl/RandomValues.h"

namespace Tunnelctl {
namespace {

using Kop::GenericValue;

std::string jsonOf(const GenericValue& value) {
  return writeJson(toJson(*value.type(), value.get()), false);
}

// Catches an attribute, key or byte that is lost, reordered or spelled so that it does not
// read back, in any registered type.
TEST(ValueJson, everyTypeReadsBackWhatItWrites) {
  constexpr U32 seed = 4711;
  Random random(seed);
  U32 types = 0, texts = 0, notDefault = 0;
  eachValueType([&](const Kop::TypeRecord& type) {
    SCOPED_TRACE(std::string(type.name) + " seed " + std::to_string(seed));
    const Kop::TypeOps& ops = *type.value->ops;
    ++types;
    for (int i = 0; i < 100; ++i) {
      const GenericValue value = random.value(ops);
      notDefault += !(value == GenericValue(&ops));
      const std::string json = jsonOf(value);
      SCOPED_TRACE(json);
      GenericValue read(&ops);
      fromJson(ops, read.get(), parseJson(json), Where(), Numbers::any);
      ASSERT_TRUE(read == value);
      ASSERT_EQ(json, jsonOf(read));  // equality may be a hand-written rule

      if (!isReadable(ops)) continue;
      ++texts;
      GenericValue fromItsText(&ops);
      fromText(ops, fromItsText.get(), value.text());
      ASSERT_EQ(json, jsonOf(fromItsText));
    }
  });
  EXPECT_GT(types, 8u);
  EXPECT_GE(texts, 800u);
  EXPECT_GT(notDefault, types * 50);
}

// Catches a reader that stops early, and values that are asked to read what they cannot.
TEST(ValueJson, textsOfEveryTypeAreRefusedWhenTheyAreCutOrGoOn) {
  Random random(815);
  eachValueType([&](const Kop::TypeRecord& type) {
    const Kop::TypeOps& ops = *type.value->ops;
    if (!isReadable(ops) || formOf(ops).shape != Form::Shape::record) return;
    const GenericValue value = random.value(ops);
    const std::string text(value.text());
    GenericValue read(&ops);
    for (std::size_t size = 0; size < text.size(); ++size) {
      SCOPED_TRACE(text.substr(0, size));
      EXPECT_THROW(fromText(ops, read.get(), text.substr(0, size)), DataError);
    }
    EXPECT_THROW(fromText(ops, read.get(), text + " "), DataError);
  });
}

// Catches flags that cannot be combined in a configuration, and counted enumerators that can.
TEST(ValueJson, flagsAreCombinedAndEnumeratorsAreNot) {
  const struct {
    const char *holder, *member, *json;
    const char* written;  // null: refused
  } rows[] = {
      {"GreTunnelInfo", "oFlags",              "[\"keyFlag\", \"checksumFlag\"]",
       "[\"checksumFlag\",\"keyFlag\"]"                                                                           },
      {"GreTunnelInfo", "oFlags",              "40960",                           "[\"checksumFlag\",\"keyFlag\"]"},
      {"GreTunnelInfo", "oFlags",              "8195",                            "8195"                          }, // some bits of a mask
      {"GreTunnelInfo", "oFlags",              "[]",                              "\"noFlag\""                    },
      {"GreTunnelInfo", "oFlags",              "[\"keyFlag\"]",                   "\"keyFlag\""                   },
      {"GreTunnelInfo", "oFlags",              "16384",                           nullptr                         }, // a bit of none
      {"GreTunnelInfo", "oFlags",              "[\"keyFlag\", \"frob\"]",         nullptr                         },
      {"GreTunnelInfo", "oFlags",              "[8192]",                          nullptr                         },
      {"TunnelId",      "tunnelTransportType", "3",                               nullptr                         },
      {"TunnelId",      "tunnelTransportType", "[\"mplsTunnel\"]",                nullptr                         },
      {"TunnelId",      "tunnelType",          "24",                              nullptr                         },
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.json);
    const auto* ops =
        findTypeNamed(row.holder).member(std::string_view(row.member))->ops->type;
    GenericValue value(ops);
    const auto read = [&] {
      fromJson(*ops, value.get(), parseJson(row.json), Where(), Numbers::declared);
      return jsonOf(value);
    };
    if (row.written)
      EXPECT_EQ(read(), row.written);
    else
      EXPECT_THROW(read(), DataError);
  }
}

// Catches an ordered map that is written in another order than its own.
TEST(ValueJson, orderedMapsKeepTheirOrder) {
  const Kop::TypeOps& type = *findTypeNamed("StaticTunnelConfigEntry").value->ops;
  GenericValue entry(&type);
  fromJson(type, entry.get(),
           parseJson("{\"via\": [{\"intfId\": \"B\", \"nexthop\": \"10.0.0.1\"}, "
                     "{\"key\": {\"intfId\": \"A\", \"nexthop\": \"10.0.0.9\"}, "
                     "\"value\": false}]}"),
           Where(), Numbers::declared);
  const std::string json = jsonOf(entry);
  const auto a = json.find("{\"key\":{\"nexthop\":\"10.0.0.9\",\"intfId\":\"A\"");
  const auto b = json.find("{\"key\":{\"nexthop\":\"10.0.0.1\",\"intfId\":\"B\"");
  EXPECT_TRUE(a != json.npos && b != json.npos && a < b) << json;
}

// Catches errors that do not say which of the nested attributes is wrong.
TEST(ValueJson, errorsNameTheNestedAttribute) {
  const Kop::TypeOps& type = *findTypeNamed("DecapIntf").value->ops;
  const std::string head =
      "Value('Tunnel::Decap::DecapIntf', ** {'decapIntfKey': Value('Tunnel::Decap::"
      "DecapIntfKey', ** {'intfId': ";
  const struct {
    std::string text;
    const char* error;
  } texts[] = {
      {head + "'Vlan1', 'addressFamily': ipv5})",                      "decapIntfKey.addressFamily: "},
      {head + "Vlan1, ",                                               "decapIntfKey.intfId: "       },
      {head + "'Vlan1', 'addressFamily': ipv4}), 'addressType': some", "addressType: "               },
  };
  for (const auto& row : texts) {
    SCOPED_TRACE(row.text);
    GenericValue value(&type);
    try {
      fromText(type, value.get(), row.text);
      ADD_FAILURE() << "was taken";
    } catch (const DataError& error) {
      EXPECT_TRUE(std::string(error.what()).starts_with(row.error)) << error.what();
    }
  }
}

// Catches Ethernet10 before Ethernet2, and an order that is none, which sort must not get.
TEST(NaturalOrder, isAnOrderThatCountsDigits) {
  const std::string sorted[] = {"",          "1",          "2",           "02",
                                "10",        "Ethernet1",  "Ethernet1/2", "Ethernet1/10",
                                "Ethernet2", "Ethernet10", "a",           "a0",
                                "a00",       "b"};
  for (std::size_t i = 0; i < std::size(sorted); ++i)
    for (std::size_t j = 0; j < std::size(sorted); ++j) {
      SCOPED_TRACE(sorted[i] + " and " + sorted[j]);
      EXPECT_FALSE(naturalLess(sorted[i], sorted[j]) &&
                   naturalLess(sorted[j], sorted[i]));
      if (i == j) continue;
      EXPECT_TRUE(naturalLess(sorted[i], sorted[j]) || naturalLess(sorted[j], sorted[i]));
    }
  for (const auto& [a, b] : {
           std::pair("Ethernet2", "Ethernet10"),
           {"1/9",                  "1/10"                 },
           {"a9b",                  "a10a"                 },
           {"99999999999999999999", "100000000000000000000"}
  })
    EXPECT_TRUE(naturalLess(a, b)) << a << " " << b;
}

// Catches names that move the cursor, or that pass for an empty cell or for another name.
TEST(Printable, hidesNothing) {
  const struct {
    std::string text, shown;
  } rows[] = {
      {"edge",      "edge"       },
      {"",          "''"         },
      {"a\x1b[2J",  "'a\\x1b[2J'"},
      {"a\nb",      "'a\\nb'"    },
      {" a",        "' a'"       },
      {"gr\xc3\xb6"
       "n",  "gr\xc3\xb6"
       "n"     },
      {"\xff\x00x", "0xff"       }
  };
  for (const auto& row : rows)
    EXPECT_EQ(printable(row.text), row.shown);
}

}  // namespace
}  // namespace Tunnelctl
