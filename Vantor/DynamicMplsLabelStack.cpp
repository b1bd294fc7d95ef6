#include "Vantor/DynamicMplsLabelStack.h"

#include <algorithm>
#include <cstring>

#include "Drem/Error.h"
#include "Kop/Hash.h"
#include "Vantor/Labels.h"

namespace Vantor {

namespace {

// The size that the form claims, from its first 4 bytes; counts are up to 2^32 - 1.
U64 claimedSize(const U8* bytes) {
  U32 count;
  std::memcpy(&count, bytes, sizeof count);
  return 4 + U64{4} * count;
}

}  // namespace

DynamicMplsLabelStack::DynamicMplsLabelStack(std::initializer_list<U32> labels) {
  for (const U32 label : labels)
    labelPush(label);
}

DynamicMplsLabelStack::DynamicMplsLabelStack(Kop::TextIt& it, const Kop::TextIt& end) {
  Kop::TextIt behind = it;
  labelsRead(behind, end, [this](U32 label) { labelPush(label); });
  it = behind;
}

DynamicMplsLabelStack::DynamicMplsLabelStack(Kop::NboAttrLog::In& in) {
  const U32 count = in.nextU32();
  if (in.remaining() / 4 < count)
    throw Kop::LogCorruptException(
        Kop::stringPrintf("a stack of %u labels in %zu bytes", count, in.remaining()));
  labels_.reserve(count);
  for (U32 i = 0; i < count; ++i)
    labels_.push_back(labelLogRead(in));
}

U32 DynamicMplsLabelStack::computedLabel(U32 i) const {
  return needIndex(i, computedStackSize()), labels_[i];
}

void DynamicMplsLabelStack::labelIs(U32 i, U32 label) {
  needIndex(i, computedStackSize());
  labels_[i] = needLabel(label);
}

void DynamicMplsLabelStack::labelPush(U32 label) {
  labels_.push_back(needLabel(label));
}

U32 DynamicMplsLabelStack::hash() const {
  if (labels_.empty()) return 0;
  Kop::OneAtATime hash;
  for (const U32 label : labels_)
    hash.u32(label);
  return hash.result();
}

void DynamicMplsLabelStack::serialize(Kop::VoidPtr buffer) const {
  if (!buffer) return;
  const U32 count = computedStackSize();
  auto* bytes = static_cast<U8*>(buffer);
  std::memcpy(bytes, &count, sizeof count);
  if (count > 0) std::memcpy(bytes + 4, labels_.data(), std::size_t{4} * count);
}

U32 DynamicMplsLabelStack::deserializeLen(Kop::VoidPtrConst buffer, U32 len) {
  if (len < 4) return 0;
  const U64 size = claimedSize(static_cast<const U8*>(buffer));
  return size <= len ? static_cast<U32>(size) : 0;
}

void DynamicMplsLabelStack::deserialize(Kop::VoidPtrConst buffer, U32 len) {
  const auto* bytes = static_cast<const U8*>(buffer);
  const U64 size = len < 4 ? 4 : claimedSize(bytes);
  if (size > len)
    Drem::fmthrow<Drem::InvalidSizeException>("DynamicMplsLabelStack", "deserialize",
                                              "expected size <= {}, instead got {}", len,
                                              size);
  std::vector<U32> labels((size - 4) / 4);
  for (std::size_t i = 0; i < labels.size(); ++i) {
    std::memcpy(&labels[i], bytes + 4 + 4 * i, 4);
    labels[i] &= maxMplsLabel;
  }
  labels_ = std::move(labels);
}

std::strong_ordering DynamicMplsLabelStack::operator<=>(
    const DynamicMplsLabelStack& other) const {
  if (labels_.size() != other.labels_.size())
    return labels_.size() <=> other.labels_.size();
  return std::lexicographical_compare_three_way(
      labels_.rbegin(), labels_.rend(), other.labels_.rbegin(), other.labels_.rend());
}

void strepWrite(Kop::TextOut& out, const DynamicMplsLabelStack& stack) {
  labelsWrite(out, stack.labels());
}

std::ostream& operator<<(std::ostream& out, const DynamicMplsLabelStack& stack) {
  Kop::TextOut text;
  strepWrite(text, stack);
  return Kop::writeText(out, text.view());
}

Kop::NboAttrLog::Out& operator<<(Kop::NboAttrLog::Out& out,
                                 const DynamicMplsLabelStack& stack) {
  out.writeU32(stack.computedStackSize());
  for (const U32 label : stack.labels())
    out.writeU32(label);
  return out;
}

}  // namespace Vantor
