#include "Kop/Module.h"
#include "Tunnel/TunnelBasicTypes.h"
#include "Tunnel/TunnelTableHivelTypes.h"
#include "tests/Support/Testing.h"

// What reflection does with the members of a type. Which there are is in
// tests/consumer/registry.txt, what holds for all values in ValueLawsTest.cpp.

namespace Tunnel::TunnelTable {
namespace {

constexpr const char* idType = "Tunnel::TunnelTable::TunnelId";

const Kop::MemberRecord& memberOf(const char* type, std::string_view member) {
  return *Kop::findType(type)->member(member);
}

// Catches a function that is called as another one, an exception that is lost, arguments that
// are taken in another order, and a constructor that skips a check.
TEST(Reflection, readsCallsAndConstructs) {
  const auto& table = *Kop::findType(idType)->value;
  TunnelId id(TunnelId::convertToTunnelValue(ldpTunnel, 26));
  std::string texts;
  for (const auto& member : Kop::findType(idType)->members) {
    if (member.kind != Kop::MemberKind::function || !member.arguments.empty()) continue;
    Kop::GenericValue result(member.ops->type);
    const auto read = [&] {
      EXPECT_TRUE(table.attributeOp(Kop::AttributeOp::get, &id, nullptr, member.number,
                                    result.get()));
    };
    if (member.name == "extractFlexAlgoId")
      EXPECT_THROW(read(), Kop::RangeException);
    else
      read();
    texts += std::string(result.text().c_str()) + ' ';
  }
  EXPECT_EQ(texts,
            "True ldpTunnel 26 ldpTunnelTable mplsTunnel ipv4 True 26 0 "
            "'Table:ldpTunnel-Index:1a' 'LDP tunnel index 26' 'LDP' 'IPv4' "
            "'DynamicTunnel3145728.26' 'DynamicTunnel3145728.26' " +
                std::to_string(id.hash()) + " ");
  U32 any = 0;
  for (const U32 number : {0u, 1u, 28u, 258u, 25u})  // none, or one that takes arguments
    EXPECT_FALSE(table.attributeOp(Kop::AttributeOp::get, &id, nullptr, number, &any));

  const auto& convert = memberOf(idType, "convertToFlexAlgoTunnelValue");
  EXPECT_EQ(
      std::vector(convert.arguments.begin(), convert.arguments.end()),
      (std::vector<std::string_view>{"Tunnel::TunnelTable::TunnelType", "U8", "U64"}));
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
  const EncapType kind = mplsEncap;
  const U32 seven = 7;
  const void* fields[] = {&kind, &seven};
  memberOf("Tunnel::TunnelTable::EncapId", "encapValueIs").ops->call(&encap, fields, {});
  EXPECT_EQ(encap.encapIdValue(), 0x40000007u);

  Kop::GenericValue made(table.ops);
  const U64 bad = U64{1} << 49;
  const std::array wrong{
      Kop::GenericArg{memberOf(idType, "value").ops->type, &bad}
  };
  EXPECT_THROW(table.constructFromCtorArgs(made.get(), wrong), Kop::RangeException);

  const auto& number = *Kop::findType("Tunnel::TunnelEntrySequenceNumber")->value;
  TunnelEntrySequenceNumber a(65535), b(1);
  EXPECT_TRUE(number.attributeOp(Kop::AttributeOp::add, &a, &b, 0, nullptr));
  EXPECT_EQ(a.value(), 1);
  EXPECT_FALSE(table.attributeOp(Kop::AttributeOp::add, &id, &id, 0, nullptr));
}

// Catches a type or a member that only a walk over all finds.
TEST(Reflection, findsByNameNumberAndValue) {
  for (const auto* module : Kop::modules())
    for (const auto& type : module->types) {
      EXPECT_EQ(Kop::findType(type.name), &type);
      for (const auto& member : type.members) {
        EXPECT_EQ(type.member(member.name), &member) << type.name;
        EXPECT_EQ(type.member(member.number), &member) << type.name;
        if (member.kind == Kop::MemberKind::enumerator) {
          EXPECT_EQ(type.enumerator(member.value), &member) << type.name;
        }
      }
    }
}

// Catches arrays whose elements are seen as another type's or not at all.
TEST(Reflection, arrays) {
  constexpr const char* entryType = "Tunnel::TunnelTable::TunnelTableEntry";
  const auto& endpoint = *memberOf(entryType, "endpoint").ops;
  TunnelTableEntry entry;
  const TepIndex second(1);
  const Vantor::IpGenPrefix prefix(Kop::String("10.0.0.0/8"));
  endpoint.type->elements->insert(const_cast<void*>(endpoint.at(&entry)), &second,
                                  &prefix);
  EXPECT_EQ(entry.endpoint(second), prefix);
  EXPECT_EQ(endpoint.type->elements->count(endpoint.at(&entry)), 2u);
  std::string seen;
  endpoint.type->elements->each(
      endpoint.at(&entry), &seen, [](void* text, const void* key, const void* value) {
        *static_cast<std::string*>(text) +=
            std::to_string(static_cast<const TepIndex*>(key)->value()) + ' ' +
            static_cast<const Vantor::IpGenPrefix*>(value)->stringValue().c_str() + ';';
      });
  EXPECT_EQ(seen, "0 ;1 10.0.0.0/8;");
  EXPECT_EQ(memberOf(entryType, "name").ops->type->elements, nullptr);  // a text
}

}  // namespace
}  // namespace Tunnel::TunnelTable
