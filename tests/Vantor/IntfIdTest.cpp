#include "Vantor/IntfId.h"
#include "tests/Support/Rows.h"
#include "tests/Support/Testing.h"

using Vantor::IntfId;

// Catches a row whose words or limits move: words are stored and sent, names are typed.
TEST(IntfIdNames, wordOfEveryRow) {
  for (const auto& row : Support::rowsIn("Vantor/interfaces.txt")) {
    const U64 word = std::stoull(row[1], nullptr, 16);
    EXPECT_EQ(IntfId(row[0].c_str()).value(), word) << row[0];
    EXPECT_EQ(IntfId::fromValue(word).stringValue(), row[0]);
  }
}

// Catches a second spelling of an interface, and a number that is cut to its part.
TEST(IntfIdNames, refused) {
  // Among them 0.0.0, 3.1.0, 58.1.2 and the like, which are words of names.
  std::istringstream names(
      "Ethernet,Ethernet0,Ethernet01,Ethernet4096,Ethernet1/0,Ethernet1/4096,"
      "Ethernet1/1/0,Ethernet1/1/256,Ethernet1/1/1/1,Ethernet1.0,"
      "Ethernet1.16777216,Ethernet1/,Ethernet1 ,ethernet1,Loopback,Loopback00,"
      "Vlan4294967296,Tunnel-1,Tunnel1.1,DynamicTunnel1,DynamicTunnel1.,"
      "DynamicTunnel1.01,DynamicTunnel01.1,DynamicTunnel4294967296.0,"
      "DynamicTunnel0.16777216,SrTePolicyTunnel,Generic256.0.0,Generic06.0.0,"
      "Generic6.0,Generic6.0.0.0,Generic0.0.0,Generic3.1.0,Generic58.1.2,"
      "Generic1.1048576.0,Generic0.1090519040.0,abcdefgh,\x7f,\x1f,\xc3\xa4,a\tb");
  for (std::string name; std::getline(names, name, ',');)
    EXPECT_THROW(IntfId{name.c_str()}, Kop::RangeException) << name;
  EXPECT_THROW(IntfId(Kop::String("a\0b", 3)), Kop::RangeException);
}

// Catches a part that spills into its neighbour.
TEST(IntfIdParts, areIndependent) {
  IntfId intf = IntfId::fromValue(0xffffffffffffffff);
  intf.typeIdIs(0x13a);  // keeps 8 bits
  intf.partIs(0, 0xff000005);
  EXPECT_EQ(intf.value(), 0x3affffffff000005u);
  intf.partIs(1, 0x300000);
  EXPECT_EQ(intf.value(), 4179393230757953541u);
  intf.partIs(0, 0xffffffff);
  intf.typeIdIs(0);
  EXPECT_EQ(intf.value(), 0x0000300000ffffffu);
  EXPECT_EQ(intf.part(0), 0xffffffu);
  EXPECT_DEATH(intf.part(2), "Vantor/IntfId: part: Assertion \"n < 2\" failed");
}
