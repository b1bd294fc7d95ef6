#include "Vantor/MplsLabelOperation.h"

#include <algorithm>

#include "Kop/Hash.h"
#include "Vantor/Labels.h"

namespace Vantor {

MplsLabelOperation::MplsLabelOperation(Operation operation, std::span<const U32> labels)
    : operation_(operation) {
  for (const U32 label : labels)
    labelPush(label);
}

MplsLabelOperation::MplsLabelOperation(Kop::TextIt& it, const Kop::TextIt& end) {
  Kop::TextIt behind = it;
  sequenceToValue(behind, end, &operation_);
  labelsRead(behind, end, [this](U32 label) { labelPush(label); });
  it = behind;
}

MplsLabelOperation::MplsLabelOperation(Kop::NboAttrLog::In& in)
    : operation_(static_cast<Operation>(in.nextU32())), count_(in.nextU32()) {
  if (count_ > maxLabels)
    throw Kop::LogCorruptException(
        Kop::stringPrintf("an operation with %u labels, at most %u", count_, maxLabels));
  for (U32 i = 0; i < count_; ++i)
    labels_[i] = labelLogRead(in);
}

U32 MplsLabelOperation::label(U32 i) const {
  return needIndex(i, count_), labels_[i];
}

void MplsLabelOperation::labelIs(U32 i, U32 label) {
  needIndex(i, count_);
  labels_[i] = needLabel(label);
}

void MplsLabelOperation::labelPush(U32 label) {
  needLabel(label);
  if (count_ == maxLabels)
    throw Kop::RangeException(
        Kop::stringPrintf("an operation has at most %u labels", maxLabels));
  labels_[count_++] = label;
}

U32 MplsLabelOperation::hash() const {
  Kop::OneAtATime hash;
  hash.u32(operation_);
  for (const U32 label : labels())
    hash.u32(label);
  return hash.result();
}

std::strong_ordering MplsLabelOperation::operator<=>(
    const MplsLabelOperation& other) const {
  if (operation_ != other.operation_) return U32{operation_} <=> U32{other.operation_};
  if (count_ != other.count_) return count_ <=> other.count_;
  return std::lexicographical_compare_three_way(labels_, labels_ + count_, other.labels_,
                                                other.labels_ + count_);
}

void strepWrite(Kop::TextOut& out, const MplsLabelOperation& labels) {
  strepWrite(out, labels.operation());
  labelsWrite(out, labels.labels());
}

std::ostream& operator<<(std::ostream& out, const MplsLabelOperation& labels) {
  Kop::TextOut text;
  strepWrite(text, labels);
  return Kop::writeText(out, text.view());
}

Kop::NboAttrLog::Out& operator<<(Kop::NboAttrLog::Out& out,
                                 const MplsLabelOperation& labels) {
  out.writeU32(labels.operation());
  out.writeU32(labels.labelCount());
  for (const U32 label : labels.labels())
    out.writeU32(label);
  return out;
}

}  // namespace Vantor
