#include <algorithm>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FailingAllocation.h"
#include "Kop/HSet.h"
#include "Kop/HashMap2018.h"
#include "Kop/HashMap2018NodeInternalKey.h"

namespace Kop {
namespace {

constexpr U32 seed = 20181;

// A key with a hash of the quality that a test wants; counts how often keys are looked at.
template <U32 (*Rule)(U32)>
struct RuledKey {
  U32 number = 0;
  static inline U64 looks = 0;
  U32 hash() const { return Rule(number); }
  bool operator==(const RuledKey& other) const { return ++looks, number == other.number; }
  bool operator<(const RuledKey& other) const { return ++looks, number < other.number; }
};
constexpr U32 inverse = [] {  // of the multiplier that spreads hashes
  U32 x = 1;
  for (int i = 0; i < 5; ++i)
    x *= 2 - 0x9E3779B1u * x;
  return x;
}();
U32 poor(U32 n) {
  return n % 37;
}
U32 constant(U32) {
  return 7;
}
U32 lowest(U32 n) {  // all homes at the start
  return (n % 3) * 2 * inverse;
}
U32 highest(U32 n) {  // all homes at the end, also those words that are reserved
  return (0xfffffff8u + n % 8) * inverse;
}

// A value that counts the living ones, may throw, and is as large as told.
template <std::size_t Size, bool NothrowMove>
struct Guest {
  static inline long living = 0;
  static inline long untilThrow = -1;
  U32 number;
  std::unique_ptr<U32> owned;  // shows a missing or a double destruction to the sanitizer
  char rest[Size] = {};

  Guest(U32 n = 0) : number(step(n)), owned(new U32(n)) { ++living; }
  Guest(const Guest& other) : Guest(other.number) {}
  Guest(Guest&& other) noexcept(NothrowMove)
      : number(other.number), owned(std::move(other.owned)) {
    ++living;
  }
  Guest& operator=(const Guest& other) {
    number = other.number;
    *owned = other.number;
    return *this;
  }
  ~Guest() { --living; }
  bool operator==(const Guest& other) const { return number == other.number; }
  static U32 step(U32 n) {
    if (untilThrow >= 0 && untilThrow-- == 0) throw n;
    return n;
  }
};

template <class K>
K keyOf(U32 i) {
  if constexpr (std::same_as<K, String>)
    return String((i % 3 ? "k" : "a key that is not short ") + std::to_string(i));
  else if constexpr (std::is_integral_v<K>)
    return static_cast<K>(i);
  else
    return K{i};
}
template <class V>
V valueOf(U32 i) {
  if constexpr (std::same_as<V, std::string>)
    return std::string(i % 40, 'x') + std::to_string(i);
  else if constexpr (requires { V().is(U32{}); }) {
    V set;
    for (U32 k = 0; k < i % 5; ++k)
      set.is(i + k);
    return set;
  } else
    return V(i);
}

template <class K, class V>
struct MapOf : HashMap2018<MapNode<K, V>, K> {
  using Value = V;
};
using Kinds = ::testing::Types<MapOf<U64, U64>,
                               MapOf<U16, char>,
                               MapOf<String, std::string>,
                               MapOf<String, Guest<200, true>>,
                               MapOf<U32, Guest<4, false>>,
                               MapOf<U32, HSet<U32>>,
                               MapOf<RuledKey<poor>, U64>,
                               MapOf<RuledKey<constant>, U32>,
                               MapOf<RuledKey<lowest>, Guest<4, true>>,
                               MapOf<RuledKey<highest>, Guest<100, true>>>;

// The plain model: a tree in the promised order.
template <class Map>
struct Model {
  using K = typename Map::Key;
  struct Before {
    bool operator()(const K& a, const K& b) const {
      const U32 x = HashWords::mixed(KeyOps<K>::hash(a)),
                y = HashWords::mixed(KeyOps<K>::hash(b));
      return x != y ? x < y : KeyOps<K>::less(a, b);
    }
  };
  std::map<K, typename Map::Value, Before> entries;

