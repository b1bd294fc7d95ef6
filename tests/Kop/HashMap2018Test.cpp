#include <new>

#include "FailingAllocation.h"
#include "Kop/HashMap2018.h"
#include "Kop/HashMap2018NodeInternalKey.h"
#include "tests/Support/Testing.h"

namespace Kop {
namespace {

constexpr U32 inverse = 0xe8b2f51;  // of the multiplier that spreads hashes
static_assert(inverse * 0x9E3779B1u == 1);

// A key with a hash of the quality that a test wants; counts how often keys are looked at.
struct RuledKey {
  using Rule = U32 (*)(U32);
  static inline Rule rule = nullptr;
  static inline U64 looks = 0;
  U32 number = 0;
  U32 hash() const { return rule(number); }
  bool operator==(const RuledKey& other) const { return ++looks, number == other.number; }
  bool operator<(const RuledKey& other) const { return ++looks, number < other.number; }
};
constexpr RuledKey::Rule rules[] = {
    [](U32 n) { return n * 77; },
    [](U32 n) { return n % 37; },
    [](U32) { return 7u; },
    [](U32 n) { return n % 3 * 2 * inverse; },  // all homes at the start
    [](U32 n) {
      return (0xfffffff8u + n % 8) * inverse;
    },  // at the end, reserved words too
};

// A value that counts the living ones and is as large as told. Its number is allocated: so a
// constructor may throw, and the sanitizer sees a missing or a double destruction.
template <std::size_t Size, bool NothrowMove>
struct Guest {
  static inline long living = 0;
  std::unique_ptr<U32> number;
  char rest[Size] = {};

  Guest(U32 n = 0) : number(new U32(n)) { ++living; }
  Guest(const Guest& other) : Guest(*other.number) {}
  Guest(Guest&& other) noexcept(NothrowMove) : number(std::move(other.number)) {
    ++living;
  }
  Guest& operator=(const Guest& other) {
    *number = *other.number;
    return *this;
  }
  ~Guest() { --living; }
  bool operator==(const Guest& other) const { return *number == *other.number; }
};

template <class T>
T made(U32 i) {
  if constexpr (std::same_as<T, String>)
    return String(std::string(i % 3 ? 0 : 20, 'x') + std::to_string(i));
  else
    return T{i};
}

template <class K, class V>
struct MapOf : HashMap2018<MapNode<K, V>, K> {
  using Value = V;
};
// Of each way that nodes are kept: as bytes, as bytes that own something, moved one by
// one, and in a pool.
using Kinds = ::testing::Types<MapOf<U64, U64>,
                               MapOf<U64, std::array<U64, 4>>,
                               MapOf<String, String>,
                               MapOf<RuledKey, Guest<4, true>>,
                               MapOf<RuledKey, Guest<100, true>>>;

// A map beside its plain model: a tree in the promised order.
template <class Map>
struct HashMap2018Random : ::testing::Test {
  using K = typename Map::Key;
  using V = typename Map::Value;
  struct Before {
    bool operator()(const K& a, const K& b) const {
      const U32 x = HashWords::mixed(KeyOps<K>::hash(a)),
                y = HashWords::mixed(KeyOps<K>::hash(b));
      return x != y ? x < y : KeyOps<K>::less(a, b);
    }
  };
  Map map;
  std::map<K, V, Before> model;
  std::vector<typename Map::Iterator> walks;
  std::mt19937 random{20181};

