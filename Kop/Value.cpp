#include "Kop/Value.h"

#include "Kop/ValueImpl.h"

namespace Kop {

void recordParse(Attrs attrs, void* value, TextIt& it, const TextIt& end) {
  if (attrs.empty()) return;
  if (attrs.size() == 1)
    return attrs[0].ops->parse(attrs[0].in(value), it, end, attrs[0].name);
  for (const auto& attr : attrs) {
    needString(it, end, attr.label);
    attr.ops->parse(attr.in(value), it, end, attr.name);
  }
  needString(it, end, "})");
}

}  // namespace Kop
