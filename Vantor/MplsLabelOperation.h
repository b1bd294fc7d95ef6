#pragma once

#include <compare>
#include <cstring>
#include <ostream>
#include <span>

#include "Kop/Enum.h"
#include "Kop/KeyOps.h"
#include "Kop/NboAttrLog.h"
#include "Kop/Text.h"
#include "Vantor/Export.h"

namespace Vantor {

// A label of 20 bits, in the low bits of a U32.
inline constexpr U32 maxMplsLabel = 0xfffff;

// What is done to the label stack of a packet. Numbers are wire format: append only.
KOP_ENUM(MplsOperation, U32, noOperation = 0, push = 1, swap = 2, pop = 3);

// What a hop does to the label stack of a packet: an operation and up to 16 labels for it,
// the first one at index 0.
//
// Text     push[16, 20]; the default is noOperation[]. Typed and bare are the same.
// Order    operation, number of labels, then the labels from index 0.
// Hash     one-at-a-time over the operation and each label, 4 bytes each.
// Log      U32 operation, U32 count, U32 per label. Like every enumeration an operation
//          without a name is kept; a count or label beyond its limit is refused.
// Errors   Kop::RangeException for a label above maxMplsLabel, more than maxLabels of them
//          or an index beyond the last; Kop::LogCorruptException.
class VANTOR_EXPORT MplsLabelOperation {
 public:
  using Operation = MplsOperation;
  static constexpr U32 maxLabels = 16;

  MplsLabelOperation() = default;
  explicit MplsLabelOperation(Operation operation, std::span<const U32> labels = {});
  MplsLabelOperation(Kop::TextIt& it, const Kop::TextIt& end);
  explicit MplsLabelOperation(Kop::NboAttrLog::In& in);

  Operation operation() const { return operation_; }
  void operationIs(Operation operation) { operation_ = operation; }
  U32 labelCount() const { return count_; }
  U32 label(U32 i) const;
  void labelIs(U32 i, U32 label);
  void labelPush(U32 label);  // behind the last one
  std::span<const U32> labels() const { return {labels_, count_}; }
  U32 hash() const;

  Kop::String stringValue() const { return Kop::strepOf(*this); }

  bool operator==(const MplsLabelOperation& other) const {
    return std::memcmp(this, &other, sizeof *this) == 0;
  }
  std::strong_ordering operator<=>(const MplsLabelOperation& other) const;

 private:
  Operation operation_ = noOperation;
  U32 count_ = 0;
  U32 labels_[maxLabels] = {};  // 0 behind the count, so that equality is the bytes'
};

VANTOR_EXPORT void strepWrite(Kop::TextOut& out, const MplsLabelOperation& labels);
inline Kop::String valueToStrep(const MplsLabelOperation& labels) {
  return Kop::strepOf(labels);
}
VANTOR_EXPORT std::ostream& operator<<(std::ostream& out,
                                       const MplsLabelOperation& labels);
VANTOR_EXPORT Kop::NboAttrLog::Out& operator<<(Kop::NboAttrLog::Out& out,
                                               const MplsLabelOperation& labels);
inline U32 attrLogSize(const MplsLabelOperation& labels) {
  return 8 + 4 * labels.labelCount();
}

}  // namespace Vantor

static_assert(std::is_trivially_copyable_v<Vantor::MplsLabelOperation>);
static_assert(std::has_unique_object_representations_v<Vantor::MplsLabelOperation>);
template <>
inline constexpr bool Kop::equalIsBitwise<Vantor::MplsLabelOperation> = true;
