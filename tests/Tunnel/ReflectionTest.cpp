#include <array>

#include <gtest/gtest.h>

#include "Kop/Module.h"
#include "Tunnel/TunnelBasicTypes.h"
#include "Tunnel/TunnelTableHivelTypes.h"

// What reflection does with the members of a type. Which there are is in
// tests/consumer/registry.txt, what holds for all values in ValueLawsTest.cpp.

namespace Tunnel {
namespace {

using namespace TunnelTable;

const Kop::MemberRecord& memberOf(const char* type, std::string_view member) {
  return *Kop::findType(type)->member(member);
}
Kop::GenericValue read(const Kop::ValueTable& table, const void* value, U32 number) {
  const auto& member = *Kop::findType(table.ops->name)->member(number);
  Kop::GenericValue result(member.ops->type);
  EXPECT_TRUE(table.attributeOp(Kop::AttributeOp::get, const_cast<void*>(value), nullptr,
                                number, result.get()));
  return result;
}

// Catches a member that is read from, or called as, another one.
TEST(Reflection, readsResults) {
  const auto& type = *Kop::findType("Tunnel::TunnelTable::TunnelId");
  const TunnelId id(TunnelId::convertToTunnelValue(ldpTunnel, 26));
  constexpr std::pair<const char*, const char*> rows[] = {
      {"isValid",                  "True"                      },
      {"tunnelType",               "ldpTunnel"                 },
      {"tunnelIndex",              "26"                        },
      {"tableType",                "ldpTunnelTable"            },
      {"tunnelTransportType",      "mplsTunnel"                },
      {"tunnelAf",                 "ipv4"                      },
      {"supportsEntropyLabelPush", "True"                      },
      {"extractIndexAndAf",        "26"                        },
      {"toStrep",                  "'Table:ldpTunnel-Index:1a'"},
      {"toCliStrep",               "'LDP tunnel index 26'"     },
      {"typeCliStr",               "'LDP'"                     },
      {"addressFamilyCliStr",      "'IPv4'"                    },
      {"intfId",                   "'DynamicTunnel3145728.26'" },
      {"intfCliStr",               "'DynamicTunnel3145728.26'" },
  };
  for (const auto& [member, text] : rows)
    EXPECT_EQ(read(*type.value, &id, type.member(member)->number).text(), text) << member;
  U32 hash = 0;
  EXPECT_TRUE(type.value->attributeOp(Kop::AttributeOp::get, const_cast<TunnelId*>(&id),
                                      nullptr, 23, &hash));
  EXPECT_EQ(hash, id.hash());
  Kop::GenericValue algo(type.member("extractFlexAlgoId")->ops->type);
  EXPECT_THROW(type.value->attributeOp(Kop::AttributeOp::get, const_cast<TunnelId*>(&id),
                                       nullptr, 16, algo.get()),
               Kop::RangeException);
  for (const U32 number : {0u, 1u, 28u, 258u, 25u})  // none, or one that takes arguments
    EXPECT_FALSE(type.value->attributeOp(
        Kop::AttributeOp::get, const_cast<TunnelId*>(&id), nullptr, number, &hash));
}

// Catches arrays whose elements are seen as another type's or not at all.
TEST(Reflection, arrays) {
  constexpr const char* entryType = "Tunnel::TunnelTable::TunnelTableEntry";
  const auto& endpoint = memberOf(entryType, "endpoint");
  TunnelTableEntry entry;
  const auto* const elements = endpoint.ops->type->elements;
  ASSERT_NE(elements, nullptr);
  const TepIndex second(1);
  const Vantor::IpGenPrefix prefix(Kop::String("10.0.0.0/8"));
  elements->insert(const_cast<void*>(endpoint.ops->at(&entry)), &second, &prefix);
  EXPECT_EQ(entry.endpoint(second), prefix);
  EXPECT_EQ(elements->count(endpoint.ops->at(&entry)), 2u);
  std::string seen;
  elements->each(
      endpoint.ops->at(&entry), &seen,
      [](void* context, const void* key, const void* value) {
        *static_cast<std::string*>(context) +=
            std::to_string(static_cast<const TepIndex*>(key)->value()) + ' ' +
            static_cast<const Vantor::IpGenPrefix*>(value)->stringValue().c_str() + ';';
      });
  EXPECT_EQ(seen, "0 ;1 10.0.0.0/8;");
  EXPECT_EQ(memberOf(entryType, "name").ops->type->elements, nullptr);  // a text
}

// Catches arguments that are taken in another order, type or place.
TEST(Reflection, callsWithArguments) {
  const auto& convert =
      memberOf("Tunnel::TunnelTable::TunnelId", "convertToFlexAlgoTunnelValue");
  ASSERT_EQ(convert.arguments.size(), 3u);
  EXPECT_EQ(convert.arguments[0], "Tunnel::TunnelTable::TunnelType");
  EXPECT_EQ(convert.arguments[1], "U8");
  EXPECT_EQ(convert.arguments[2], "U64");
  EXPECT_EQ(convert.type, "U64");
  EXPECT_TRUE(convert.ops->isStatic);
  TunnelType type = isisFlexAlgoTunnel;
  const U8 algo = 128;
  const U64 index = 7;
  U64 word = 0;
  const void* arguments[] = {&type, &algo, &index};
  convert.ops->call(nullptr, arguments, &word);
  EXPECT_EQ(word, 0x1540000000007u);
  type = srTunnel;
  EXPECT_THROW(convert.ops->call(nullptr, arguments, &word), Kop::RangeException);

  EncapId encap;
  const auto& set = memberOf("Tunnel::TunnelTable::EncapId", "encapValueIs");
  EXPECT_TRUE(set.ops->changes);
  const EncapType kind = mplsEncap;
  const U32 seven = 7;
  const void* fields[] = {&kind, &seven};
  set.ops->call(&encap, fields, nullptr);
  EXPECT_EQ(encap.encapIdValue(), 0x40000007u);
}

// Catches a constructor that is found for arguments it does not have, or that skips a check.
TEST(Reflection, constructs) {
  const auto& id = *Kop::findType("Tunnel::TunnelTable::TunnelId")->value;
  const Kop::TypeOps* u64 = memberOf("Tunnel::TunnelTable::TunnelId", "value").ops->type;
  const Kop::TypeOps* u32 =
      memberOf("Tunnel::TunnelTable::TunnelId", "typeMax").ops->type;
  Kop::GenericValue made(id.ops);
  const auto make = [&](const Kop::TypeOps* type, const void* value) {
    const std::array arguments{
        Kop::GenericArg{type, value}
    };
    id.ops->destruct(made.get());
    id.ops->construct(made.get(), nullptr);
    id.constructFromCtorArgs(made.get(), arguments);
  };
  const U64 good = 5, bad = U64{1} << 49;
  make(u64, &good);
  EXPECT_EQ(made.text(), "5");
  EXPECT_THROW(make(u64, &bad), Kop::RangeException);
  EXPECT_THROW(make(u32, &good), Kop::Exception);
  EXPECT_EQ(made.text(), "0");

  const auto& number = *Kop::findType("Tunnel::TunnelEntrySequenceNumber")->value;
  TunnelEntrySequenceNumber a(65535), b(1);
  EXPECT_TRUE(number.attributeOp(Kop::AttributeOp::add, &a, &b, 0, nullptr));
  EXPECT_EQ(a.value(), 1);
  EXPECT_FALSE(id.attributeOp(Kop::AttributeOp::add, made.get(), made.get(), 0, nullptr));
}

}  // namespace
}  // namespace Tunnel
