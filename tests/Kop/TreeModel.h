#pragma once

#include <map>
#include <random>
#include <set>
#include <string>

#include "TestTypes.h"

// What a TallTree holds, in plain containers: the replicas of the tests are compared by this
// and not by the system's own equality.

namespace Sample {

struct LeafModel {
  U32 size = 7;
  std::map<U16, bool> spots;
  bool operator==(const LeafModel&) const = default;
};
struct BranchModel {
  std::string label;
  std::map<std::string, LeafModel> leaves;
  bool operator==(const BranchModel&) const = default;
};
struct TreeModel {
  std::set<U32> marks;
  std::map<std::string, bool> flags;
  std::map<std::pair<U64, int>, std::string> places;
  std::map<std::string, U32> stops;
  std::map<std::string, BranchModel> branches;
  std::map<int, U16> slots;
  U32 colour = 1, level = 0, height = 100;
  float ratio = 0.5f;
  std::map<U16, std::set<std::string>> crowds;
  bool operator==(const TreeModel&) const = default;
};

TreeModel modelOf(const TallTree& tree);
Place placeOf(U32 number);
Crowd crowdOf(U32 number);

using Random = std::mt19937;

// One random write, made to both. Every zone of a stop that it writes is `serial`, larger
// than all before. With `single`, only writes that are one change.
void randomWrite(
    Random& random, TallTree& tree, TreeModel& model, U32 serial, bool single = false);

}  // namespace Sample