  U32 below(U32 n) { return static_cast<U32>(random() % n); }
  void expectEqual() const {
    map.verify();
    ASSERT_EQ(map.count(), model.size());
    ASSERT_GE(map.memory(), map.count() * sizeof(*map.begin()));
    auto expected = model.begin();
    for (const auto& node : map) {
      ASSERT_TRUE(node.key() == expected->first && node.value == expected->second);
      ++expected;
    }
    expected = model.begin();
    map.forEach([&](const auto& node) { ASSERT_TRUE(node.key() == expected++->first); });
  }
  // As the untyped layer has it.
  void expectEqualG() {
    auto expected = model.begin();
    for (HashMap2018IteratorGeneric it(map); it; it.advance()) {
      const K key = *static_cast<const K*>(it.keyG());
      ASSERT_TRUE(key == expected++->first);
      const U32 hash = map.hashOfKey(key);
      void* const node = it.currNodeMaybeStale();
      ASSERT_TRUE(node == map.find(key) && node == map.lookupNodeG(&key, hash));
      ASSERT_TRUE(map.table().keyEqual(node, &key));
      if (below(8) != 0) continue;
      const V value = map.find(key)->value;
      ASSERT_TRUE(map.deleteMemberG(&key, hash, nullptr));
      ASSERT_FALSE(map.deleteMemberG(&key, hash, nullptr));
      ASSERT_EQ(it.currNodeMaybeStale(), nullptr);
      const auto [again, isNew] = map.newMemberG(&key, hash);
      ASSERT_TRUE(isNew && map.newMemberG(&key, hash) == std::pair(again, false));
      map.find(key)->valueIs(value);
    }
    ASSERT_TRUE(expected == model.end());
  }
  void insert(const K& key, U32 round) {
    const auto it = model.find(key);
    const auto [node, isNew] = map.insert(key, made<V>(round));
    ASSERT_EQ(isNew, it == model.end());
    ASSERT_EQ(map.find(key), node);
    ASSERT_TRUE(node->key() == key &&
                node->value == (isNew ? made<V>(round) : it->second));
    const U32 version = map.version();
    node->valueIs(made<V>(round + 1));
    model.insert_or_assign(key, made<V>(round + 1));
    ASSERT_EQ(map.version(), version);  // the entry keeps its place
  }
  void erase(const K& key, bool takesNode) {
    std::optional<typename Map::Node> out;
    const auto it = model.find(key);
    const bool was = it != model.end();
    ASSERT_EQ(takesNode ? map.erase(key, out) : map.erase(key), was);
    ASSERT_EQ(out.has_value(), was && takesNode);
    if (out) {
      ASSERT_TRUE(out->key() == key && out->value == it->second);
    }
    if (was) model.erase(it);
  }
  void insertBatch(U32 keys, U32 serial) {
    std::vector<K> batch;
    std::vector<V> values;
    U32 n = below(40), called = 0;
    for (U32 i = 0; i <= n; ++i) {
      batch.push_back(made<K>(i < n ? below(keys) : keys));
      values.push_back(made<V>(serial + i));
    }
    map.insertBatch(batch.data(), values.data(), n, [&](U32 i, auto& node, bool isNew) {
      ASSERT_EQ(i, called++);
      ASSERT_EQ(isNew, model.emplace(batch[i], values[i]).second);
      ASSERT_TRUE(node.key() == batch[i] && node.value == model.at(batch[i]));
    });
    ASSERT_EQ(called, n);
    std::vector<typename Map::Node*> found(n + 1);
    map.findBatch(batch.data(), n + 1, found.data());
    for (U32 i = 0; i <= n; ++i)
      ASSERT_EQ(found[i], map.find(batch[i]));
  }
  // One step of one walk, for which the current entry may go, by a key that is its own.
  void walk(const K& key, bool erases) {
    if (walks.size() < 5) {
      walks.push_back(below(2) ? map.iterator() : map.iteratorFrom(key));
      const auto from = map.iteratorConstFrom(key);
      const auto wanted = model.lower_bound(key);
      ASSERT_TRUE(from ? from.key() == wanted->first : wanted == model.end());
    }
    const auto at = walks.begin() + below(static_cast<U32>(walks.size()));
    if (!*at) {
      walks.erase(at);
      return;
    }
    const auto here = model.find(at->key()), next = model.upper_bound(at->key());
    const auto* const node = at->currNodeMaybeStale();
    ASSERT_EQ(node != nullptr, here != model.end());
    if (node) {
      ASSERT_TRUE(node->value == here->second);
      if (erases) map.erase(node->key()), model.erase(here);
    }
    at->advance();
    ASSERT_TRUE(*at ? at->key() == next->first : next == model.end());
  }
  // Whatever way the contents came about, equal maps are equal and walk alike.
  void copies() {
    Map copy(map), other, backwards;
    for (auto it = model.rbegin(); it != model.rend(); ++it)
      backwards.insert(it->first, it->second);
    backwards.verify();
    other = copy;
    ASSERT_TRUE(other == map && backwards == map);
    copy.clear();
    ASSERT_EQ(copy == map, map.empty());
    map = std::move(below(2) ? other : backwards);
    ASSERT_EQ(other.count() * backwards.count(), 0u);
    map = *&map;
  }
  void step(U32 keys, U32 round) {
    const U32 what = below(100);
    const K key = made<K>(below(keys));
    const bool growing = round / (keys * 2) % 2 == 0;
    if (what < (growing ? 60 : 25))
      insert(key, round);
    else if (what < 75)
      erase(key, what % 2);
    else if (what < 95)
      walk(key, what % 2);
    else if (what < 98)
      map.reserve(below(keys));
    else if (round % 7 == 0)
      copies();
    else if (round % 31 == 0)
      map.clear(), model.clear();
    else if (round % 3 == 0)
      insertBatch(keys, round);
    else if (round % 5 == 0)
      expectEqualG();
  }
};
TYPED_TEST_SUITE(HashMap2018Random, Kinds);

// Catches an entry lost, doubled or out of order after any history; an iterator that meets an
// entry twice or passes one over when the map changes under it; a batch that mixes up its
// keys.
TYPED_TEST(HashMap2018Random, agreesWithModel) {
  for (const auto rule : rules) {
    RuledKey::rule = rule;
    for (const U32 keys : {6u, 60u, 1500u}) {
      SCOPED_TRACE(::testing::Message() << "rule " << &rule - rules << ", keys " << keys);
      this->walks.clear();
      this->map.clear();
      this->model.clear();
      for (U32 round = 0; round < keys * 12 + 2000; round += Support::stride) {
        this->step(keys, round);
        if (round % (keys / 16 + 1) == 0) this->expectEqual();
        if (this->HasFatalFailure()) return;
      }
      this->expectEqual();
    }
    if (!std::same_as<typename TypeParam::Key, RuledKey>) break;
  }
}

// Catches a look-up that goes through all keys of one hash, and a table that grows without
// end because all of them want the same place.
TEST(HashMap2018Collisions, areFoundBySearch) {
  constexpr U32 count = 20000;
  for (const auto rule : rules) {
    SCOPED_TRACE(&rule - rules);
    RuledKey::rule = rule;
    MapOf<RuledKey, U32> map;
    for (U32 i = 0; i < count; ++i)
      map.insert({i * 7919 % count}, i);
    EXPECT_LE(map.memory(), count * (sizeof(*map.begin()) + 4) * 4u);
    for (const U32 kept : {1, 50}) {
      for (U32 i = 0; i < count; ++i)
        if (i % kept) map.erase({i});
      RuledKey::looks = 0;
      for (U32 i = 0; i < count; ++i)
        ASSERT_EQ(map.has({i}), i % kept == 0);
      EXPECT_LE(RuledKey::looks / count, 80u);
    }
    map.verify();
  }
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
  using Map = HashMap2018<MapNode<U64, Mover>, U64>;
  Map whole;
  constexpr U32 count = 40000;
  for (U64 i = 0; i < count; ++i)
    whole.insert(i);
  for (const bool reserves : {false, true}) {
    SCOPED_TRACE(reserves);
    Map map;
    U32 reserved = 100;
    Mover::moves = 0;
    for (const auto& node : whole) {
      if (reserves && map.count() == reserved)
        map.reserve(reserved = std::min(reserved * 4, count));
      map.insert(node.key());
    }
    EXPECT_LE(Mover::moves / count, 10u);
    Mover::moves = 0;
    for (U64 i = 0; i < count / 4; ++i)
      map.insert(i + count);
    EXPECT_LE(Mover::moves / (count / 4), 60u);
    map.verify();
    EXPECT_LE(map.memory(), whole.memory() * 3);
  }
}

// Lets allocation after allocation of a change fail until it succeeds; after each the map must
// be as it was before. Returns how many failed.
template <class Change, class Check>
long failures(Change&& change, Check&& check) {
  for (long step = 0;; ++step) {
    allocationsUntilFailure = step;
    try {
      change();
      allocationsUntilFailure = -1;
      return step;
    } catch (const std::bad_alloc&) {
      allocationsUntilFailure = -1;
      check();
    }
  }
}

// Catches a change that has half happened when a node's constructor or another allocation
// throws, and nodes or memory lost on that way.
template <class V>
void failEachStep() {
  {
    MapOf<U64, V> map, before, copied;
    const auto unchanged = [&] {
      map.verify();
      EXPECT_TRUE(map == before);
    };
    for (U64 i = 0; i < 600; ++i) {
      const long failed = failures([&] { map.insert(i, 1u); }, unchanged);
      EXPECT_TRUE(failed > 0 && failed < 20) << failed;
      before.insert(i, 1u);
    }
    EXPECT_GT(failures([&] { copied = before; }, [&] { ASSERT_TRUE(copied.empty()); }),
              500);
    EXPECT_TRUE(copied == before);
    EXPECT_GT(failures([&] { map.reserve(5000); }, unchanged), 0);
  }
  EXPECT_EQ(V::living, 0);
}
TEST(HashMap2018Failures, leaveTheMapAsItWas) {
  if (!OPERATOR_NEW_IS_REPLACED) GTEST_SKIP() << "operators new cannot be replaced here";
  failEachStep<Guest<4, true>>();
  failEachStep<Guest<4, false>>();  // in a pool, because its moves may throw
  failEachStep<Guest<100, true>>();
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
  MapOf<String, String> map;
  map.insert("first", "a text that is surely not held inline");
  for (U32 i = 0; i < 2000; ++i)
    map.insert(made<String>(i), map.find("first")->value);
  for (const auto& node : map)
    ASSERT_EQ(node.value, "a text that is surely not held inline");
  while (!map.empty())
    map.erase(map.begin()->key());
  map.verify();

  Visitor::Map visited;
  for (U32 i = 0; i < 100; ++i)
    visited.insert(i, std::make_shared<Visitor>(&visited, i));
  for (U32 i = 0; i < 50; ++i)
    visited.erase(i);
  visited.clear();
  EXPECT_EQ(visited.count(), 50u);
  visited.verify();
}

// Catches a walk that goes on over a map that has changed.
using Numbers = MapOf<U64, U64>;
TEST(HashMap2018DeathTest, guardedIteratorSeesChange) {
  void (*const changes[])(Numbers&) = {
      [](Numbers& map) { map.insert(10u, 1u); },
      [](Numbers& map) { map.erase(map.begin()->key()); },
      [](Numbers& map) { map.clear(); },
      [](Numbers& map) { map = Numbers(map); },
      [](Numbers& map) { map.reserve(1000); },
  };
  const char* const text =
      R"x(HashMap2018: .*: Assertion "version_ == hashMap_->version\(\)" failed)x";
  for (const auto change : changes) {
    SCOPED_TRACE(&change - changes);
    Numbers map;
    for (U64 i = 0; i < 10; ++i)
      map.insert(i, i);
    EXPECT_DEATH(map.forEach([&](const auto&) { change(map); }), text);
    auto it = map.iteratorConst();
    for (U32 i = 0; i < 9; ++i)
      it.advance();  // to the last: the step to the end is guarded, too
    change(map);
    EXPECT_DEATH(it.advance(), text);
  }
}

// Catches a value that is stored under a key it does not have.
TEST(HashMap2018DeathTest, internalKeyStays) {
  using Named = std::pair<String, U32>;
  using NameOf =
      decltype([](const Named& value) -> const String& { return value.first; });
  HashMap2018<HashMap2018NodeInternalKey<String, Named, NameOf>, String> map;
  auto* const node = map.insert("red", Named("red", 1)).first;
  node->valueIs(Named("red", 2));
  EXPECT_EQ(map.find("red")->value.second, 2u);
  EXPECT_TRUE(map == decltype(map)(map));
  const char* const text =
      R"x(HashMap2018NodeInternalKey: .*"fwkKey\(\) == KeyFunktor\(\)\( _value \)")x";
  EXPECT_DEATH(node->valueIs(Named("blue", 2)), text);
  EXPECT_DEATH(map.insert("green", Named("blue", 2)), text);
}

}  // namespace
}  // namespace Kop
