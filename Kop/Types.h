#pragma once

#include <cstddef>
#include <cstdint>

// Widths used all over the system. U64 is `unsigned long`, so "%lu" prints it.
using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;
using U64 = unsigned long;
static_assert(sizeof(U64) == 8, "the system is built for LP64");

// Marks what libKop shows to others; everything else is hidden by the build. On a class
// template it must stand at the template, not at an instantiation: g++ ignores it there.
#define KOP_EXPORT [[gnu::visibility("default")]]

namespace Kop {

// Raw buffers of the binary forms. Pointer arithmetic is done on U8*.
using VoidPtr = void*;
using VoidPtrConst = const void*;

// Identifies an attribute or a collection of an entity: 258 and up are the type's own.
using AttributeId = U32;

// A member's number as a type, so that an overload can be chosen by it.
template <U32 N>
struct Number {};

enum class Kind : U8 { enumeration, value, entity };

// Members are numbered from 2 + 128 x depth: a value that derives from nothing has depth 0,
// a derived value and the entity base 1, an entity type and a value derived twice 2.
inline constexpr U32 numbersPerLevel = 128;
inline constexpr U32 firstValueNumber = 2;
inline constexpr U32 firstEntityNumber = 258;

template <class T>
struct TypeImpl;
struct TypeRecord;
struct ModuleDescriptor;

// A type's place in its module's list.
struct FwkType {
  const ModuleDescriptor* module = nullptr;
  U32 index = 0;

  friend bool operator==(const FwkType&, const FwkType&) = default;
};

}  // namespace Kop
