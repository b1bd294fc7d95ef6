#pragma once

#include <type_traits>
#include <utility>

#include "Kop/KeyOps.h"

// Nodes of hash maps. A node says by nodeIsRelocatable whether it may be moved by copying its
// bytes; one that says nothing may when it is trivially copyable.

namespace Kop {

// A node with the key beside the value. A class derived from it adds no members.
template <class K, class V>
struct MapNode {
  using KeyType = K;
  using ValueType = V;
  static constexpr bool nodeIsRelocatable = isRelocatable<K> && isRelocatable<V>;

  template <class... A>
    requires std::is_constructible_v<V, A...>
  explicit MapNode(const K& key, A&&... args)
      : key_(key), value(std::forward<A>(args)...) {}
  const K& key() const { return key_; }
  template <class W>
  void valueIs(W&& other) {
    value = std::forward<W>(other);
  }
  friend bool operator==(const MapNode&, const MapNode&) = default;

  K key_;
  V value;
};

// A node that is just the key.
template <class K>
struct HSetNode {
  using KeyType = K;
  using ValueType = void;
  static constexpr bool nodeIsRelocatable = isRelocatable<K>;

  explicit HSetNode(const K& key) : key_(key) {}
  const K& key() const { return key_; }
  operator const K&() const { return key_; }
  friend bool operator==(const HSetNode& a, const HSetNode& b) {
    return KeyOps<K>::equal(a.key_, b.key_);
  }

  K key_;
};

}  // namespace Kop
