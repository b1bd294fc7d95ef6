#pragma once

#include <iterator>
#include <type_traits>
#include <utility>

#include "Kop/Assert.h"
#include "Kop/Ptr.h"
#include "Kop/Types.h"

namespace Kop {

// What every red-black tree is, whatever its nodes: links, colours and balance. A red node's
// children are black, and every way from the root down passes equally many black nodes: so
// the longest is at most twice the shortest.
class KOP_EXPORT RbTree {
 public:
  class Node {
   public:
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;
    void referencesInc() const {
      if (threadSafePtrs())
        __atomic_fetch_add(&references_, 1, __ATOMIC_RELAXED);
      else
        ++references_;
    }
    bool isLinked() const { return linked_; }  // whether it is in a tree

   protected:
    Node() = default;
    ~Node() = default;
    bool lastReferenceDec() const {
      return (threadSafePtrs() ? __atomic_sub_fetch(&references_, 1, __ATOMIC_ACQ_REL)
                               : --references_) == 0;
    }

   private:
    friend RbTree;
    Node* parent_ = nullptr;
    Node* child_[2] = {nullptr, nullptr};  // before, after
    mutable U32 references_ = 0;
    bool red_ = false;
    bool linked_ = false;
  };

  U32 count() const { return count_; }
  bool empty() const { return count_ == 0; }

 protected:
  RbTree() = default;
  ~RbTree() = default;

  static Node* child(const Node* node, bool after) { return node->child_[after]; }
  Node* root() const { return root_; }
  Node* first() const;
  Node* last() const;
  static Node* next(const Node* node);
  void link(Node* node,
            Node* parent,
            bool after);  // as that child, which there is not yet
  void unlink(Node* node);
  void swap(RbTree& other) noexcept {
    std::swap(root_, other.root_);
    std::swap(count_, other.count_);
  }
  // For the end of a tree: empties it, and takes node after node out of what it held.
  Node* takeAll() {
    count_ = 0;
    return std::exchange(root_, nullptr);
  }
  static Node* dismantle(Node*& rest);
  void verifyBalance() const;

 private:
  void replace(Node* old, Node* by);    // in the eyes of old's parent
  void rotate(Node* node, bool after);  // node goes down on that side
  static U32 verifyBelow(const Node* node, U32& count);

  Node* root_ = nullptr;
  U32 count_ = 0;
};

// An ordered map by the key's operator<. Nodes are counted objects: a Ptr<Node> keeps a node,
// its key and its value alive after it has left the map.
//
// Iteration  in key order. Iterator survives any change of the map; a range-for stands no
//            removal of the node it is at.
// Errors     inserting a key that is there is the assertion "duplicate key".
template <class K, class V>
class RbTreeMap : public RbTree {
 public:
  using KeyType = K;
  using ValueType = V;
  class Iterator;
  class IteratorConst;

  class Node : public RbTree::Node {
   public:
    template <class... A>
    explicit Node(const K& key, A&&... args)
        : key_(key), value_(std::forward<A>(args)...) {}
    const K& key() const { return key_; }
    const V& value() const { return value_; }
    V& value() { return value_; }
    template <class W>
    void valueIs(W&& value) {
      value_ = std::forward<W>(value);
    }
    void referencesDec() const {
      if (this->lastReferenceDec()) delete this;
    }

   private:
    K key_;
    V value_;
  };

  RbTreeMap() = default;
  RbTreeMap(const RbTreeMap& other) : RbTreeMap() {
    for (const Node& node : other) {
      Node* const copy = new Node(node.key(), node.value());
      copy->referencesInc();
      link(copy, this->last(), true);
    }
  }
  RbTreeMap(RbTreeMap&& other) noexcept { swap(other); }
  RbTreeMap& operator=(const RbTreeMap& other) {
    if (this != &other) {
      RbTreeMap copy(other);
      swap(copy);
    }
    return *this;
  }
  RbTreeMap& operator=(RbTreeMap&& other) noexcept {
    RbTreeMap old(std::move(other));
    swap(old);
    return *this;
  }
  ~RbTreeMap() { delAll(); }

