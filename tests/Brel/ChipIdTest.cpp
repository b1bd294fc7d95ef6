#include "Brel/ChipId.h"
#include "tests/Vantor/ValueLaws.h"

using Brel::ChipId;

template <>
ChipId arbitrary(Random& random) {
  return ChipId(static_cast<U8>(random()));
}
INSTANTIATE_TYPED_TEST_SUITE_P(Brel, ValueLaws, ChipId);

// Catches a chip mixed at another width, which moves every record that holds one in its map,
// and a chip number that is cut instead of refused.
TEST(ChipIdRecord, isOneByteAndNothingMore) {
  EXPECT_EQ(ChipId().value(), 128);
  Kop::Hash chip(0), byte(0), word(0);
  hashMix(chip, ChipId(1));
  byte.mix8(1);
  word.mix32(1);
  EXPECT_EQ(chip.result(), byte.result());
  EXPECT_NE(chip.result(), word.result());

  // The key of a hardware tunnel: a 64-bit index 5, then chip 1.
  Kop::Hash key(0);
  key.mix64(5);
  hashMix(key, ChipId(1));
  EXPECT_EQ(key.result(), 0x45eb402e);

  EXPECT_EQ(Kop::strepToValue<ChipId>("255"), ChipId(255));
  EXPECT_THROW(Kop::strepToValue<ChipId>("256"), Kop::RangeException);
  for (const char* text : {"", "-1", "+1", " 1", "x", "'1'"})
    EXPECT_THROW(Kop::strepToValue<ChipId>(text), Kop::Exception) << text;
  EXPECT_LT(ChipId(127), ChipId(128));  // as unsigned
}
