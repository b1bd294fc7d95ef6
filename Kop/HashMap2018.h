#pragma once

#include <cstring>
#include <iterator>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

#include "Kop/HashMap2018Generic.h"
#include "Kop/HashMap2018Node.h"
#include "Kop/KeyOps.h"

namespace Kop {

namespace HashMap2018Detail {
// Larger nodes stand in a pool: a table of them would waste a quarter of its memory and move
// whole cache lines for each insert.
inline constexpr std::size_t largestInline = 64;

template <class Node>
constexpr bool relocatable() {
  if constexpr (requires { Node::nodeIsRelocatable; })
    return Node::nodeIsRelocatable || isRelocatable<Node>;
  else
    return isRelocatable<Node>;
}

template <class Node, class Key>
struct Table;
}  // namespace HashMap2018Detail

// Maps Key to Node, a class with KeyType, ValueType, a constructor from (key, args...) and
// `key()`. Keys are hashed, compared and, when their hashes are equal, ordered by KeyOps.
//
// Order      by (mixed hash, key): a function of the contents alone. Equal maps walk alike
//            whatever their history, a copy as its original; an entry whose value is
//            overwritten keeps its place.
// Iteration  Iterator stands at a place in the order and survives any change; an
//            IteratorConst, forEach and range-for assert that nothing changes.
// Cost       A key is hashed once per call; callers that have the hash pass it. Keys of equal
//            hash are found by binary search. An empty map holds no memory. Filling a map in
//            the order of another one appends.
// Owner      Nodes up to 64 bytes stand in the table, and move with any insert; larger ones
//            in a pool, and stay until they are erased. Arguments may refer into the map.
// Errors     std::bad_alloc, std::length_error and what a node's constructor throws leave
//            the map as it was.
template <class N, class K>
class HashMap2018 : public HashMap2018Generic {
 public:
  using Node = N;
  using Key = K;
  class Iterator;
  class IteratorConst;

  HashMap2018() noexcept;
  HashMap2018(const HashMap2018&) = default;
  HashMap2018(HashMap2018&&) noexcept = default;
  HashMap2018& operator=(const HashMap2018&) = default;
  HashMap2018& operator=(HashMap2018&&) noexcept = default;
  friend bool operator==(const HashMap2018& a, const HashMap2018& b) {
    return static_cast<const HashMap2018Generic&>(a) ==
           static_cast<const HashMap2018Generic&>(b);
  }

  static U32 hashOfKey(const K& key) { return KeyOps<K>::hash(key); }

  // Null when absent.
  const Node* find(const K& key) const { return find(key, hashOfKey(key)); }
  Node* find(const K& key) { return find(key, hashOfKey(key)); }
  const Node* find(const K& key, U32 hash) const {
    const std::size_t slot = slotOf(key, HashWords::wordOf(hash));
    return slot == nowhere ? nullptr : node(slot);
  }
  Node* find(const K& key, U32 hash) {
    return const_cast<Node*>(std::as_const(*this).find(key, hash));
  }
  bool has(const K& key) const { return find(key) != nullptr; }

  // Makes Node(key, args...) when the key is absent; a present node is left alone. Returns
  // the node and whether it is new.
  template <class... A>
  std::pair<Node*, bool> insert(const K& key, A&&... args) {
    return insertHashed(key, hashOfKey(key), std::forward<A>(args)...);
  }
  template <class... A>
  std::pair<Node*, bool> insertHashed(const K& key, U32 hash, A&&... args);

  // Whether there was one. The key may be the removed node's own. With `out`, the removed
  // node is moved there.
  bool erase(const K& key) { return eraseHashed(key, hashOfKey(key)); }
  bool eraseHashed(const K& key, U32 hash);
  bool erase(const K& key, std::optional<Node>& out) {
    return eraseHashed(key, hashOfKey(key), out);
  }
  bool eraseHashed(const K& key, U32 hash, std::optional<Node>& out);

  void clear() { _memberDelAll(); }

  // Sixteen keys at a time are hashed and their memory requested, before the first is looked
  // at. Writes a node or null for each key.
  void findBatch(const K* keys, U32 n, Node** out);
  void findBatch(const K* keys, U32 n, const Node** out) const {
    const_cast<HashMap2018*>(this)->findBatch(keys, n, const_cast<Node**>(out));
  }
  // The same for n inserts of Node(keys[i], values[i]), or Node(keys[i]); then calls
  // f(i, node, isNew), which may change the node but not the map.
  template <class V, class F>
  void insertBatch(const K* keys, const V* values, U32 n, F&& f) {
    batch<true>(keys, n, [&](U32 i, U32 hash) {
      const auto [node, isNew] = insertHashed(keys[i], hash, values[i]);
      f(i, *node, isNew);
    });
  }
  template <class F>
  void insertBatch(const K* keys, U32 n, F&& f) {
    batch<true>(keys, n, [&](U32 i, U32 hash) {
      const auto [node, isNew] = insertHashed(keys[i], hash);
      f(i, *node, isNew);
    });
  }

