#include <string_view>
#include <vector>

#include "Check.h"
#include "Kop/Exception.h"
#include "Kop/GenericIf.h"
#include "Kop/Module.h"

// The text of any registered value: the first byte chooses the type. What can be read is
// written in one form, and that form reads as the same value.

namespace {

// What holds a collection has no text that can be read: reading it is an assertion.
bool holdsCollection(const Kop::TypeRecord& type) {
  for (const auto& member : type.members) {
    if (member.kind == Kop::MemberKind::collection) return true;
    if (member.kind != Kop::MemberKind::attribute) continue;
    if (member.ops->type->elements) return true;
    const Kop::TypeRecord* const inner = member.ops->type->record();
    if (inner && inner->kind == Kop::Kind::value && holdsCollection(*inner)) return true;
  }
  return false;
}

std::vector<const Kop::TypeOps*> readableTypes() {
  std::vector<const Kop::TypeOps*> types;
  for (const auto* module : Kop::modules())
    for (const auto& type : module->types)
      if (type.value && !holdsCollection(type)) types.push_back(type.value->ops);
  FUZZ_CHECK(!types.empty());
  return types;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static const auto types = readableTypes();
  if (size == 0) return 0;
  const Kop::TypeOps* const type = types[bytes[0] % types.size()];
  Kop::GenericValue value(type);
  try {
    value.textIs(Kop::String(reinterpret_cast<const char*>(bytes + 1), size - 1));
  } catch (const Kop::RangeException&) {
    return 0;
  } catch (const Kop::Exception&) {
    return 0;
  }
  const Kop::String text = value.text();
  Kop::GenericValue again(type);
  again.textIs(text);
  FUZZ_CHECK(again.text() == text);
  // A float that is not a number equals nothing.
  FUZZ_CHECK(again == value ||
             std::string_view(text).find("nan") != std::string_view::npos);
  return 0;
}
