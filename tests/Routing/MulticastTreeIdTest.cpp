#include "Routing/Multicast/MulticastTreeId.h"
#include "tests/Support/Testing.h"

using Routing::Multicast::MulticastTreeId;

// Catches an order that follows the text, bytes compared as signed, and digits that are
// accepted in part.
TEST(MulticastTreeIdText, pairsOfHexDigits) {
  const MulticastTreeId tree("0a00Ff");
  const U8 bytes[] = {0x0a, 0, 0xff};
  EXPECT_EQ(tree, MulticastTreeId(bytes, 3));
  EXPECT_EQ(valueToStrep(tree), "'0a00ff'");
  EXPECT_EQ(valueToStrep(MulticastTreeId()), "''");
  EXPECT_EQ(MulticastTreeId(nullptr, 0), MulticastTreeId(""));
  EXPECT_LT(MulticastTreeId("ff"), MulticastTreeId("0000"));
  EXPECT_LT(MulticastTreeId("7f"), MulticastTreeId("80"));
  EXPECT_EQ(tree.hash(), Kop::OneAtATime().byte(0x0a).byte(0).byte(0xff).result());
  for (const char* text : {"", "'", "'0'", "'0g'", "'0a", "0a", "'0a '", "'0x'"})
    EXPECT_THROW(Kop::strepToValue<MulticastTreeId>(text), Kop::Exception) << text;
  EXPECT_THROW(MulticastTreeId(bytes, 0x80000000), Kop::RangeException);
}

// Catches a copy of a long identifier that copies its bytes.
TEST(MulticastTreeIdBytes, copiesShare) {
  const U8 bytes[100] = {7};
  const MulticastTreeId tree(bytes, sizeof bytes), copy = tree;
  EXPECT_EQ(copy.bytes().data(), tree.bytes().data());
  EXPECT_NE(static_cast<const void*>(tree.bytes().data()), bytes);
}
