#include "Kop/Module.h"

#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

#include "Kop/Assert.h"

namespace Kop {

namespace {

struct Registry {
  std::shared_mutex mutex;
  std::vector<const ModuleDescriptor*> modules;
  std::unordered_map<std::string_view, const TypeRecord*> types;
};

// Never destroyed, and function-local, because modules register from the initialisers of
// other objects and types are looked up while the process ends.
Registry& registry() {
  static Registry* const registry = new Registry;
  return *registry;
}

}  // namespace

const MemberRecord* TypeRecord::member(U32 number) const {
  for (const auto& m : members)
    if (m.number == number) return &m;
  return nullptr;
}
const MemberRecord* TypeRecord::member(std::string_view memberName) const {
  for (const auto& m : members)
    if (m.name == memberName) return &m;
  return nullptr;
}
const MemberRecord* TypeRecord::enumerator(U32 number) const {
  if (kind != Kind::enumeration) return nullptr;
  // Nearly all count from 0 on.
  if (number < members.size() && members[number].value == number) return &members[number];
  for (const auto& m : members)
    if (m.value == number) return &m;
  return nullptr;
}
const TypeRecord* ModuleDescriptor::type(std::string_view qualifiedName) const {
  for (const auto& t : types)
    if (t.name == qualifiedName) return &t;
  return nullptr;
}

void kopModuleIs(const ModuleDescriptor& module) {
  Registry& r = registry();
  const std::unique_lock lock(r.mutex);
  for (const auto* known : r.modules) {
    if (known == &module) return;
    KOP_ASSERT(known->name != module.name, "module registered twice", "Kop/Module");
  }
  r.modules.push_back(&module);
  for (const auto& type : module.types)
    r.types.emplace(type.name, &type);
}

std::vector<const ModuleDescriptor*> modules() {
  Registry& r = registry();
  const std::shared_lock lock(r.mutex);
  return r.modules;
}
const ModuleDescriptor* findModule(std::string_view name) {
  for (const auto* module : modules())
    if (module->name == name) return module;
  return nullptr;
}
const TypeRecord* findType(std::string_view qualifiedName) {
  Registry& r = registry();
  const std::shared_lock lock(r.mutex);
  const auto found = r.types.find(qualifiedName);
  return found == r.types.end() ? nullptr : found->second;
}
const TypeRecord& typeRecord(FwkType type) {
  return type.module->types[type.index];
}
const ModuleDescriptor* moduleOf(const TypeRecord& type) {
  for (const auto* module : modules())
    if (&type >= module->types.data() &&
        &type < module->types.data() + module->types.size())
      return module;
  return nullptr;
}

namespace {

template <class Width>
Width instance(FwkType type, U32 number) {
  const TypeRecord& record = typeRecord(type);
  if (record.enumerator(number)) return static_cast<Width>(number);
  throw RangeException(stringPrintf("%.*s has no enumerator %u",
                                    static_cast<int>(record.name.size()),
                                    record.name.data(), number));
}

template <class Width>
Width instance(FwkType type, const String& name) {
  const TypeRecord& record = typeRecord(type);
  if (const auto* m = record.member(std::string_view(name)))
    return static_cast<Width>(m->value);
  throw RangeException(stringPrintf("%.*s has no enumerator '%s'",
                                    static_cast<int>(record.name.size()),
                                    record.name.data(), name.c_str()));
}

template <class Width>
Width read(FwkType type, TextIt& it, const TextIt& end) {
  const TypeRecord& record = typeRecord(type);
  TextIt behind = it;
  const std::string_view word = readWord(behind, end);
  if (const auto* m = record.member(word)) {
    it = behind;
    return static_cast<Width>(m->value);
  }
  TextIt digits = it;
  const bool isNumber =
      !word.empty() && word.find_first_not_of("0123456789") == word.npos;
  if (!isNumber)
    throw Exception(stringPrintf("%.*s has no enumerator '%.*s'",
                                 static_cast<int>(record.name.size()), record.name.data(),
                                 static_cast<int>(word.size()), word.data()));
  const String name(record.name);  // names are views and end in no NUL
  const Width value = readAttr<Width>(digits, behind, name.c_str());
  it = behind;
  return value;
}

}  // namespace

U8 enumInstance8(FwkType type, U32 number) {
  return instance<U8>(type, number);
}
U8 enumInstance8(FwkType type, const String& name) {
  return instance<U8>(type, name);
}
U8 enumRead8(FwkType type, TextIt& it, const TextIt& end) {
  return read<U8>(type, it, end);
}
U32 enumInstance32(FwkType type, U32 number) {
  return instance<U32>(type, number);
}
U32 enumInstance32(FwkType type, const String& name) {
  return instance<U32>(type, name);
}
U32 enumRead32(FwkType type, TextIt& it, const TextIt& end) {
  return read<U32>(type, it, end);
}
std::string_view enumName(FwkType type, U32 number) {
  const auto* m = typeRecord(type).enumerator(number);
  return m ? m->name : std::string_view();
}

}  // namespace Kop
