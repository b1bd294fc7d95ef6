#include "Kop/RbTreeMap.h"
#include "tests/Support/Testing.h"

namespace Kop {
namespace {

using Value = std::pair<U32, std::shared_ptr<int>>;  // the second counts the living ones
using Map = RbTreeMap<String, Value>;

// Catches a tree that loses entries, order or balance; an iterator that passes an entry over,
// or touches a freed one, when its own node is removed; a node lost or released twice.
TEST(RbTreeMapRandom, agreesWithModel) {
  const auto living = std::make_shared<int>();
  for (const U32 keys : {5u, 50u, 2000u}) {
    SCOPED_TRACE(keys);
    std::mt19937 random(2018);
    Map map;
    std::map<String, Value> model;
    Map::Iterator walk = map.iterator();
    for (U32 round = 0; round < keys * 8 + 2000; ++round) {
      const String key(std::to_string(random() % keys));
      const Value value(round, living);
      const U32 what = static_cast<U32>(random() % 100);
      const bool growing = round / keys % 2 == 0;
      if (what < (growing ? 55 : 20)) {
        if (Map::Node* const node = map.find(key))
          node->valueIs(value);
        else
          ASSERT_EQ(map.insert(key, value)->value(), value);
        model[key] = value;
      } else if (what < 75) {
        ASSERT_EQ(map.del(key), model.erase(key) > 0);
      } else if (what < 95 && walk) {
        const auto next = model.upper_bound(walk.key());
        if (what < 85) {
          if (walk->isLinked()) model.erase(walk.key());
          map.del(walk);
        }
        walk.advance();
        ASSERT_TRUE(walk ? walk.key() == next->first && walk->value() == next->second
                         : next == model.end());
      } else if (what < 96) {
        Map copy(map);
        copy.verify();
        ASSERT_TRUE(copy == map);
        if (Map::Node* const node = copy.find(key)) node->valueIs(Value());
        ASSERT_EQ(copy == map, !map.has(key));
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
      ASSERT_EQ(map.empty(), model.empty());
      auto expected = model.begin();
      for (const Map::Node& node : map) {
        ASSERT_TRUE(node.key() == expected->first && node.value() == expected->second);
        ++expected;
      }
    }
    walk = map.iterator();
    map.delAll();
    model.clear();
    EXPECT_EQ(living.use_count(), walk ? 2 : 1);
  }
}

// Catches a key that comes to stand in the map twice.
TEST(RbTreeMapDeathTest, refusesAPresentKey) {
  Map map;
  map.insert("red");
  EXPECT_DEATH(map.insert("red"), R"(RbTreeMap: .*: Assertion "duplicate key" failed)");
}

}  // namespace
}  // namespace Kop
