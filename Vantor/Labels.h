#pragma once

#include <span>

#include "Kop/NboAttrLog.h"
#include "Kop/Text.h"
#include "Vantor/MplsLabelOperation.h"

// What the two types with labels have in common. Not installed.

namespace Vantor {

inline U32 needLabel(U32 label) {
  if (label > maxMplsLabel)
    throw Kop::RangeException(
        Kop::stringPrintf("label %u is above %u", label, maxMplsLabel));
  return label;
}

inline void needIndex(U32 i, U32 count) {
  if (i >= count)
    throw Kop::RangeException(Kop::stringPrintf("label %u of %u", i, count));
}

inline U32 labelLogRead(Kop::NboAttrLog::In& in) {
  const U32 label = in.nextU32();
  if (label > maxMplsLabel)
    throw Kop::LogCorruptException(
        Kop::stringPrintf("label %u is above %u", label, maxMplsLabel));
  return label;
}

inline void labelsWrite(Kop::TextOut& out, std::span<const U32> labels) {
  out.append('[');
  for (std::size_t i = 0; i < labels.size(); ++i) {
    if (i > 0) out.append(", ");
    out.number(labels[i]);
  }
  out.append(']');
}

// Reads [16, 20] and hands each label over.
template <class Push>
void labelsRead(Kop::TextIt& it, const Kop::TextIt& end, const Push& push) {
  Kop::needString(it, end, "[");
  for (bool isFirst = true; it == end || *it != ']'; isFirst = false) {
    if (!isFirst) Kop::needString(it, end, ", ");
    push(Kop::readAttr<U32>(it, end, "label"));
  }
  ++it;
}

}  // namespace Vantor
