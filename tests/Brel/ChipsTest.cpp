#include "Brel/ChipSet.h"
#include "tests/Support/Testing.h"

using Brel::ChipId;
using Brel::ChipSet;

// Catches a chip mixed at another width, which moves every record that holds one in its map,
// and a chip number that is cut instead of refused.
TEST(ChipIdRecord, isOneByteAndNothingMore) {
  EXPECT_EQ(ChipId().value(), 128);
  Kop::Hash chip(0), byte(0);
  hashMix(chip, ChipId(1));
  byte.mix8(1);
  EXPECT_EQ(chip.result(), byte.result());
  EXPECT_EQ(Kop::strepToValue<ChipId>("255"), ChipId(255));
  EXPECT_THROW(Kop::strepToValue<ChipId>("256"), Kop::RangeException);
  EXPECT_LT(ChipId(127), ChipId(128));  // as unsigned
}

// Catches chips that share a bit or stand at another place than the log form says, and a list
// that is read with one missing.
TEST(ChipSetBits, oneBitPerChip) {
  ChipSet chips{ChipId(0), ChipId(9), ChipId(255)};
  EXPECT_EQ(chips.chipCount(), 3u);
  EXPECT_EQ(chips.bytes()[0], 1);
  EXPECT_EQ(chips.bytes()[1], 2);
  EXPECT_EQ(chips.bytes()[31], 0x80);
  EXPECT_EQ(chips.stringValue(), "[0, 9, 255]");
  EXPECT_EQ(Kop::strepToValue<ChipSet>("[255, 9, 0, 9]"), chips);
  chips.chipDel(ChipId(9));
  EXPECT_EQ(chips, (ChipSet{ChipId(255), ChipId(0)}));
  for (const char* text : {"", "[", "[1", "[1,2]", "[1, ]", "1", "[1]]", "[256]"})
    EXPECT_THROW(Kop::strepToValue<ChipSet>(text), Kop::Exception) << text;
}
