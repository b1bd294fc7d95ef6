#include "Vxlan/VniExt.h"

namespace Vxlan {

std::ostream& operator<<(std::ostream& out, const VniExt& vni) {
  return Kop::writeText(out, vni.stringValue());
}

}  // namespace Vxlan
