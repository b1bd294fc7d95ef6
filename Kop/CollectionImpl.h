#pragma once

#include <algorithm>
#include <optional>

#include "Kop/Assert.h"
#include "Kop/Entity.h"
#include "Kop/NboAttrLogSa.h"
#include "Kop/ValueImpl.h"

// The bodies of one collection of an entity: its typed operations, its part of the attribute
// log, and its untyped face. Included through EntityImpl.h.

namespace Kop {

template <class T>
struct PointedTo {
  using Type = void;
};
template <class C>
struct PointedTo<Ptr<C>> {
  using Type = C;
};

// What EntityOps<T> shows only to instantiating sources.
template <class T>
struct EntityMake {
  template <class K>
  static Ptr<T> with(const K& key) {
    Ptr<T> entity(EntityOps<T>::construct(key));
    entity->hasNotificationActiveIs(true);
    return entity;
  }
};

template <class T, U32 N>
struct KeptKeys : NboAttrLog::CollMarks {
  using Map = typename decltype(T::kopMember(Number<N>{}))::Map;

  // Room for what was announced is made eightfold at a time, behind what has arrived: it
  // is only a peer's word.
  void arriving(Map& map, const typename Map::Key& key) {
    if (!keys.empty()) keys.del(key);
    if (map.count() < roomFor || roomFor >= announced) return;
    roomFor =
        static_cast<U32>(std::min(U64{announced}, std::max(U64{64}, U64{8} * roomFor)));
    map.reserve(roomFor);
  }

  HSet<typename Map::Key> keys;
  U32 announced = 0;
  U32 roomFor = 0;
};

// The untyped face of the collection, and what both faces share.
template <class D, U32 N, class Row = decltype(D::kopMember(Number<N>{}))>
struct CollBody {
  using Map = typename Row::Map;
  using Node = typename Map::Node;
  using K = typename Map::Key;
  static constexpr CollectionKind kind = Row::kind;
  static constexpr bool isSet = kind == CollectionKind::set;
  static constexpr bool isChildren = kind == CollectionKind::children;
  using V = typename Row::Ops::ValueType;
  using Child = typename PointedTo<V>::Type;
  using Flow = NboAttrLog::CollFlowOf<K>;
  using In = NboAttrLog::In;

  static constexpr Row row() { return D::kopMember(Number<N>{}); }
  static Map& map(D& entity) { return entity.*(row().member); }
  static const Map& map(const D& entity) { return entity.*(row().member); }
  static D& of(Entity& entity) { return static_cast<D&>(entity); }
  static const D& of(const Entity& entity) { return static_cast<const D&>(entity); }
  static const K& keyOf(const void* key) { return *static_cast<const K*>(key); }

  static V get(const D& entity, const K& key) {
    const Node* node = map(entity).find(key);
    if constexpr (isSet)
      return node != nullptr;
    else
      return node ? V(node->value) : V();
  }

  // Stores and tells; asks no permission. The key given to observers is a copy: they may
  // change the map.
  static void store(D& entity, const K& key, const V& value) {
    if constexpr (isSet) {
      const auto [node, isNew] = map(entity).insert(key);
      if (isNew) tell(entity, *node);
    } else {
      const auto [node, isNew] = map(entity).insert(key, value);
      if (!isNew) {
        if (node->value == value) return;
        node->valueIs(value);
      }
      tell(entity, *node);
    }
  }
  static void tell(D& entity, const Node& node) {
    if (entity.notifieeCount() == 0) return;
    const K key(node.key());
    notify(entity, key);
  }
  static void notify(Entity& entity, const K& key) {
    EntityAccess::notify(entity, N, &key);
  }

  static void set(D& entity, const K& key, const V& value) {
    if (entity.readOnlyProxy()) {
      const Node* node = map(entity).find(key);
      if constexpr (isSet) {
        if (node) return;
      } else {
        if (node && node->value == value) return;
      }
      EntityAccess::writable(entity);
    }
    store(entity, key, value);
  }

