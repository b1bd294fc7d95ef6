#pragma once

#include "Kop/GenericIf.h"
#include "Kop/Module.h"
#include "Kop/Value.h"
#include "tests/Support/Testing.h"

// Random values of any type, made by reflection. Half of all that have no attributes come from a
// handful, so that equal values and values that differ in one attribute only are as frequent as
// others.

namespace Samples {

constexpr U32 seed = 20181;  // printed by who loops over it
using Random = std::mt19937;

// All values and enumerations that are registered, and the types of their attributes, keys and
// elements, by name; without collections.
const std::map<std::string_view, const Kop::TypeOps*>& allTypes();

// The attributes of a value, its bases' first, without constants and functions.
std::vector<const Kop::MemberRecord*> storedMembers(const Kop::TypeRecord& type);

// Makes the value a random one, also collections. Of floats every one but NaN, which equals
// nothing.
void randomize(Random& random, const Kop::TypeOps& type, void* value);
inline Kop::GenericValue sample(Random& random, const Kop::TypeOps& type) {
  Kop::GenericValue value(&type);
  randomize(random, type, value.get());
  return value;
}
template <class T>
T sample(Random& random) {
  T value{};
  randomize(random, *allTypes().at(Kop::typeName<T>()), &value);
  return value;
}

// Copies each attribute of a value with an even chance.
void mixIn(Random& random, const Kop::TypeRecord& type, void* to, const void* from);
// Values put together from the attributes of a few: most differ in some only.
template <class T>
std::vector<T> alike(Random& random, U32 count) {
  std::vector<T> few, values;
  for (int i = 0; i < 6; ++i)
    few.push_back(sample<T>(random));
  for (; count > 0; --count) {
    values.push_back(few[random() % 6]);
    for (int i = 0; i < 2; ++i)
      mixIn(random, *Kop::findType(Kop::typeName<T>()), &values.back(),
            &few[random() % 6]);
  }
  return values;
}

}  // namespace Samples
