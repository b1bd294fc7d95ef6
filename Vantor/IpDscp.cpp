#include "Vantor/IpDscp.h"

namespace Vantor {

std::ostream& operator<<(std::ostream& out, const IpDscp& dscp) {
  Kop::TextOut text;
  strepWrite(text, dscp);
  return Kop::writeText(out, text.view());
}

}  // namespace Vantor