  // With `from`, the child is the copy of one that was received there: followed before
  // anybody hears of it, because who does may write to it.
  static V makeChild(D& entity, const K& key, EntitySa* from, U64 identity) {
    const Ptr<D> alive(&entity);  // an observer may drop the last reference
    const K kept(key);
    const V child = EntityMake<Child>::with(kept);
    if (from) EntitySa::receivedIdentityIs(*child, identity);
    child->readOnlyProxyIs(entity.readOnlyProxy());
    map(entity).insert(kept, child);
    child->parentIs(&entity);
    if (from) from->childReceived(*child, identity);
    notify(entity, kept);
    return child;
  }

  static V childIs(D& entity, const K& key) {
    if (const Node* node = map(entity).find(key)) return node->value;
    EntityAccess::writable(entity);
    return makeChild(entity, key, nullptr, 0);
  }

  // Removes and tells; asks no permission.
  static bool remove(D& entity, const K& key, V* removed) {
    std::optional<Node> out;
    if (!map(entity).erase(key, out)) return false;
    Ptr<D> alive;
    if constexpr (isChildren) {
      alive = Ptr<D>(&entity);  // the child's observers may drop the last reference
      out->value->parentIs(nullptr);
    }
    const K& gone = out->key();
    notify(entity, gone);
    if (removed) {
      if constexpr (isSet)
        *removed = true;
      else
        *removed = std::move(out->value);
    }
    return true;
  }
  static bool del(D& entity, const K& key, V* removed) {
    if (entity.readOnlyProxy() && map(entity).has(key)) EntityAccess::writable(entity);
    return remove(entity, key, removed);
  }

  // Children always go one by one, so that each is detached; values only when somebody
  // listens.
  static void removeAll(D& entity) {
    if (!isChildren && entity.notifieeCount() == 0) return map(entity).clear();
    for (auto it = map(entity).iterator(); it; it.advance())
      remove(entity, it.key(), nullptr);
  }
  static void delAll(D& entity) {
    if (map(entity).empty()) return;
    EntityAccess::writable(entity);
    const Ptr<D> kept(&entity);  // an observer may drop the last reference on the way
    removeAll(entity);
  }

  // ---- writing the log ----

  static void writeSet(EntitySa& sa, const Node& node) {
    const auto begin =
        sa.messageBegin(isChildren ? NboAttrLog::childSet : NboAttrLog::collSet, N);
    NboAttrLog::Out& out = sa.streamDemuxer().out();
    attrLogWrite(out, static_cast<const K&>(node.key()));
    if constexpr (isChildren)
      out.writeU64(node.value->identity());
    else if constexpr (isSet)
      out.writebool(true);
    else
      attrLogWrite(out, node.value);
    sa.outSmCommitMessage(begin);
  }
  // The current state of one key: `node` is its entry, or null when it is absent.
  static void writeState(EntitySa& sa, const K& key, const Node* node) {
    if (node) {
      writeSet(sa, *node);
      if constexpr (isChildren) sa.childSent(*node->value, true);
      return;
    }
    const auto begin = sa.messageBegin(NboAttrLog::collDel, -N);
    attrLogWrite(sa.streamDemuxer().out(), key);
    sa.outSmCommitMessage(begin);
  }
  // A changed key: written when it may be, or else marked.
  static void handleExtKeyValueCollSerialization(const D& entity,
                                                 EntitySa& sa,
                                                 const K& key) {
    EntitySa::Check check{nullptr, sa.flowOut()};
    if (sa.isOkToSerialize()) {
      const Node* const node = map(entity).find(key);
      check = sa.collSerializeCheck(N, node ? NboAttrLog::collSet : NboAttrLog::collDel);
      if (check.out) writeState(sa, key, node);
    }
    if (check.resync || !check.out) {
      Flow& flow = sa.kopRawFlowOut().template coll<K>(N);
      if (check.out)
        flow.clean(key);
      else if (flow.dirty.is(key))
        sa.keyMarked(N, map(entity).count());
      else
        sa.keyMarkedAgain();
    }
  }

