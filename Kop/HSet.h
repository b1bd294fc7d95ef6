#pragma once

#include "Kop/HashMap2018.h"

namespace Kop {

// A HashMap2018 whose nodes are just keys: order, iteration and cost are the map's. A node
// met by iteration converts to its key.
template <class K>
class HSet {
 public:
  using Key = K;
  using Node = HSetNode<K>;
  using Map = HashMap2018<Node, K>;
  using Iterator = typename Map::Iterator;
  using IteratorConst = typename Map::IteratorConst;

  U32 count() const { return map_.count(); }
  bool empty() const { return map_.empty(); }
  U32 version() const { return map_.version(); }
  bool has(const K& key) const { return map_.find(key) != nullptr; }
  bool is(const K& key) { return map_.insert(key).second; }  // whether it is new
  bool del(const K& key) { return map_.erase(key); }         // whether it was there
  void clear() { map_.clear(); }
  void reserve(U32 keys) { map_.reserve(keys); }

  Iterator iterator() { return map_.iterator(); }
  Iterator iteratorFrom(const K& key) { return map_.iteratorFrom(key); }
  IteratorConst iteratorConst() const { return map_.iteratorConst(); }
  IteratorConst iteratorConstFrom(const K& key) const {
    return map_.iteratorConstFrom(key);
  }
  IteratorConst begin() const { return map_.begin(); }
  std::default_sentinel_t end() const { return {}; }
  template <class F>
  void forEach(F&& f) const {
    map_.forEach(std::forward<F>(f));
  }

  std::size_t memory() const { return map_.memory(); }
  void verify() const { map_.verify(); }
  friend bool operator==(const HSet&, const HSet&) = default;

 private:
  Map map_;
};

template <class K>
inline constexpr bool isRelocatable<HSet<K>> = true;

}  // namespace Kop