  // Null when absent.
  const Node* find(const K& key) const;
  Node* find(const K& key) { return const_cast<Node*>(std::as_const(*this).find(key)); }
  bool has(const K& key) const { return find(key) != nullptr; }
  // Makes Node(key, args...); the key must be absent.
  template <class... A>
  Node* insert(const K& key, A&&... args);
  // Whether there was one. The key may be the removed node's own.
  bool del(const K& key) {
    Node* const node = find(key);
    if (node) del(node);
    return node;
  }
  void del(const Iterator& it) {
    if (it && it->isLinked()) del(it.node_.get());
  }
  void delAll() {
    RbTree::Node* rest = takeAll();  // a node that goes may look into this map
    while (RbTree::Node* const node = dismantle(rest))
      static_cast<Node*>(node)->referencesDec();
  }
  void clear() { delAll(); }

  IteratorConst begin() const { return IteratorConst(static_cast<const Node*>(first())); }
  std::default_sentinel_t end() const { return {}; }
  IteratorConst iteratorConst() const { return begin(); }
  Iterator iterator() { return Iterator(*this, static_cast<Node*>(first())); }

  friend bool operator==(const RbTreeMap& a, const RbTreeMap& b) {
    if (&a == &b) return true;
    if (a.count() != b.count()) return false;
    for (IteratorConst i = a.begin(), j = b.begin(); i; ++i, ++j)
      if (!(i->key() == j->key() && i->value() == j->value())) return false;
    return true;
  }
  void verify() const;  // asserts order and balance; for tests

 private:
  void del(Node* node) {
    unlink(node);
    node->referencesDec();
  }
  Node* firstBehind(const K& key) const;
};

// Holds the node it stands at, and with it the place in the order when the node is removed.
template <class K, class V>
class RbTreeMap<K, V>::Iterator {
 public:
  explicit operator bool() const { return bool(node_); }
  Node& operator*() const { return *node_; }
  Node* operator->() const { return node_.get(); }
  const K& key() const { return node_->key(); }
  void advance() {
    if (!node_) return;
    node_ = Ptr<Node>(node_->isLinked() ? static_cast<Node*>(next(node_.get()))
                                        : map_->firstBehind(node_->key()));
  }
  Iterator& operator++() {
    advance();
    return *this;
  }

 private:
  friend RbTreeMap;
  Iterator(RbTreeMap& map, Node* node) : map_(&map), node_(node) {}
  RbTreeMap* map_;
  Ptr<Node> node_;
};

template <class K, class V>
class RbTreeMap<K, V>::IteratorConst {
 public:
  using difference_type = std::ptrdiff_t;
  using value_type = Node;

  explicit operator bool() const { return node_; }
  const Node& operator*() const { return *node_; }
  const Node* operator->() const { return node_; }
  const K& key() const { return node_->key(); }
  void advance() { node_ = static_cast<const Node*>(next(node_)); }
  IteratorConst& operator++() {
    advance();
    return *this;
  }
  void operator++(int) { advance(); }
  friend bool operator==(const IteratorConst& it, std::default_sentinel_t) { return !it; }

 private:
  friend RbTreeMap;
  explicit IteratorConst(const Node* node) : node_(node) {}
  const Node* node_;
};

template <class K, class V>
auto RbTreeMap<K, V>::find(const K& key) const -> const Node* {
  const Node* node = static_cast<const Node*>(root());
  while (node) {
    const bool after = node->key() < key;
    if (!after && !(key < node->key())) break;
    node = static_cast<const Node*>(child(node, after));
  }
  return node;
}

template <class K, class V>
auto RbTreeMap<K, V>::firstBehind(const K& key) const -> Node* {
  Node* node = static_cast<Node*>(root());
  Node* best = nullptr;
  while (node) {
    const bool before = key < node->key();
    if (before) best = node;
    node = static_cast<Node*>(child(node, !before));
  }
  return best;
}

template <class K, class V>
template <class... A>
auto RbTreeMap<K, V>::insert(const K& key, A&&... args) -> Node* {
  RbTree::Node* parent = nullptr;
  RbTree::Node* node = root();
  bool after = false;
  while (node) {
    const K& other = static_cast<Node*>(node)->key();
    after = other < key;
    KOP_ASSERT(after || key < other, "duplicate key", "RbTreeMap");
    parent = node;
    node = child(node, after);
  }
  Node* const made = new Node(key, std::forward<A>(args)...);
  made->referencesInc();
  link(made, parent, after);
  return made;
}

template <class K, class V>
void RbTreeMap<K, V>::verify() const {
  verifyBalance();
  const Node* before = nullptr;
  for (const Node& node : *this) {
    KOP_ASSERT(!before || before->key() < node.key(), "keys ascend", "RbTreeMap");
    before = &node;
  }
}

}  // namespace Kop
