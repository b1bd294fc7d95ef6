#include "Drem/Error.h"
#include "Routing/Multicast/MulticastTreeId.h"
#include "tests/Vantor/ValueLaws.h"

using Routing::Multicast::MulticastTreeId;

template <>
MulticastTreeId arbitrary(Random& random) {
  U8 bytes[40];
  for (U8& byte : bytes)
    byte = static_cast<U8>(below(random, 2) ? random() : below(random, 2));
  return MulticastTreeId(bytes, below(random, sizeof bytes + 1));
}
INSTANTIATE_TYPED_TEST_SUITE_P(Routing, ValueLaws, MulticastTreeId);

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

// Catches a size computed in 32 bits, a read behind the buffer's end, which a sanitizer sees
// because the buffer is a block of just that size, and a form taken in part.
TEST(MulticastTreeIdBinary, sizesAreCheckedAgainstTheBuffer) {
  struct Row {
    U32 count;   // the form's own word
    U32 len;     // what there is
    U32 wanted;  // 0: not complete
  };
  constexpr Row rows[] = {
      {0,          0,  0 },
      {0,          3,  0 },
      {0,          4,  4 },
      {0,          9,  4 },
      {20,         23, 0 },
      {20,         24, 24},
      {20,         25, 24},
      {0xfffffffc, 4,  0 }, // 4 + n is 0 modulo 2^32
      {0xffffffff, 40, 0 },
      {0x80000000, 40, 0 },
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.count << " in " << row.len);
    std::vector<U8> bytes(row.len, 0x5a);
    if (row.len > 0) std::memcpy(bytes.data(), &row.count, std::min(row.len, 4u));
    EXPECT_EQ(MulticastTreeId::deserializeLen(bytes.data(), row.len), row.wanted);
    MulticastTreeId tree("07");
    if (row.wanted == 0) {
      EXPECT_THROW(tree.deserialize(bytes.data(), row.len), Drem::InvalidSizeException);
      EXPECT_EQ(tree, MulticastTreeId("07"));
      continue;
    }
    tree.deserialize(bytes.data(), row.len);
    EXPECT_EQ(tree.byteCount(), row.count);
    ASSERT_EQ(tree.serializeLen(), row.wanted);
    std::vector<U8> again(row.wanted);
    tree.serialize(again.data());
    EXPECT_TRUE(std::equal(again.begin(), again.end(), bytes.begin()));
  }
  MulticastTreeId("07").serialize(nullptr);
}