  Iterator iterator() { return Iterator(*this, liveFrom(0)); }
  IteratorConst iteratorConst() const { return IteratorConst(*this, 0); }
  // At the first entry at or behind the key's place in the order, whether or not the key is
  // in the map.
  Iterator iteratorFrom(const K& key) {
    bool found;
    return Iterator(*this, liveFrom(placeOf(key, wordOf(key), found)));
  }
  IteratorConst iteratorConstFrom(const K& key) const {
    bool found;
    return IteratorConst(*this, placeOf(key, wordOf(key), found));
  }
  IteratorConst begin() const { return iteratorConst(); }
  std::default_sentinel_t end() const { return {}; }
  template <class F>
  void forEach(F&& f) const;

 private:
  friend struct HashMap2018Detail::Table<N, K>;
  using Word = HashWords::Word;
  static constexpr bool relocatable = HashMap2018Detail::relocatable<Node>();
  static constexpr bool pooled =
      sizeof(Node) > HashMap2018Detail::largestInline ||
      !(relocatable || std::is_nothrow_move_constructible_v<Node>);
  static constexpr unsigned farAfter = 4;  // looks at eight words before a binary search
  using Entry = std::conditional_t<pooled, Node*, Node>;

  static Word wordOf(const K& key) { return HashWords::wordOf(hashOfKey(key)); }
  static bool isKey(const Node* node, const K& key) {
    return KeyOps<K>::equal(node->key(), key);
  }
  Entry* entries() const { return static_cast<Entry*>(entries_); }
  Node* node(std::size_t slot) const {
    if constexpr (pooled)
      return entries()[slot];
    else
      return entries() + slot;
  }

  std::size_t slotOf(const K& key, Word word) const;
  std::size_t slotFar(const K& key, Word word) const;
  std::size_t placeOf(const K& key, Word word, bool& found) const;
  std::size_t placeFar(const K& key, Word word, std::size_t slot, bool& found) const;
  std::size_t openEntry(std::size_t slot, Word word, const K& key);
  template <bool ForWrite, class F>
  void batch(const K* keys, U32 n, F&& f);
  static void relocate(void* to, Node* from) noexcept {
    if constexpr (relocatable) {
      std::memcpy(to, static_cast<const void*>(from), sizeof(Node));
    } else {
      ::new (to) Node(std::move(*from));
      from->~Node();
    }
  }
};

// A map owns its block and holds no pointer into itself.
template <class N, class K>
inline constexpr bool isRelocatable<HashMap2018<N, K>> = true;

// Survives any change of the map: at each entry it takes a copy of the key.
template <class N, class K>
class HashMap2018<N, K>::Iterator {
 public:
  explicit operator bool() const { return key_.has_value(); }
  const K& key() const { return *key_; }
  // The entry it stands at; null when that has gone, or at the end. Good until the map
  // changes again.
  Node* currNodeMaybeStale() const {
    if (!key_) return nullptr;
    return version_ == map_->version() ? map_->node(slot_) : map_->find(*key_);
  }
  void advance() {
    if (!key_) return;
    std::size_t slot = slot_;
    bool there = true;
    if (version_ != map_->version()) slot = map_->placeOf(*key_, word_, there);
    standAt(map_->liveFrom(slot + there));
  }

 private:
  friend HashMap2018;
  Iterator(HashMap2018& map, std::size_t slot) : map_(&map) { standAt(slot); }
  void standAt(std::size_t slot) {
    slot_ = slot;
    version_ = map_->version();
    if (slot < map_->slots()) {
      word_ = map_->words()[slot];
      key_.emplace(map_->node(slot)->key());
    } else {
      key_.reset();
    }
  }

  HashMap2018* map_;
  std::size_t slot_;
  U32 version_;
  Word word_ = 0;
  std::optional<K> key_;
};

// Asserts at every step that the map is as it was when the walk began.
template <class N, class K>
class HashMap2018<N, K>::IteratorConst : public HashMap2018UnsafeIteratorConstGeneric {
 public:
  using difference_type = std::ptrdiff_t;
  using value_type = Node;

