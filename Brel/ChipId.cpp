#include "Brel/ChipId.h"

namespace Brel {

std::ostream& operator<<(std::ostream& out, const ChipId& chip) {
  Kop::TextOut text;
  strepWrite(text, chip);
  return Kop::writeText(out, text.view());
}

}  // namespace Brel