  void expectEqual(const Map& map) const {
    map.verify();
    ASSERT_EQ(map.count(), entries.size());
    auto expected = entries.begin();
    for (const auto& node : map) {
      ASSERT_TRUE(node.key() == expected->first && node.value == expected->second);
      ++expected;
    }
    expected = entries.begin();
    map.forEach([&](const auto& node) { ASSERT_TRUE(node.key() == expected++->first); });
  }
};

template <class Map>
struct HashMap2018Random : ::testing::Test {
  using K = typename Map::Key;
  using V = typename Map::Value;
  std::mt19937 random{seed};
  U32 below(U32 n) { return static_cast<U32>(random() % n); }
};
TYPED_TEST_SUITE(HashMap2018Random, Kinds);

// Catches an entry lost, doubled or out of order after any history; an iterator that meets an
// entry twice or passes one over when the map changes under it.
TYPED_TEST(HashMap2018Random, agreesWithModel) {
  using K = typename TestFixture::K;
  using V = typename TestFixture::V;
  for (const U32 keys : {6u, 60u, 3000u}) {
    SCOPED_TRACE("seed " + std::to_string(seed) + ", keys " + std::to_string(keys));
    TypeParam map;
    Model<TypeParam> model;
    std::vector<typename TypeParam::Iterator> walks;
    const auto insert = [&](U32 i, U32 v) {
      const K key = keyOf<K>(i);
      const auto [node, isNew] = map.insert(key, valueOf<V>(v));
      ASSERT_EQ(isNew, model.entries.emplace(key, valueOf<V>(v)).second);
      ASSERT_TRUE(node->key() == key && node->value == model.entries.at(key));
    };
    const U32 rounds = keys * 12 + 2000;
    for (U32 round = 0; round < rounds; ++round) {
      const U32 i = this->below(keys), what = this->below(100);
      const K key = keyOf<K>(i);
      const bool growing = round / (keys * 2) % 2 == 0;
      if (what < (growing ? 50 : 15)) {
        insert(i, round);
      } else if (what < 65) {
        std::optional<typename TypeParam::Node> out;
        const bool was = model.entries.count(key) != 0;
        if (what % 2) {
          ASSERT_EQ(map.erase(key), was);
        } else {
          ASSERT_EQ(map.erase(key, out), was);
          ASSERT_EQ(out.has_value(), was);
          if (was) {
            ASSERT_TRUE(out->key() == key && out->value == model.entries.at(key));
          }
        }
        model.entries.erase(key);
      } else if (what < 75) {
        const auto* const node = map.find(key);
        const auto it = model.entries.find(key);
        ASSERT_EQ(node != nullptr, it != model.entries.end());
        if (node) {
          ASSERT_TRUE(node->value == it->second);
        }
      } else if (what < 80) {
        const U32 version = map.version();
        if (auto* const node = map.find(key)) {
          node->valueIs(valueOf<V>(round));
          model.entries.at(key) = valueOf<V>(round);
        }
        ASSERT_EQ(map.version(), version);  // the entry keeps its place
      } else if (what < 95) {
        if (walks.size() < 5) walks.push_back(map.iterator());
        const std::size_t w = this->below(static_cast<U32>(walks.size()));
        auto& walk = walks[w];
        if (!walk) {
          walks.erase(walks.begin() + static_cast<long>(w));
          continue;
        }
        const auto here = model.entries.find(walk.key());
        const auto* const node = walk.currNodeMaybeStale();
        ASSERT_EQ(node != nullptr, here != model.entries.end());
        if (node) {
          ASSERT_TRUE(node->value == here->second);
        }
        const auto next = model.entries.upper_bound(walk.key());
        if (what % 2) {  // the current entry goes, by a key that is its own
          map.erase(node ? node->key() : walk.key());
          if (node) model.entries.erase(here);
        }
        walk.advance();
        ASSERT_EQ(bool(walk), next != model.entries.end());
        if (walk) {
          ASSERT_TRUE(walk.key() == next->first);
        }
      } else if (what < 97) {
        auto it = map.iteratorConstFrom(key);
        const auto from = model.entries.lower_bound(key);
        ASSERT_EQ(bool(it), from != model.entries.end());
        if (it) {
          ASSERT_TRUE(it.key() == from->first);
        }
      } else if (what == 97) {
        map.reserve(this->below(keys));
      } else if (round % 7 == 0) {
        TypeParam copy(map), other;
        other = copy;
        ASSERT_TRUE(other == map);
        copy.clear();
        ASSERT_EQ(copy == map, map.empty());
        map = std::move(other);
        ASSERT_EQ(other.count(), 0u);
        map = *&map;
      } else if (round % 31 == 0) {
        map.clear();
        model.entries.clear();
      }
      if (round % (keys / 16 + 1) == 0) model.expectEqual(map);
      if (this->HasFatalFailure()) return;
    }
    model.expectEqual(map);
  }
}

// Catches an order that depends on how a map came about: two equal sets would then differ as
// values, and a resynchronisation could not go on where it stopped.
TYPED_TEST(HashMap2018Random, orderIsOfContentsAlone) {
  using K = typename TestFixture::K;
  using V = typename TestFixture::V;
  std::vector<U32> numbers(4000);
  for (U32 i = 0; i < numbers.size(); ++i)
    numbers[i] = i;
  const auto fill = [&](TypeParam& map) {
    for (const U32 i : numbers)
      map.insert(keyOf<K>(i), valueOf<V>(i));
  };
  TypeParam first;
  fill(first);
  struct Way {
    const char* name;
    bool reserved, walkOrder, reversed;
  };
  for (const Way& way : {
           Way{"shuffled",                      false, false, false},
           Way{"shuffled, reserved",            true,  false, false},
           Way{"walk order",                    false, true,  false},
           Way{"walk order, reserved in steps", true,  true,  false},
           Way{"backwards",                     false, true,  true }
  }) {
    SCOPED_TRACE(way.name);
    TypeParam map;
    if (way.walkOrder) {
      std::vector<const typename TypeParam::Node*> nodes;
      for (const auto& node : first)
        nodes.push_back(&node);
      if (way.reversed) std::reverse(nodes.begin(), nodes.end());
      U32 reserved = 10;
      for (const auto* const node : nodes) {
        if (way.reserved && map.count() == reserved) map.reserve(reserved *= 4);
        map.insert(node->key(), node->value);
        if (map.count() % 500 == 0) map.verify();
      }
    } else {
      std::shuffle(numbers.begin(), numbers.end(), this->random);
      if (way.reserved) map.reserve(static_cast<U32>(numbers.size()));
      for (U32 i = 5000; i < 5500; ++i)
        map.insert(keyOf<K>(i), valueOf<V>(i));
      fill(map);
      for (U32 i = 5000; i < 5500; ++i)
        map.erase(keyOf<K>(i));
    }
    map.verify();
    EXPECT_TRUE(map == first);
    auto it = map.begin();
    for (const auto& node : first) {
      ASSERT_TRUE(it.key() == node.key());
      ++it;
    }
    // What a way costs in memory: the piles at one end need slots, but no multiples.
    EXPECT_LE(map.memory(), first.memory() * 3);
  }
}

// Catches entries of some size that growth moves in part: there is a loop of its own for each
// of the common sizes.
template <U32 size>
void growBy() {
  struct Bytes {
    U8 bytes[size - 4];
    explicit Bytes(U32 n) { std::fill_n(bytes, sizeof bytes, static_cast<U8>(n)); }
  };
  using Map = HashMap2018<MapNode<U32, Bytes>, U32>;
  static_assert(sizeof(typename Map::Node) == size);
  Map map;
  for (U32 i = 0; i < 500; ++i)
    map.insert(i, i);
  const Map copy(map);
  for (const Map* const each : {static_cast<const Map*>(&map), &copy}) {
    each->verify();
    for (const auto& node : *each)
      for (const U8 byte : node.value.bytes)
        ASSERT_EQ(byte, static_cast<U8>(node.key()));
  }
}
TEST(HashMap2018Sizes, moveWhole) {
  [&]<U32... size>(std::integer_sequence<U32, size...>) {
    (growBy<size>(), ...);
  }
  (std::integer_sequence<U32, 8, 12, 16, 24, 32, 40, 48, 56, 64, 68>());
}

// Catches a batch that mixes up its keys, at every size around that of a group.
TYPED_TEST(HashMap2018Random, batchesAgreeWithSingles) {
  using K = typename TestFixture::K;
  using V = typename TestFixture::V;
  TypeParam map;
  for (U32 from = 0, n = 1; n < 40; from += n - 1, ++n) {  // the last of each comes twice
    std::vector<K> keys;
    std::vector<V> values;
    for (U32 i = 0; i < n; ++i) {
      keys.push_back(keyOf<K>(from + i));
      values.push_back(valueOf<V>(from + i));
    }
    U32 called = 0;
    map.insertBatch(keys.data(), values.data(), n, [&](U32 i, auto& node, bool isNew) {
      EXPECT_EQ(i, called++);
      EXPECT_TRUE(node.key() == keys[i] && node.value == values[i]);
      EXPECT_EQ(isNew, n == 1 || i > 0);
    });
    EXPECT_EQ(called, n);
    keys.push_back(keyOf<K>(60000));
    std::vector<typename TypeParam::Node*> found(n + 1);
    map.findBatch(keys.data(), n + 1, found.data());
    for (U32 i = 0; i <= n; ++i)
      EXPECT_EQ(found[i], map.find(keys[i]));
    EXPECT_EQ(found[n], nullptr);
  }
  map.verify();
}

// Catches a look-up that goes through all keys of one hash, and a table that grows without
// end because all of them want the same place.
template <class Map>
void collide() {
  constexpr U32 count = 20000;
  Map map;
  for (U32 i = 0; i < count; ++i)
    map.insert({i * 7919 % count}, i);
  map.verify();
  ASSERT_EQ(map.count(), count);
  EXPECT_LE(map.memory(), count * 64u);
  using K = typename Map::Key;
  K::looks = 0;
  for (U32 i = 0; i < count; ++i)
    ASSERT_EQ(map.find({i * 7919 % count})->value, i);
  EXPECT_LE(K::looks / count, 80u);
  for (U32 i = 0; i < count; ++i)
    if (i % 50) map.erase({i});
  K::looks = 0;
  for (U32 i = 0; i < count; ++i)
    ASSERT_EQ(map.has({i}), i % 50 == 0);
  EXPECT_LE(K::looks / count, 80u);
  map.verify();
}
TEST(HashMap2018Collisions, areFoundBySearch) {
  collide<MapOf<RuledKey<constant>, U32>>();
  collide<MapOf<RuledKey<poor>, U32>>();
  collide<MapOf<RuledKey<lowest>, U32>>();
  collide<MapOf<RuledKey<highest>, U32>>();
}

// Catches a map that is filled in walk order and becomes one run, into which every insert at
// another place moves thousands of entries.
struct Mover {
  static inline U64 moves = 0;
  Mover() = default;
  Mover(const Mover&) = default;
  Mover(Mover&&) noexcept { ++moves; }
};
TEST(HashMap2018WalkOrder, leavesRoomForOthers) {
  HashMap2018<MapNode<U64, Mover>, U64> whole;
  constexpr U32 count = 40000;
  for (U64 i = 0; i < count; ++i)
    whole.insert(i);
  struct Row {
    const char* text;
    U32 percent;
    bool reserves;
    U64 movesOfFill, movesOfOther;  // per insert
  };
  for (const Row& row : {
           Row{"a quarter",                    25,  false, 10, 60},
           Row{"half",                         50,  false, 10, 60},
           Row{"all",                          100, false, 10, 60},
           Row{"a quarter, reserved in steps", 25,  true,  10, 60},
           Row{"half, reserved in steps",      50,  true,  10, 60}
  }) {
    SCOPED_TRACE(row.text);
    HashMap2018<MapNode<U64, Mover>, U64> map;
    const U32 filled = count / 100 * row.percent;
    U32 reserved = 100;
    Mover::moves = 0;
    for (const auto& node : whole) {
      if (map.count() == filled) break;
      if (row.reserves && map.count() == reserved)
        map.reserve(reserved = std::min(reserved * 4, count));
      map.insert(node.key());
    }
    EXPECT_LE(Mover::moves / filled, row.movesOfFill);
    map.verify();
    Mover::moves = 0;
    for (U64 i = 0; i < filled / 4; ++i)
      map.insert(i + count);
    EXPECT_LE(Mover::moves / (filled / 4), row.movesOfOther);
    map.verify();
  }
}

// Catches a change that has half happened when a node's constructor or an allocation throws,
// and nodes or memory lost on that way.
template <class V>
void failEachStep() {
  using Map = HashMap2018<MapNode<U64, V>, U64>;
  {
    Map map, before;
    const auto tried = [&](long& countdown, long steps, auto&& change) {
      for (long step = 0; step < steps; ++step) {
        bool threw = true;
        countdown = step;
        try {
          change();
          threw = false;
        } catch (const std::bad_alloc&) {
        } catch (const U32&) {
        }
        countdown = -1;
        map.verify();
        if (!threw) return step;
        EXPECT_TRUE(map == before);
      }
      return steps;
    };
    for (U64 i = 0; i < 600; ++i) {
      for (long* const countdown : {&V::untilThrow, &allocationsUntilFailure}) {
        const long steps = tried(*countdown, 20, [&] { map.insert(i, 1u); });
        EXPECT_LT(steps, 20);
        if (i % 8) break;
        if (countdown == &V::untilThrow) map.erase(i);
      }
      before.insert(i, 1u);
    }
    for (long* const countdown : {&V::untilThrow, &allocationsUntilFailure}) {
      Map other(before), copied;
      other.erase(U64{17});
      // A copy that fails leaves the target as it was; the one that succeeds is whole.
      long step = 0;
      for (;; ++step) {
        *countdown = step;
        try {
          copied = other;
        } catch (...) {
          *countdown = -1;
          ASSERT_TRUE(copied.empty());
          copied.verify();
          continue;
        }
        break;
      }
      *countdown = -1;
      EXPECT_GT(step, 500);
      EXPECT_TRUE(copied == other);
    }
    tried(allocationsUntilFailure, 20, [&] { map.reserve(5000); });
    EXPECT_TRUE(map == before);
  }
  EXPECT_EQ(V::living, 0);
}
TEST(HashMap2018Failures, leaveTheMapAsItWas) {
  if (!OPERATOR_NEW_IS_REPLACED) GTEST_SKIP() << "operators new cannot be replaced here";
  failEachStep<Guest<4, true>>();
  failEachStep<Guest<4, false>>();
  failEachStep<Guest<200, true>>();
}

// Catches a map that reads an argument after moving what the argument refers to, and one
// that is half changed while the destructor of a node looks into it.
struct Visitor {
  using Map = HashMap2018<MapNode<U32, std::shared_ptr<Visitor>>, U32>;
  Map* map;
  U32 number;
  Visitor(Map* m, U32 n) : map(m), number(n) {}
  ~Visitor() {
    map->verify();
    EXPECT_EQ(map->find(number), nullptr);
    map->insert(number + 1000);
  }
};
TEST(HashMap2018Arguments, mayReferIntoTheMap) {
  HashMap2018<MapNode<String, String>, String> map;
  map.insert("first", "a text that is surely not held inline");
  for (U32 i = 0; i < 2000; ++i)
    map.insert(String(std::to_string(i)), map.find("first")->value);
  for (U32 i = 0; i < 2000; ++i)
    ASSERT_EQ(map.find(String(std::to_string(i)))->value, map.find("first")->value);
  while (!map.empty())
    map.erase(map.begin()->key());
  map.verify();

  Visitor::Map visited;
  for (U32 i = 0; i < 100; ++i)
    visited.insert(i, std::make_shared<Visitor>(&visited, i));
  for (U32 i = 0; i < 50; ++i)
    visited.erase(i);
  EXPECT_EQ(visited.count(), 100u);
  visited.clear();
  EXPECT_EQ(visited.count(), 50u);
  visited.verify();
}

// Catches a walk that goes on over a map that has changed.
using Numbers = MapOf<U32, U32>;
Numbers tenNumbers() {
  Numbers map;
  for (U32 i = 0; i < 10; ++i)
    map.insert(i, i);
  return map;
}
TEST(HashMap2018DeathTest, guardedIteratorSeesChange) {
  struct Row {
    const char* text;
    void (*change)(Numbers& map);
  };
  const Row rows[] = {
      {"insert",  [](Numbers& map) { map.insert(10u, 1u); }          },
      {"erase",   [](Numbers& map) { map.erase(map.begin()->key()); }},
      {"clear",   [](Numbers& map) { map.clear(); }                  },
      {"assign",  [](Numbers& map) { map = tenNumbers(); }           },
      {"reserve", [](Numbers& map) { map.reserve(1000); }            }
  };
  const char* const text =
      R"x(HashMap2018: .*: Assertion "version_ == hashMap_->version\(\)" failed)x";
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    Numbers map = tenNumbers();
    EXPECT_DEATH(
        {
          for (const auto& node : map)
            if (node.value < 10) row.change(map);
        },
        text);
    EXPECT_DEATH(map.forEach([&](const auto&) { row.change(map); }), text);
    auto it = map.iteratorConst();
    for (U32 i = 0; i < 9; ++i)
      it.advance();  // to the last: the step to the end is guarded, too
    row.change(map);
    EXPECT_DEATH(it.advance(), text);
  }
  Numbers map = tenNumbers();
  for (const auto& node : map)
    map.find(node.key())->valueIs(5u);  // no change of the map
}

// Catches a value that is stored under a key it does not have.
struct Named {
  String name;
  U32 number = 0;
  bool operator==(const Named&) const = default;
};
struct NameOf {
  const String& operator()(const Named& value) const { return value.name; }
};
TEST(HashMap2018DeathTest, internalKeyStays) {
  HashMap2018<HashMap2018NodeInternalKey<String, Named, NameOf>, String> map;
  const auto [node, isNew] = map.insert("red", Named{"red", 1});
  EXPECT_TRUE(isNew);
  node->valueIs(Named{"red", 2});
  EXPECT_EQ(map.find("red")->value.number, 2u);
  EXPECT_TRUE(map == decltype(map)(map));
  const char* const text =
      R"x(HashMap2018NodeInternalKey: .*"fwkKey\(\) == KeyFunktor\(\)\( _value \)")x";
  EXPECT_DEATH(node->valueIs(Named{"blue", 2}), text);
  EXPECT_DEATH(map.insert("green", Named{"blue", 2}), text);
}

// Catches untyped access that differs from the typed one.
TEST(HashMap2018Untyped, actsOnTheSameMap) {
  MapOf<String, std::string> map;
  HashMap2018Generic& generic = map;
  using Node = MapOf<String, std::string>::Node;
  for (U32 i = 0; i < 100; ++i) {
    const String key = keyOf<String>(i);
    const auto [node, isNew] = generic.newMemberG(&key, key.hash());
    ASSERT_TRUE(isNew);
    static_cast<Node*>(node)->value = std::to_string(i);
    EXPECT_EQ(map.find(key), node);
    EXPECT_EQ(generic.newMemberG(&key, key.hash()), std::pair(node, false));
    EXPECT_EQ(generic.lookupNodeG(&key, key.hash()), node);
    EXPECT_TRUE(generic.table().keyEqual(node, &key));
  }
  auto expected = map.begin();
  for (HashMap2018UnsafeIteratorConstGeneric it(generic); it; it.advance(), ++expected)
    EXPECT_EQ(it.nodeG(), &*expected);
  U32 met = 0;
  for (HashMap2018IteratorGeneric it(generic); it; it.advance(), ++met) {
    const String key = *static_cast<const String*>(it.keyG());
    const Node copy = *static_cast<Node*>(it.currNodeMaybeStale());
    alignas(Node) char removed[sizeof(Node)];
    ASSERT_TRUE(generic.deleteMemberG(&key, key.hash(), removed));
    Node* const out = std::launder(reinterpret_cast<Node*>(removed));
    EXPECT_TRUE(*out == copy);
    out->~Node();
    EXPECT_EQ(it.currNodeMaybeStale(), nullptr);
    EXPECT_FALSE(generic.deleteMemberG(&key, key.hash(), nullptr));
    map.verify();
  }
  EXPECT_EQ(met, 100u);
  EXPECT_TRUE(map.empty());
}

// Catches answers that are turned round, and an empty set that holds memory: entities have
// many of them.
TEST(HSetAnswers, tellWhatChanged) {
  HSet<String> set;
  EXPECT_LE(sizeof set, 40u);
  EXPECT_TRUE(set.is("b") && set.is("a") && !set.is("a"));
  EXPECT_TRUE(set.del("a") && !set.del("a") && set.has("b"));
  EXPECT_EQ(set.begin()->key(), "b");
  set.clear();
  EXPECT_EQ(set.memory(), 0u);
}

}  // namespace
}  // namespace Kop
