#include "Brel/ChipSet.h"

namespace Brel {

ChipSet::ChipSet(Kop::TextIt& it, const Kop::TextIt& end) {
  Kop::TextIt behind = it;
  Kop::needString(behind, end, "[");
  for (bool isFirst = true; behind == end || *behind != ']'; isFirst = false) {
    if (!isFirst) Kop::needString(behind, end, ", ");
    chipIs(ChipId(Kop::readAttr<U8>(behind, end, "chip")));
  }
  it = ++behind;
}

void strepWrite(Kop::TextOut& out, const ChipSet& chips) {
  out.append('[');
  bool isFirst = true;
  for (U32 chip = 0; chip <= 255; ++chip) {
    if (!chips.chipHas(ChipId(static_cast<U8>(chip)))) continue;
    if (!isFirst) out.append(", ");
    out.number(chip);
    isFirst = false;
  }
  out.append(']');
}

std::ostream& operator<<(std::ostream& out, const ChipSet& chips) {
  Kop::TextOut text;
  strepWrite(text, chips);
  return Kop::writeText(out, text.view());
}

}  // namespace Brel
