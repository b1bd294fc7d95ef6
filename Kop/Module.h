#pragma once

#include <span>

#include "Kop/Enum.h"
#include "Kop/GenericIf.h"

// Module descriptors and the registry that finds them.
//
// Threads  modules register while libraries load; afterwards the registry only changes by
//          another dlopen. Look-ups are safe beside each other.

namespace Kop {

enum class MemberKind : U8 { attribute, constant, function, collection, enumerator };

struct KOP_EXPORT MemberRecord {  // one member of a type
  std::string_view name;
  U32 number;
  MemberKind kind;
  std::string_view type;  // of a function its result, of a collection its value
  std::span<const std::string_view> arguments;  // of a function; the key of a collection
  U32 value;                                    // of an enumerator
  const MemberOps* ops;                         // null for an enumerator
};

struct KOP_EXPORT TypeRecord {  // one type of a module
  std::string_view name;        // qualified
  Kind kind;
  U8 width;  // bytes of an enumeration, 0 otherwise
  std::span<const MemberRecord> members;
  const ValueTable* value;           // of a value, else null
  const struct EntityTable* entity;  // of an entity, else null

  const MemberRecord* member(U32 number) const;
  const MemberRecord* member(std::string_view memberName) const;
  const MemberRecord* enumerator(U32 value) const;
};

// Built by the compiler, constant for the life of the process.
struct KOP_EXPORT ModuleDescriptor {
  std::string_view name;
  U64 digest;
  std::span<const TypeRecord> types;  // enumerations, then values, then entities

  const TypeRecord* type(std::string_view qualifiedName) const;
};

// Keeps the module for the life of the process, in the order of registration. The same
// descriptor again is ignored, so that a library that is found twice registers once; another
// one of the same name is a broken build and ends the process.
KOP_EXPORT void kopModuleIs(const ModuleDescriptor& module);
KOP_EXPORT std::vector<const ModuleDescriptor*> modules();  // in order of registration
KOP_EXPORT const ModuleDescriptor* findModule(std::string_view name);
KOP_EXPORT const TypeRecord* findType(std::string_view qualifiedName);
KOP_EXPORT const TypeRecord& typeRecord(FwkType type);
KOP_EXPORT const ModuleDescriptor* moduleOf(const TypeRecord& type);

}  // namespace Kop
