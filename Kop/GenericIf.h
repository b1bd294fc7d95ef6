#pragma once

#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "Kop/NboAttrLog.h"
#include "Kop/Text.h"

// How the runtime reaches types it does not know: one constant table per type.

namespace Kop {

class Entity;
template <class T>
class Ptr;
struct TypeRecord;
struct CollectionOps;
template <class T>
struct EntityOps;

// Walks the keys of a collection inside a value.
struct ElementOps {
  const struct TypeOps* key;
  const struct TypeOps* value;  // null for a set
  U32 (*count)(const void* collection);
  void (*each)(const void* collection,
               void* context,
               void (*visit)(void* context, const void* key, const void* value));
  void (*insert)(void* collection, const void* key, const void* value);
};

// Operations of anything an attribute can be: built-in, enumeration, value, foreign type.
// Arguments are untyped pointers to objects of that type.
//
// Errors   less: UnorderedTypeException; hash: UnhashableTypeException; parse and logRead as
//          the type's own.
struct TypeOps {
  std::string_view name;  // qualified
  U32 size;
  U32 align;
  void (*construct)(void* at, const void* from);  // a copy; of null, the default value
  void (*destruct)(void* value);
  void (*assign)(void* to, const void* from);
  bool (*equal)(const void* a, const void* b);
  bool (*less)(const void* a, const void* b);
  U32 (*hash)(const void* value);
  bool (*truth)(const void* value);
  void (*text)(TextOut& out, const void* value);
  void (*parse)(void* value, TextIt& it, const TextIt& end, const char* attributeName);
  void (*logWrite)(NboAttrLog::Out& out, const void* value);
  void (*logRead)(void* value, NboAttrLog::In& in);
  const ElementOps* elements;  // of a collection, else null

  // The registered description, or null for built-ins and types of no module.
  KOP_EXPORT const TypeRecord* record() const;
};

// One argument or result of a reflected call.
struct GenericArg {
  const TypeOps* type;
  const void* value;
};

// An object of a type known only at run time.
//
// Owner    owns its object; copies copy it.
class KOP_EXPORT GenericValue {
 public:
  GenericValue() = default;
  explicit GenericValue(const TypeOps* type, const void* from = nullptr);
  GenericValue(const GenericValue& other);
  GenericValue(GenericValue&& other) noexcept;
  GenericValue& operator=(GenericValue other) noexcept;
  ~GenericValue();

  const TypeOps* type() const { return type_; }
  void* get() { return object_; }
  const void* get() const { return object_; }
  String text() const;
  void textIs(const String& text);  // the whole text; RangeException, Exception
  friend bool operator==(const GenericValue& a, const GenericValue& b) {
    return a.type_ == b.type_ && (!a.type_ || a.type_->equal(a.object_, b.object_));
  }

 private:
  const TypeOps* type_ = nullptr;
  void* object_ = nullptr;
};

// What a member of a type can do beyond being named. The fields that do not apply are null.
struct MemberOps {
  // Attribute, constant: its type and where it stands. Function: the type of its result
  // (null when it has none). Entity scalar: likewise.
  const TypeOps* type = nullptr;
  const void* (*at)(const void* self) = nullptr;

  // Function.
  std::span<const TypeOps* const> arguments = {};
  void (*call)(void* self, const void* const* arguments, void* result) = nullptr;
  bool isStatic = false;
  bool changes = false;  // needs an object that may be written

  // Entity.
  void (*set)(Entity& entity, const void* value) = nullptr;
  const CollectionOps* collection = nullptr;
};

// The operations on an attribute that genericIfAttributeOp dispatches by number.
enum class AttributeOp : U8 { get, equal, less, truth, add };

// The reflection table of a value type.
struct ValueTable {
  const TypeOps* ops;
  // Errors   Exception when count or types of the arguments are not those of a constructor;
  //          RangeException of the constructor.
  void (*constructFromCtorArgs)(void* at, std::span<const GenericArg> arguments);
  // get: member `number` of *a into *result, an object of the member's own type (attribute,
  // constant or result of a function without arguments); equal, less: of *a and *b into a
  // bool; truth: of *a into a bool; add: *b added to *a, where the type has an addition.
  // False when the type has no such member or operation.
  bool (*attributeOp)(AttributeOp op, void* a, const void* b, U32 number, void* result);
};

}  // namespace Kop