  // The collection in a resynchronisation; true when finished. The walk never sees the map
  // change: writes meanwhile only mark their keys.
  static bool handleSerializationOfColl(const D& entity,
                                        EntitySa& sa,
                                        NboAttrLog::FlowOut* resync) {
    if (!sa.handleSerializationOfCollCheck(N)) return true;
    if (!sa.isOkToSerialize()) return false;
    if (!resync || !resync->kopHasSynced(N)) {
      const bool resumed = resync && resync->bookmark() == N;
      sa.handleCollSerializationTransactionMarkers(
          N, resumed ? NboAttrLog::collBeginResumed : NboAttrLog::collBegin,
          map(entity).count());
      auto it = resumed ? map(entity).iteratorConstFrom(
                              resync->template kopFlowOutBookmarkDeq<K>(N))
                        : map(entity).iteratorConst();
      Flow* const flow = resync ? &resync->template coll<K>(N) : nullptr;
      while (it) {
        const Node& node = *it;
        if (flow) flow->clean(node.key());
        writeSet(sa, node);
        if constexpr (isChildren) sa.childSent(*node.value, false);
        it.advance();
        if (!resync || sa.continueFlowOut()) continue;
        if (!it) break;
        resync->bookmarkIs(N, static_cast<const K&>(it->key()));
        return false;
      }
      sa.handleCollSerializationTransactionMarkers(N, NboAttrLog::collEnd, 0);
      if (!resync) return true;
      resync->kopHasSyncedIs(N, true);
      if (!sa.continueFlowOut()) return flow->dirtyCount() == 0;
    }
    if (resync->collFlow(N).dirtyCount() == 0) return true;
    return drain(entity, sa, resync->template coll<K>(N));
  }
  // Sends the marked keys; true when none is left.
  static bool drain(const D& entity, EntitySa& sa, Flow& flow) {
    for (;;) {
      if (flow.draining.empty()) {
        flow.drainAt.reset();
        if (flow.dirty.empty()) return true;
        std::swap(flow.dirty, flow.draining);
      }
      auto it = flow.drainAt ? flow.draining.iteratorConstFrom(*flow.drainAt)
                             : flow.draining.iteratorConst();
      flow.drainAt.reset();
      for (; it; it.advance()) {
        const K& key = it->key();
        if (!sa.continueFlowOut()) {
          flow.drainAt = key;
          return false;
        }
        if (!flow.dirty.empty()) flow.dirty.del(key);
        writeState(sa, key, map(entity).find(key));
      }
      flow.draining.clear();
    }
  }

  // ---- applying the log ----

  static KeptKeys<D, N>* kept(EntitySa& sa) {
    return static_cast<KeptKeys<D, N>*>(sa.marks(N));
  }
  static void needEnd(const In& in) {
    if (!in.atEnd()) EntityAccess::throwTrailing(in);
  }

