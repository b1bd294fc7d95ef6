#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "Vantor/IntfId.h"

using Vantor::IntfId;

// Catches a row whose words or limits move: words are stored and sent, names are typed.
TEST(IntfIdNames, wordOfEveryRow) {
  const std::pair<const char*, U64> rows[] = {
      {"",                                 0                  },
      {"A",                                0x0041000000000000 },
      {"abcdefg",                          0x0061626364656667 },
      {" ~'\\",                            0x00207e275c000000 },
      {"Vlan",                             0x00566c616e000000 },
      {"Ethernet1",                        0x0100100000000000 },
      {"Ethernet4095/4095/255.16777215",   0x01ffffffffffffff },
      {"Ethernet3.7",                      0x0100300000000007 },
      {"Loopback0",                        0x0200000000000000 },
      {"Vlan4094",                         0x0300000ffe000000 },
      {"Vlan1",                            0x0300000001000000 },
      {"Vxlan4294967295",                  0x04ffffffff000000 },
      {"Tunnel12",                         0x050000000c000000 },
      {"SrTePolicyTunnel1966080.5",        0x13001e0000000005 },
      {"DynamicTunnel3145728.5",           4179393230757953541},
      {"DynamicTunnel4294967295.16777215", 0x3affffffffffffff },
      {"Generic0.1.0",                     0x0000000001000000 }, // a byte behind a NUL
      {"Generic0.2130706432.0",            0x007f000000000000 }, // no printable byte
      {"Generic0.1449943406.3211264",      0x00566c616e310000 }, // "Vlan1" is another word
      {"Generic1.1048577.0",               0x0100100001000000 }, // a lane without a port
      {"Generic3.1.2",                     0x0300000001000002 },
      {"Generic255.4294967295.16777215",   0xffffffffffffffff },
  };
  for (const auto& [name, word] : rows) {
    EXPECT_EQ(IntfId(name).value(), word) << name;
    EXPECT_EQ(IntfId::fromValue(word).stringValue(), name);
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
  EXPECT_EQ(intf.part(1), 0x300000u);
  EXPECT_EQ(IntfId().hash(), 0u);
  EXPECT_DEATH(intf.part(2), "Vantor/IntfId: part: Assertion \"n < 2\" failed");
}
