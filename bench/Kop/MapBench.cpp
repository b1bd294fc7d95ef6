#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include "Kop/HashMap2018.h"

// HashMap2018 against a flat hash map of the same keys, values and 32-bit hashes. A name is
// map<What>.<key>.<value>/<side>/<entries>; the key kinds are an identifier (a kind in the
// high byte, a counter below), a 20-byte address and a name.

namespace Kop {
namespace {

struct Id {
  U64 word;
  static Id make(U64 i, bool miss) {
    return {U64{1 + i % 5} << 56 | U64{miss ? 3u : 2u} << 40 | i};
  }
  U32 hash() const { return OneAtATime().u64(word).result(); }
  friend bool operator==(const Id&, const Id&) = default;
  friend auto operator<=>(const Id&, const Id&) = default;
};

struct Address {
  U32 family;
  U8 bytes[16];
  static Address make(U64 i, bool miss) {
    Address address{};
    const U64 high = miss ? 0x100db80120 : 0xdb80120, low = i * 0x9E3779B97F4A7C15;
    const U32 small = static_cast<U32>(i) | (miss ? 0x0b000000u : 0x0a000000u);
    address.family = i % 2 ? 1 : 2;
    if (i % 2) {
      std::memcpy(address.bytes, &small, 4);
    } else {
      std::memcpy(address.bytes, &high, 8);
      std::memcpy(address.bytes + 8, &low, 8);
    }
    return address;
  }
  U32 hash() const { return OneAtATime().bytes(bytes, sizeof bytes).result(); }
  friend bool operator==(const Address& a, const Address& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
  }
  friend bool operator<(const Address& a, const Address& b) {
    return std::memcmp(&a, &b, sizeof a) < 0;
  }
};

struct Name : String {
  using String::String;
  static Name make(U64 i, bool miss) {
    std::string text = std::to_string(i);
    text = (miss ? "tux-" : "tun-") +
           std::string(7 - std::min<std::size_t>(7, text.size()), '0') + text;
    return Name(text + ".ep");
  }
};

struct Wide {
  char bytes[150];
  Wide(U64 n) { std::memset(bytes, static_cast<int>(n % 128), sizeof bytes); }
};
U64 sum(bool value) {
  return value;
}
U64 sum(U64 value) {
  return value;
}
U64 sum(const Wide& value) {
  return static_cast<U8>(value.bytes[0]);
}

}  // namespace
template <>
inline constexpr bool isRelocatable<Name> = true;
namespace {

template <class K, class V>
struct Ours {
  static constexpr const char* name = "ours";
  HashMap2018<MapNode<K, V>, K> map;

  const V* find(const K& key) const {
    const auto* const node = map.find(key);
    return node ? &node->value : nullptr;
  }
  void insert(const K& key, U64 value) { map.insert(key, V(value)); }
  void erase(const K& key) { map.erase(key); }
  void reserve(U32 n) { map.reserve(n); }
  U64 find16(const K* keys) {
    typename HashMap2018<MapNode<K, V>, K>::Node* nodes[16];
    map.findBatch(keys, 16, nodes);
    U64 total = 0;
    for (const auto* const node : nodes)
      total += sum(node->value);
    return total;
  }
  U64 walk() const {
    U64 total = 0;
    for (const auto& node : map)
      total += sum(node.value);
    return total;
  }
  U64 forEach() const {
    U64 total = 0;
    map.forEach([&total](const auto& node) { total += sum(node.value); });
    return total;
  }
  template <class F>
  void keys(F&& f) const {
    map.forEach([&f](const auto& node) { f(node.key()); });
  }
  double bytes() const { return static_cast<double>(map.memory()); }
};

struct SameHash {
  template <class K>
  std::size_t operator()(const K& key) const {
    return KeyOps<K>::hash(key);
  }
};
template <class K, class V>
struct Flat {
  static constexpr const char* name = "flat_hash_map";
  absl::flat_hash_map<K, V, SameHash> map;

