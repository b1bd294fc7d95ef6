#pragma once

#include <random>

#include "EntityDump.h"
#include "Kop/GenericIfImpl.h"
#include "TestTypes.h"

namespace Sample {

using TreeModel = EntityDump;  // begins as the dump of an empty tree
using Random = std::mt19937;

// A value of any type, made of a number by reflection: other numbers below 800, other values,
// except of an enumeration of one byte, which has three.
Kop::GenericValue valueOf(const Kop::TypeOps& type, U32 number);
template <class T>
T valueOf(U32 number) {
  return *static_cast<const T*>(valueOf(Kop::TypeOpsOf<T>::ops, number).get());
}

// One random write below an entity, made by reflection and to the model, in which the entity
// stands at `path`. Values are of `serial`, keys of a few numbers. With `single`, only writes
// that are one change. Sets the model when the write has succeeded.
void randomWrite(Random& random,
                 Kop::Entity& entity,
                 TreeModel& model,
                 U32 serial,
                 bool single = false,
                 std::string path = "");

}  // namespace Sample
