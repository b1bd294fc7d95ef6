#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "Kop/Entity.h"

// The state of sending one entity when not everything can be written at once.

namespace Kop::NboAttrLog {

// The dirty keys and the bookmark of one collection, untyped.
class KOP_EXPORT CollFlow {
 public:
  virtual ~CollFlow();
  virtual U32 dirtyCount() const = 0;
  virtual void clear() = 0;
  virtual void bookmarkClear() = 0;
};

// Keys of type K. `dirty` are those whose change could not be written; they are sent as a
// whole, so that a mark made meanwhile is a new one and the walk stays a plain one. Instantiating
// collections keep a second set, of children whose contents follow their message; it does
// not count as dirty.
template <class K>
class CollFlowOf : public CollFlow {
 public:
  U32 dirtyCount() const override { return dirty.count() + draining.count(); }
  void clear() override {
    dirty.clear();
    draining.clear();
    drainAt.reset();
    second.clear();
  }
  void bookmarkClear() override { bookmark.reset(); }

  // Sent or changed again: no mark is needed any more.
  void clean(const K& key) {
    if (!dirty.empty()) dirty.del(key);
    if (!draining.empty()) draining.del(key);
  }

  HSet<K> dirty;
  HSet<K> draining;          // taken out of `dirty` to be sent
  std::optional<K> drainAt;  // where sending them goes on
  HSet<K> second;
  std::optional<K> bookmark;
};

// One resynchronisation of one entity towards one connection: per scalar whether it is dirty,
// per collection whether it was sent (synced) and which keys changed behind the walk, the
// attribute being sent, and one bookmark, the key at which a walk goes on.
class KOP_EXPORT FlowOut {
 public:
  // Starts at attribute `start`: collections below it count as synced, scalars from it on as
  // dirty. A start above the last attribute makes a state that only collects dirty marks.
  FlowOut(const EntityTable& table, AttributeId start);
  virtual ~FlowOut();
  FlowOut(const FlowOut&) = delete;
  FlowOut& operator=(const FlowOut&) = delete;

  bool kopIsDirty(AttributeId scalar) const { return flags_[index(scalar)]; }
  void kopIsDirtyIs(AttributeId scalar, bool dirty) { flags_[index(scalar)] = dirty; }
  bool kopHasSynced(AttributeId collection) const { return flags_[index(collection)]; }
  void kopHasSyncedIs(AttributeId collection, bool synced) {
    flags_[index(collection)] = synced;
  }
  AttributeId currentAttribute() const { return current_; }
  void currentAttributeIs(AttributeId attribute) { current_ = attribute; }

  // The collection whose walk is bookmarked, or 0.
  AttributeId bookmark() const { return bookmark_; }
  template <class K>
  void bookmarkIs(AttributeId collection, const K& key) {
    KOP_ASSERT(!bookmark_, "!rsc->bookmark()", "NboAttrLogFlow");
    bookmark_ = collection;
    coll<K>(collection).bookmark = key;
  }
  // Takes the bookmark out; without one, the default key.
  template <class K>
  K kopFlowOutBookmarkDeq(AttributeId collection) {
    std::optional<K> key;
    if (bookmark_ == collection) {
      bookmark_ = 0;
      key.swap(coll<K>(collection).bookmark);
    }
    return key ? std::move(*key) : K{};
  }
  void bookmarkClear();

  template <class K>
  CollFlowOf<K>& coll(AttributeId collection) {
    return static_cast<CollFlowOf<K>&>(collFlow(collection));
  }
  CollFlow& collFlow(AttributeId collection);
  bool hasDirtyCollKeys() const;  // of any collection
  // Nothing dirty, every collection synced.
  bool isClean() const;
  // The lowest attribute with something left to send, or 0.
  AttributeId firstDirty() const;
  // Drops the dirty keys of the collection and has it walked again from its beginning.
  void restart(AttributeId collection);
  // Releases the dirty-key sets.
  void freeResyncState();
  bool hasNotificationActive() const { return true; }

 private:
  U32 index(AttributeId attribute) const;

  const EntityTable& table_;
  std::vector<U8>
      flags_;  // by place in the table: a scalar's dirty, a collection's synced
  std::vector<std::unique_ptr<CollFlow>> colls_;  // null until there is something to keep
  AttributeId current_ = 0;
  AttributeId bookmark_ = 0;
};

}  // namespace Kop::NboAttrLog