  const Node& operator*() const { return *map()->node(at_); }
  const Node* operator->() const { return map()->node(at_); }
  decltype(auto) key() const { return map()->node(at_)->key(); }
  IteratorConst& operator++() {
    advance();
    return *this;
  }
  void operator++(int) { advance(); }
  void advance() {
    HashMap2018UnsafeIteratorConstGeneric::advance();
    if constexpr (pooled) requestAhead();
  }
  friend bool operator==(const IteratorConst& it, std::default_sentinel_t) {
    it.check();
    return !it;
  }

 private:
  friend HashMap2018;
  IteratorConst(const HashMap2018& map, std::size_t from)
      : HashMap2018UnsafeIteratorConstGeneric(map, from) {}
  const HashMap2018* map() const { return static_cast<const HashMap2018*>(hashMap_); }
  void requestAhead() const {
    const std::size_t ahead = at_ + 16;
    if (ahead < slots_ && !HashWords::isFree(words_[ahead]))
      __builtin_prefetch(map()->node(ahead));
  }
};

// The operations that the generic layer needs of a node type.
template <class N, class K>
struct HashMap2018Detail::Table {
  using Map = HashMap2018<N, K>;
  static constexpr bool plain = relocatable<N>() && std::is_trivially_copyable_v<N>;
  static const N& node(const void* n) { return *static_cast<const N*>(n); }
  static const K& key(const void* k) { return *static_cast<const K*>(k); }

  static void shift(void* to, void* from) noexcept {
    Map::relocate(to, static_cast<N*>(from));
  }
  static void release(void* n) noexcept { static_cast<N*>(n)->~N(); }
  static void copy(void* to, const void* from) {
    if constexpr (std::is_copy_constructible_v<N>)
      ::new (to) N(node(from));
    else
      KOP_ASSERT(false, "nodes can be copied", "HashMap2018");
  }
  static bool keyEqual(const void* n, const void* k) {
    return KeyOps<K>::equal(node(n).key(), key(k));
  }
  static bool nodeEqual(const void* a, const void* b) {
    if constexpr (requires { bool(node(a) == node(b)); })
      return node(a) == node(b);
    else
      assertFail("nodes can be compared", "HashMap2018", "operator==");
  }
  static bool ordered(const void* a, const void* b) {
    return KeyOps<K>::less(node(a).key(), node(b).key());
  }
  static U32 hash(const void* n) { return KeyOps<K>::hash(node(n).key()); }
  static std::size_t place(const HashMap2018Generic& map,
                           const void* k,
                           U32 h,
                           bool& at) {
    return static_cast<const Map&>(map).placeOf(key(k), HashWords::wordOf(h), at);
  }
  static const void* lookup(const HashMap2018Generic& map, const void* k, U32 h) {
    return static_cast<const Map&>(map).find(key(k), h);
  }
  static std::pair<void*, bool> newMember(HashMap2018Generic& map, const void* k, U32 h) {
    if constexpr (std::is_constructible_v<N, const K&>)
      return static_cast<Map&>(map).insertHashed(key(k), h);
    else
      return {};
  }
  static bool deleteMember(HashMap2018Generic& map, const void* k, U32 h, void* out) {
    std::optional<N> removed;
    if (!static_cast<Map&>(map).eraseHashed(key(k), h, removed)) return false;
    if (out) ::new (out) N(std::move(*removed));
    return true;
  }
  static void* keyCopy(const void* n) { return new K(node(n).key()); }
  static void keyDrop(void* k) noexcept { delete static_cast<K*>(k); }

  static constexpr HashMap2018VTable table = {
      sizeof(typename Map::Entry),
      alignof(typename Map::Entry),
      sizeof(N),
      alignof(N),
      Map::pooled,
      Map::pooled || Map::relocatable ? nullptr : &shift,
      std::is_trivially_destructible_v<N> ? nullptr : &release,
      plain ? nullptr : &copy,
      &keyEqual,
      &nodeEqual,
      &ordered,
      &hash,
      &place,
      &lookup,
      std::is_constructible_v<N, const K&> ? &newMember : nullptr,
      &deleteMember,
      &keyCopy,
      &keyDrop};
};

template <class N, class K>
HashMap2018<N, K>::HashMap2018() noexcept
    : HashMap2018Generic(HashMap2018Detail::Table<N, K>::table) {}

}  // namespace Kop

#include "Kop/HashMap2018Impl.h"