  static void applySet(Entity& untyped, EntitySa& sa, In& in) {
    D& entity = of(untyped);
    const K key = attrLogRead<K>(in);
    if constexpr (isChildren) {
      const U64 identity = in.peekEntityIdentity();
      in.skip(sizeof identity);
      needEnd(in);
      const V child = get(entity, key);
      const bool isSame = child && EntitySa::isCopyOf(*child, identity);
      sa.childIdentityCheck(isSame ? child.get() : nullptr, identity);
      if (auto* marks = kept(sa)) marks->arriving(map(entity), key);
      if (isSame) {
        EntitySa::receivedIdentityIs(*child, identity);
        return sa.childReceived(*child, identity);
      }
      if (child) removeReceived(entity, sa, key);
      makeChild(entity, key, &sa, identity);
    } else if constexpr (isSet) {
      in.nextbool();
      needEnd(in);
      if (auto* marks = kept(sa)) marks->arriving(map(entity), key);
      store(entity, key, true);
    } else {
      const V value = attrLogRead<V>(in);
      needEnd(in);
      if constexpr (kind == CollectionKind::internalMap) {
        const K own = typename Node::KeyFunktorType()(value);
        if (auto* marks = kept(sa)) marks->arriving(map(entity), own);
        store(entity, own, value);
      } else {
        if (auto* marks = kept(sa)) marks->arriving(map(entity), key);
        store(entity, key, value);
      }
    }
  }
  static void applyDel(Entity& untyped, EntitySa& sa, In& in) {
    D& entity = of(untyped);
    const K key = attrLogRead<K>(in);
    needEnd(in);
    removeReceived(entity, sa, key);
  }
  static void removeReceived(D& entity, EntitySa& sa, const K& key) {
    if constexpr (isChildren)
      if (const V child = get(entity, key)) sa.childGone(*child);
    remove(entity, key, nullptr);
  }
  static void applyTransaction(Entity& untyped,
                               EntitySa& sa,
                               NboAttrLog::MessageKind marker,
                               In& in) {
    D& entity = of(untyped);
    if (marker == NboAttrLog::collEnd) {
      needEnd(in);
      auto* const marks = kept(sa);
      if (!marks) return;
      for (auto it = marks->keys.iterator(); it; it.advance())
        removeReceived(entity, sa, it.key());
      sa.marksIs(N, nullptr);
      return;
    }
    const U32 count = in.nextU32();
    needEnd(in);
    if (marker == NboAttrLog::collBeginResumed) return;
    auto marks = std::make_unique<KeptKeys<D, N>>();
    marks->announced = count;
    marks->roomFor = map(entity).count();
    if (!map(entity).empty()) {
      marks->keys.reserve(map(entity).count());
      for (const Node& node : map(entity))
        marks->keys.is(node.key());
    }
    sa.marksIs(N, std::move(marks));
  }

  // ---- the untyped face ----

  class Iterator final : public CollectionIterator {
   public:
    explicit Iterator(D& entity) : entity_(&entity), it_(map(entity).iterator()) {}
    bool iterNonnull() const override { return static_cast<bool>(it_); }
    void iterInc() override { it_.advance(); }
    const void* iterKey() const override { return it_ ? &it_.key() : nullptr; }
    const void* iterValue() const override {
      if constexpr (!isSet && !isChildren) {
        const Node* node = it_.currNodeMaybeStale();
        return node ? &node->value : nullptr;
      } else {
        return nullptr;
      }
    }
    Ptr<Entity> iterObj() const override {
      if constexpr (isChildren)
        if (const Node* node = it_.currNodeMaybeStale()) return node->value;
      return nullptr;
    }
    void iterDel() override {
      if (it_) del(*entity_, it_.key(), nullptr);
    }

   private:
    Ptr<D> entity_;
    typename Map::Iterator it_;
  };

