#include "Kop/Module.h"
#include "Tunnel/DecapGroupHivelTypes.h"
#include "Tunnel/TunnelBasicTypes.h"
#include "Tunnel/TunnelTableHivelTypes.h"
#include "Vantor/GreKeyType.h"
#include "tests/Support/Testing.h"

// What only typed callers use: the laws over all types go by reflection.

namespace Tunnel {
namespace {

using namespace TunnelTable;

template <class E>
class Enumerations : public testing::Test {};
using AllEnumerations = testing::Types<GreHdrFlagsType,
                                       NexthopType,
                                       EncapType,
                                       TunnelTableIdentifier,
                                       TunnelTable::TunnelType,
                                       ContributionToTunnelRIB,
                                       TunnelTransportType,
                                       Decap::TunnelType,
                                       Decap::PayloadType,
                                       Decap::TunnelDecapIpSrc,
                                       Decap::AddressType,
                                       Vantor::AddressFamily,
                                       Vantor::GreKeyType>;
TYPED_TEST_SUITE(Enumerations, AllEnumerations);

// Catches an enumeration that reads or writes another one's names, or numbers of its width.
TYPED_TEST(Enumerations, goByNameAndNumber) {
  using E = TypeParam;
  const Kop::TypeRecord* const type = Kop::findType(Kop::typeName<E>());
  ASSERT_TRUE(type);
  ASSERT_FALSE(type->members.empty());
  for (const auto& member : type->members) {
    const E value = static_cast<E>(member.value);
    const Kop::String name(member.name);
    EXPECT_EQ(Kop::EnumOps<E>::instance(member.value), value);
    EXPECT_EQ(Kop::EnumOps<E>::instance(name), value);
    std::ostringstream out;
    out << value;
    EXPECT_EQ(out.str(), member.name);
    EXPECT_EQ(valueToStrep(value), name);
    Kop::TextIt it(name.c_str());
    E read{};
    sequenceToValue(it, Kop::TextIt(name.c_str() + name.size()), &read);
    EXPECT_EQ(read, value);
  }
  EXPECT_THROW(Kop::EnumOps<E>::instance(200), Kop::RangeException);
}

template <class Table>
void tableTakes(const Kop::Ptr<Table>& table, const auto& info) {
  table->entryIs(info, false);
  EXPECT_TRUE(table->entryHas(info));
  table->entryDel(info);
  EXPECT_EQ(table->entryCount(), 0u);
}

TEST(TypedCalls, ofTablesAndNumbers) {
  tableTakes(l3TunnelInfoTableFactory("t"), L3TunnelInfo());
  tableTakes(greTunnelInfoTableFactory("t"), GreTunnelInfo());
  tableTakes(ipsecGreTunnelInfoTableFactory("t"), IpsecGreTunnelInfo());
  tableTakes(ipsecVtiTunnelInfoTableFactory("t"), IpsecVtiTunnelInfo());
  const U64 number = TunnelCounterId::convertToTunnelValue(1, 2);
  EXPECT_EQ(number, 0x100000002u);
  EXPECT_EQ(TunnelCounterId(number).value(), number);
  EXPECT_EQ(Id64(number).value(), number);
  std::ostringstream out;
  out << U3(5);
  EXPECT_EQ(out.str(), "5");
}

}  // namespace
}  // namespace Tunnel
