#include <map>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "Kop/RbTreeMap.h"

namespace Kop {
namespace {

constexpr U32 seed = 2018;

// Counts the living ones, so that a node lost or released twice shows.
struct Value {
  static inline long living = 0;
  U32 number;
  Value(U32 n) : number(n) { ++living; }
  Value(const Value& other) : number(other.number) { ++living; }
  ~Value() { --living; }
  Value& operator=(const Value&) = default;
  bool operator==(const Value&) const = default;
};
using Map = RbTreeMap<String, Value>;

String keyOf(U32 i) {
  return String(std::to_string(i));
}

// Catches a tree that loses entries, order or balance; an iterator that passes an entry over,
// or touches a freed one, when its own node is removed.
TEST(RbTreeMapRandom, agreesWithModel) {
  for (const U32 keys : {5u, 50u, 2000u}) {
    SCOPED_TRACE("seed " + std::to_string(seed) + ", keys " + std::to_string(keys));
    std::mt19937 random(seed);
    Map map;
    std::map<String, U32> model;
    Map::Iterator walk = map.iterator();
    for (U32 round = 0; round < keys * 8 + 2000; ++round) {
      const String key = keyOf(static_cast<U32>(random() % keys));
      const U32 what = static_cast<U32>(random() % 100);
      const bool growing = round / keys % 2 == 0;
      if (what < (growing ? 55 : 20)) {
        if (Map::Node* const node = map.find(key))
          node->valueIs(Value(round));
        else
          ASSERT_EQ(map.insert(key, round)->value().number, round);
        model[key] = round;
      } else if (what < 75) {
        ASSERT_EQ(map.del(key), model.erase(key) > 0);
      } else if (what < 95) {
        if (!walk) {
          walk = map.iterator();
          continue;
        }
        const auto next = model.upper_bound(walk.key());
        if (what < 85) {
          if (walk->isLinked()) model.erase(walk.key());
          map.del(walk);
        }
        walk.advance();
        ASSERT_EQ(bool(walk), next != model.end());
        if (walk) {
          ASSERT_TRUE(walk.key() == next->first && walk->value().number == next->second);
        }
      } else if (what == 95) {
        Map copy(map);
        copy.verify();
        ASSERT_TRUE(copy == map);
        if (const Map::Node* const node = map.find(key)) {
          copy.find(key)->valueIs(Value(round + 1));
          ASSERT_FALSE(copy == map);
          copy.del(key);
          ASSERT_FALSE(copy == map);
          ASSERT_EQ(node->value().number, model.at(key));
        }
        copy = map;
        walk = copy.iterator();
        copy = Map();  // the walk stands at a node that only it holds
        walk = map.iterator();
        copy = *&copy;
      } else if (what == 96 && round % 16 == 0) {
        map.delAll();
        model.clear();
      }
      if (round % (keys / 16 + 1) != 0) continue;
      map.verify();
      ASSERT_EQ(map.count(), model.size());
      auto expected = model.begin();
      for (const Map::Node& node : map) {
        ASSERT_TRUE(node.key() == expected->first &&
                    node.value().number == expected->second);
        ++expected;
      }
    }
    Ptr<Map::Node> kept;
    if (!map.empty()) kept = Ptr<Map::Node>(map.find(map.begin().key()));
    walk = map.iterator();
    map.delAll();
    EXPECT_EQ(Value::living, kept ? 1 : 0);
  }
  EXPECT_EQ(Value::living, 0);
}

// Catches a key that comes to stand in the map twice.
TEST(RbTreeMapDeathTest, refusesAPresentKey) {
  Map map;
  map.insert("red", 1u);
  EXPECT_DEATH(map.insert("red", 3u),
               R"(RbTreeMap: .*: Assertion "duplicate key" failed)");
}

}  // namespace
}  // namespace Kop
