#pragma once

#include <random>

#include "EntityDump.h"
#include "TestTypes.h"

namespace Sample {

using TreeModel = EntityDump;  // begins as the dump of an empty tree
using Random = std::mt19937;

Place placeOf(U32 number);
Crowd crowdOf(U32 number);

// One random write, made to both. Every zone of a stop that it writes is `serial`, larger
// than all before. With `single`, only writes that are one change.
void randomWrite(
    Random& random, TallTree& tree, TreeModel& model, U32 serial, bool single = false);

}  // namespace Sample