  static U32 count(const Entity& entity) { return map(of(entity)).count(); }
  static const void* find(const Entity& entity, const void* key) {
    const Node* node = map(of(entity)).find(keyOf(key));
    if (!node) return nullptr;
    if constexpr (isSet)
      return &node->key();
    else
      return &node->value;
  }
  static Ptr<Entity> child(const Entity& entity, const void* key) {
    if constexpr (isChildren)
      return get(of(entity), keyOf(key));
    else
      return nullptr;
  }
  static void setUntyped(Entity& entity, const void* key, const void* value) {
    if constexpr (isSet)
      set(of(entity), keyOf(key), true);
    else if constexpr (!isChildren)
      set(of(entity), keyOf(key), *static_cast<const V*>(value));
  }
  static Ptr<Entity> childIsUntyped(Entity& entity, const void* key) {
    if constexpr (isChildren)
      return childIs(of(entity), keyOf(key));
    else
      return nullptr;
  }
  static bool delUntyped(Entity& entity, const void* key) {
    return del(of(entity), keyOf(key), nullptr);
  }
  static void delAllUntyped(Entity& entity) { delAll(of(entity)); }
  static std::unique_ptr<CollectionIterator> iterator(Entity& entity) {
    return std::make_unique<Iterator>(of(entity));
  }
  static std::unique_ptr<NboAttrLog::CollFlow> newFlow() {
    return std::make_unique<Flow>();
  }
  static bool serializeCollUntyped(const Entity& entity,
                                   EntitySa& sa,
                                   NboAttrLog::FlowOut* resync) {
    return handleSerializationOfColl(of(entity), sa, resync);
  }
  static void writeKeyUntyped(const Entity& entity, EntitySa& sa, const void* key) {
    writeState(sa, keyOf(key), map(of(entity)).find(keyOf(key)));
  }
  static void changed(const Entity& entity, EntitySa& sa, const void* key) {
    handleExtKeyValueCollSerialization(of(entity), sa, keyOf(key));
  }
  static void eachChild(const Entity& entity,
                        void* context,
                        void (*visit)(void*, Entity&)) {
    if constexpr (isChildren)
      for (const Node& node : map(of(entity)))
        visit(context, *node.value);
  }
  static constexpr auto childType() -> const TypeRecord* (*)() {
    if constexpr (isChildren)
      return [] { return findType(typeName<Child>()); };
    else
      return nullptr;
  }
  static constexpr const TypeOps* valueType() {
    if constexpr (isChildren)
      return nullptr;
    else
      return &TypeOpsOf<V>::ops;
  }
};

// The typed functions of a collection are called from wherever the type is used and defined
// here; naming them in a constant keeps them in the library.
template <class Ops, bool isChildren>
struct CollExports {
  decltype(&Ops::get) get = &Ops::get;
  decltype(&Ops::del) del = &Ops::del;
  decltype(&Ops::delAll) delAll = &Ops::delAll;
  decltype(&Ops::serializeColl) serializeColl = &Ops::serializeColl;
  decltype(&Ops::serializeSing) serializeSing = &Ops::serializeSing;
  decltype(&Ops::set) set = &Ops::set;
};
template <class Ops>
struct CollExports<Ops, true> {
  decltype(&Ops::get) get = &Ops::get;
  decltype(&Ops::del) del = &Ops::del;
  decltype(&Ops::delAll) delAll = &Ops::delAll;
  decltype(&Ops::serializeColl) serializeColl = &Ops::serializeColl;
  decltype(&Ops::serializeSing) serializeSing = &Ops::serializeSing;
  decltype(&Ops::childIs) childIs = &Ops::childIs;
};

template <class T, U32 N, class K, class V>
V CollOps<T, N, K, V>::get(const T& entity, const K& key) {
  return CollBody<T, N>::get(entity, key);
}
template <class T, U32 N, class K, class V>
void CollOps<T, N, K, V>::set(T& entity, const K& key, const V& value) {
  CollBody<T, N>::set(entity, key, value);
}
template <class T, U32 N, class K, class V>
V CollOps<T, N, K, V>::childIs(T& entity, const K& key) {
  return CollBody<T, N>::childIs(entity, key);
}
template <class T, U32 N, class K, class V>
V CollOps<T, N, K, V>::del(T& entity, const K& key) {
  V removed{};
  CollBody<T, N>::del(entity, key, &removed);
  return removed;
}
template <class T, U32 N, class K, class V>
void CollOps<T, N, K, V>::delAll(T& entity) {
  CollBody<T, N>::delAll(entity);
}
template <class T, U32 N, class K, class V>
bool CollOps<T, N, K, V>::serializeColl(const T& entity,
                                        EntitySa& sa,
                                        NboAttrLog::FlowOut* resync) {
  return CollBody<T, N>::handleSerializationOfColl(entity, sa, resync);
}
template <class T, U32 N, class K, class V>
void CollOps<T, N, K, V>::serializeSing(const T& entity, EntitySa& sa, const K& key) {
  CollBody<T, N>::handleExtKeyValueCollSerialization(entity, sa, key);
}

}  // namespace Kop
