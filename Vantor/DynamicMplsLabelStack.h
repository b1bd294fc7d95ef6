#pragma once

#include <compare>
#include <initializer_list>
#include <iosfwd>
#include <span>
#include <vector>

#include "Kop/NboAttrLog.h"
#include "Kop/Text.h"
#include "Vantor/Export.h"

namespace Vantor {

// A label stack of any depth, labels of 20 bits from index 0.
//
// The binary form, host byte order at any alignment:
//
//     0       4         8             4 + 4n
//     | n     | label 0 | ... label n-1 |
//
// Text     [16, 20]; typed and bare are the same.
// Order    a shorter stack first; then the labels from the highest index down.
// Hash     0 for an empty stack, else one-at-a-time over the labels, 4 bytes each.
// Log      U32 count, U32 per label; a label beyond 20 bits is refused.
// Errors   Kop::RangeException for a label above maxMplsLabel or an index beyond the last;
//          Kop::LogCorruptException; Drem::InvalidSizeException for a binary form that ends
//          early. In the binary form only the low 20 bits of a label are kept.
class VANTOR_EXPORT DynamicMplsLabelStack {
 public:
  DynamicMplsLabelStack() = default;
  explicit DynamicMplsLabelStack(std::initializer_list<U32> labels);
  DynamicMplsLabelStack(Kop::TextIt& it, const Kop::TextIt& end);
  explicit DynamicMplsLabelStack(Kop::NboAttrLog::In& in);

  U32 computedStackSize() const { return static_cast<U32>(labels_.size()); }
  U32 computedLabel(U32 i) const;
  void labelIs(U32 i, U32 label);
  void labelPush(U32 label);  // behind the last one
  void labelDelAll() { labels_.clear(); }
  std::span<const U32> labels() const { return labels_; }
  U32 hash() const;

  // Size of the binary form.
  U32 serializeLen() const { return 4 + 4 * computedStackSize(); }
  // Writes it, and nothing to a null buffer.
  void serialize(Kop::VoidPtr buffer) const;
  // Size of the form at the start of a buffer of `len` bytes, 0 when it is not complete.
  static U32 deserializeLen(Kop::VoidPtrConst buffer, U32 len);
  // Replaces the stack by that form; on an error it stays.
  void deserialize(Kop::VoidPtrConst buffer, U32 len);

  Kop::String stringValue() const { return Kop::strepOf(*this); }

  bool operator==(const DynamicMplsLabelStack&) const = default;
  std::strong_ordering operator<=>(const DynamicMplsLabelStack& other) const;

 private:
  std::vector<U32> labels_;
};

VANTOR_EXPORT void strepWrite(Kop::TextOut& out, const DynamicMplsLabelStack& stack);
inline Kop::String valueToStrep(const DynamicMplsLabelStack& stack) {
  return Kop::strepOf(stack);
}
VANTOR_EXPORT std::ostream& operator<<(std::ostream& out,
                                       const DynamicMplsLabelStack& stack);
VANTOR_EXPORT Kop::NboAttrLog::Out& operator<<(Kop::NboAttrLog::Out& out,
                                               const DynamicMplsLabelStack& stack);
inline U32 attrLogSize(const DynamicMplsLabelStack& stack) {
  return stack.serializeLen();
}

}  // namespace Vantor