  const V* find(const K& key) const {
    const auto it = map.find(key);
    return it == map.end() ? nullptr : &it->second;
  }
  void insert(const K& key, U64 value) { map.try_emplace(key, value); }
  void erase(const K& key) { map.erase(key); }
  void reserve(U32 n) { map.reserve(n); }
  U64 find16(const K* keys) {
    U64 total = 0;
    for (U32 i = 0; i < 16; ++i)
      total += sum(map.find(keys[i])->second);
    return total;
  }
  U64 walk() const {
    U64 total = 0;
    for (const auto& entry : map)
      total += sum(entry.second);
    return total;
  }
  U64 forEach() const { return walk(); }
  template <class F>
  void keys(F&& f) const {
    for (const auto& entry : map)
      f(entry.first);
  }
  double bytes()
      const {  // a control byte per slot, and those of the first group once more
    return static_cast<double>(map.capacity() * (sizeof(*map.begin()) + 1) + 16);
  }
};

template <class K>
const std::vector<K>& keysOf(U32 n, bool miss) {
  static std::map<std::pair<U32, bool>, std::vector<K>> known;
  std::vector<K>& keys = known[{n, miss}];
  if (keys.empty()) {
    for (U32 i = 0; i < n; ++i)
      keys.push_back(K::make(i, miss));
    std::shuffle(keys.begin(), keys.end(), std::mt19937(miss ? 7 : 3));
  }
  return keys;
}

// Kept to the end: benchmarks of all kinds may run in turns. About a gigabyte.
template <class Side, class K>
Side& filled(U32 n) {
  static std::map<U32, std::unique_ptr<Side>> known;
  std::unique_ptr<Side>& side = known[n];
  if (!side) {
    side = std::make_unique<Side>();
    std::vector<K> keys = keysOf<K>(n, false);
    std::shuffle(keys.begin(), keys.end(), std::mt19937(11));
    for (U32 i = 0; i < n; ++i)
      side->insert(keys[i], i);
  }
  return *side;
}

template <class Side, class K>
struct Work {
  static void find(benchmark::State& state, bool miss) {
    const U32 n = static_cast<U32>(state.range(0));
    const Side& side = filled<Side, K>(n);
    const std::vector<K>& keys = keysOf<K>(n, miss);
    U32 i = 0;
    for (auto _ : state) {
      benchmark::DoNotOptimize(side.find(keys[i]));
      if (++i == n) i = 0;
    }
  }
  static void findHit(benchmark::State& state) { find(state, false); }
  static void findMiss(benchmark::State& state) { find(state, true); }
  static void find16(benchmark::State& state) {
    const U32 n = static_cast<U32>(state.range(0));
    Side& side = filled<Side, K>(n);
    const std::vector<K>& keys = keysOf<K>(n, false);
    U32 i = 0;
    for (auto _ : state) {
      benchmark::DoNotOptimize(side.find16(&keys[i]));
      i += 16;
      if (i + 16 > n) i = 0;
    }
  }
  static void walk(benchmark::State& state) {
    const Side& side = filled<Side, K>(static_cast<U32>(state.range(0)));
    for (auto _ : state)
      benchmark::DoNotOptimize(side.walk());
  }
  static void forEach(benchmark::State& state) {
    const Side& side = filled<Side, K>(static_cast<U32>(state.range(0)));
    for (auto _ : state)
      benchmark::DoNotOptimize(side.forEach());
  }
  static void fill(benchmark::State& state, bool reserved) {
    const U32 n = static_cast<U32>(state.range(0));
    const std::vector<K>& keys = keysOf<K>(n, false);
    double bytes = 0;
    for (auto _ : state) {
      auto side = std::make_unique<Side>();
      if (reserved) side->reserve(n);
      for (U32 i = 0; i < n; ++i)
        side->insert(keys[i], i);
      state.PauseTiming();
      bytes = side->bytes();
      side.reset();
      state.ResumeTiming();
    }
    state.counters["bytes"] = bytes;
  }
  static void insert(benchmark::State& state) { fill(state, false); }
  static void insertReserved(benchmark::State& state) { fill(state, true); }
  static void erase(benchmark::State& state) {
    const U32 n = static_cast<U32>(state.range(0));
    const Side& side = filled<Side, K>(n);
    const std::vector<K>& keys = keysOf<K>(n, false);
    for (auto _ : state) {
      state.PauseTiming();
      auto copy = std::make_unique<Side>(side);
      state.ResumeTiming();
      for (U32 i = 0; i < n; ++i)
        copy->erase(keys[i]);
      state.PauseTiming();
      copy.reset();
      state.ResumeTiming();
    }
  }
  // Half of another map in its walk order, without reserving, then inserts at random places.
  static void insertAfterHalfWalk(benchmark::State& state) {
    const U32 n = static_cast<U32>(state.range(0));
    const Side& side = filled<Side, K>(n);
    const std::vector<K>& others = keysOf<K>(n, true);
    for (auto _ : state) {
      state.PauseTiming();
      auto half = std::make_unique<Side>();
      U32 count = 0;
      side.keys([&](const K& key) {
        if (count++ < n / 2) half->insert(key, count);
      });
      state.ResumeTiming();
      for (U32 i = 0; i < n / 100; ++i)
        half->insert(others[i], i);
      state.PauseTiming();
      half.reset();
      state.ResumeTiming();
    }
  }
  static void copyByWalk(benchmark::State& state) {
    const Side& side = filled<Side, K>(static_cast<U32>(state.range(0)));
    for (auto _ : state) {
      auto copy = std::make_unique<Side>();
      side.keys([&](const K& key) { copy->insert(key, 1); });
      state.PauseTiming();
      copy.reset();
      state.ResumeTiming();
    }
  }
};

// A goal of 0 is none.
template <class K, class V>
void sides(const std::string& what,
           void (*ours)(benchmark::State&),
           void (*flat)(benchmark::State&),
           double goal) {
  for (const bool mine : {true, false}) {
    const auto run = mine ? ours : flat;
    benchmark::RegisterBenchmark((what + (mine ? "/ours" : "/flat_hash_map")).c_str(),
                                 [run, mine, goal](benchmark::State& state) {
                                   run(state);
                                   if (mine && goal > 0) state.counters["goal"] = goal;
                                 })
        ->Arg(10000)
        ->Arg(1000000);
  }
}
template <class K, class V>
void kind(const std::string& name, bool small) {
  using O = Work<Ours<K, V>, K>;
  using F = Work<Flat<K, V>, K>;
  sides<K, V>("mapFindHit." + name, O::findHit, F::findHit, 1.05);
  sides<K, V>("mapFindMiss." + name, O::findMiss, F::findMiss, 1.0);
  sides<K, V>("mapFind16." + name, O::find16, F::find16, 0.5);
  sides<K, V>("mapWalk." + name, O::walk, F::walk, small ? 0.45 : 0);
  sides<K, V>("mapForEach." + name, O::forEach, F::forEach, small ? 0.36 : 0);
  sides<K, V>("mapErase." + name, O::erase, F::erase, 1.1);
  sides<K, V>("mapInsert." + name, O::insert, F::insert, 1.3);
  sides<K, V>("mapInsertReserved." + name, O::insertReserved, F::insertReserved, 0);
  sides<K, V>("mapCopyByWalk." + name, O::copyByWalk, F::copyByWalk, 0);
  sides<K, V>("mapInsertAfterHalfWalk." + name, O::insertAfterHalfWalk,
              F::insertAfterHalfWalk, 0);
}

const bool registered = [] {
  kind<Id, bool>("id.bool", true);
  kind<Id, U64>("id.u64", true);
  kind<Id, Wide>("id.wide", false);
  kind<Address, bool>("address.bool", true);
  kind<Address, U64>("address.u64", true);
  kind<Name, bool>("name.bool", true);
  kind<Name, U64>("name.u64", true);
  return true;
}();

}  // namespace
}  // namespace Kop
