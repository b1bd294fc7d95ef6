#include "Kop/Value.h"

#include "Kop/ValueImpl.h"

namespace Kop {

// A lone attribute stands without an envelope, no attribute is the empty text.

void recordText(TextOut& out, Attrs attrs, const void* value) {
  if (attrs.empty()) return;
  if (attrs.size() == 1) return attrs[0].ops->text(out, attrs[0].at(value));
  for (const auto& attr : attrs) {
    out.appendPadded(attr.label);
    attr.ops->text(out, attr.at(value));
  }
  out.append("})");
}

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
