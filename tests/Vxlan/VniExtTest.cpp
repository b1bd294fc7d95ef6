#include "Vxlan/VniExt.h"
#include "tests/Support/Testing.h"

using Vxlan::VniExt;

// Catches an identifier that is cut to 24 bits, or mixed at another width.
TEST(VniExtRecord, isFourBytes) {
  EXPECT_EQ(Kop::strepToValue<VniExt>("4294967295").value(), 0xffffffffu);
  EXPECT_THROW(Kop::strepToValue<VniExt>("4294967296"), Kop::RangeException);
  Kop::Hash vni(7), word(7);
  hashMix(vni, VniExt(0x12345678));
  word.mix32(0x12345678);
  EXPECT_EQ(vni.result(), word.result());
}
