#pragma once

#include "Kop/Assert.h"
#include "Kop/Entity.h"
#include "Kop/NboAttrLogSa.h"
#include "Kop/ValueImpl.h"

// The bodies of the entity protocol. Included by the source that instantiates the type,
// before Kop/ModuleImpl.h.

namespace Kop {

template <class T>
inline constexpr bool isPtr = false;
template <class C>
inline constexpr bool isPtr<Ptr<C>> = true;

template <class T>
struct PointedTo {
  using Type = void;
};
template <class C>
struct PointedTo<Ptr<C>> {
  using Type = C;
};

template <class T>
[[noreturn]] void throwNewEntityArgs();

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
  HSet<typename Map::Key> keys;
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

  static V makeChild(D& entity, const K& key, U64 identity) {
    const K kept(key);
    const V child = EntityMake<Child>::with(kept);
    if (identity != 0) EntitySa::identityIs(*child, identity);
    child->readOnlyProxyIs(entity.readOnlyProxy());
    map(entity).insert(kept, child);
    child->parentIs(&entity);
    notify(entity, kept);
    return child;
  }

  static V childIs(D& entity, const K& key) {
    if (const Node* node = map(entity).find(key)) return node->value;
    EntityAccess::writable(entity);
    return makeChild(entity, key, 0);
  }

  // Removes and tells; asks no permission.
  static bool remove(D& entity, const K& key, V* removed) {
    std::optional<Node> out;
    if (!map(entity).erase(key, out)) return false;
    if constexpr (isChildren) out->value->parentIs(nullptr);
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
  // The current state of one key, whatever it is.
  static void writeKey(const D& entity, EntitySa& sa, const K& key) {
    if (const Node* node = map(entity).find(key)) {
      writeSet(sa, *node);
      if constexpr (isChildren) sa.childSent(*node->value, true);
      return;
    }
    const auto begin = sa.messageBegin(NboAttrLog::collDel, -N);
    attrLogWrite(sa.streamDemuxer().out(), key);
    sa.outSmCommitMessage(begin);
  }
  // A changed key: written when it may be, or else marked.
  static void serializeSing(const D& entity, EntitySa& sa, const K& key) {
    const auto kindNow = map(entity).has(key) ? NboAttrLog::collSet : NboAttrLog::collDel;
    const auto check = sa.collSerializeCheck(N, kindNow);
    if (check.out) writeKey(entity, sa, key);
    if (check.resync || !check.out) {
      Flow& flow = sa.kopRawFlowOut().template coll<K>(N);
      if (check.out)
        flow.dirty.del(key);
      else if (flow.dirty.is(key))
        sa.keyMarked(N, map(entity).count());
      else
        sa.keyMarkedAgain();
    }
  }

  // The collection in a resynchronisation; true when finished. The walk never sees the map
  // change: writes meanwhile only mark their keys.
  static bool serializeColl(const D& entity, EntitySa& sa, NboAttrLog::FlowOut* resync) {
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
        if (flow && !flow->dirty.empty()) flow->dirty.del(node.key());
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
      if (!sa.continueFlowOut()) return flow->dirty.empty();
    }
    if (resync->collFlow(N).dirtyCount() == 0) return true;
    Flow& flow = resync->template coll<K>(N);
    for (auto it = flow.dirty.iterator(); it; it.advance()) {
      if (!sa.continueFlowOut()) return false;
      const K key(it.key());
      flow.dirty.del(key);
      writeKey(entity, sa, key);
    }
    return true;
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
      if (auto* marks = kept(sa)) marks->keys.del(key);
      V child = get(entity, key);
      if (child && child->identity() != identity) {
        sa.childGone(*child);
        remove(entity, key, nullptr);
        child = nullptr;
      }
      if (!child) child = makeChild(entity, key, identity);
      sa.childReceived(*child, identity);
    } else if constexpr (isSet) {
      in.nextbool();
      needEnd(in);
      if (auto* marks = kept(sa)) marks->keys.del(key);
      store(entity, key, true);
    } else {
      const V value = attrLogRead<V>(in);
      needEnd(in);
      if constexpr (kind == CollectionKind::internalMap) {
        const K own = typename Node::KeyFunktorType()(value);
        if (auto* marks = kept(sa)) marks->keys.del(own);
        store(entity, own, value);
      } else {
        if (auto* marks = kept(sa)) marks->keys.del(key);
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
    // Room for what was announced, but never much on a peer's word alone.
    constexpr U32 believed = 1 << 16;
    if (count > map(entity).count()) map(entity).reserve(std::min(count, believed));
    std::unique_ptr<KeptKeys<D, N>> marks;
    if (!map(entity).empty()) {
      marks = std::make_unique<KeptKeys<D, N>>();
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
    return serializeColl(of(entity), sa, resync);
  }
  static void writeKeyUntyped(const Entity& entity, EntitySa& sa, const void* key) {
    writeKey(of(entity), sa, keyOf(key));
  }
  static void changed(const Entity& entity, EntitySa& sa, const void* key) {
    serializeSing(of(entity), sa, keyOf(key));
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
  static constexpr CollExports<Ops, false>* unused = nullptr;
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

template <class D, U32 N>
struct EntityRow {
  using Row = decltype(D::kopMember(Number<N>{}));

  // A collection.
  template <class R>
  using Body = CollBody<D, N, R>;
  static constexpr const TypeOps* valueType() { return Body<Row>::valueType(); }
  static constexpr std::string_view valueName() {
    if constexpr (Body<Row>::isChildren)
      return typeName<typename Body<Row>::Child>();
    else
      return valueType()->name;
  }
  template <class R>
  static constexpr std::array<std::string_view, 1> keyNamesOf() {
    if constexpr (CollectionRow<R>)
      return {TypeOpsOf<typename Body<R>::K>::ops.name};
    else
      return {};
  }
  static constexpr std::array<std::string_view, 1> keyNames = keyNamesOf<Row>();
  template <class R>
  static constexpr CollExports<typename R::Ops, Body<R>::isChildren> exports{};
  template <class R>
  static constexpr CollectionOps makeCollection() {
    if constexpr (CollectionRow<R>) {
      using B = Body<R>;
      return {N,
              B::kind,
              &TypeOpsOf<typename B::K>::ops,
              B::valueType(),
              B::childType(),
              B::count,
              B::find,
              B::child,
              B::setUntyped,
              B::childIsUntyped,
              B::delUntyped,
              B::delAllUntyped,
              B::iterator,
              B::newFlow,
              B::serializeCollUntyped,
              B::writeKeyUntyped,
              B::changed,
              B::applySet,
              B::applyDel,
              B::applyTransaction,
              B::eachChild,
              &exports<R>};
    } else {
      return {};
    }
  }
  static constexpr CollectionOps collection = makeCollection<Row>();

  // A scalar.
  static auto& member(Entity& entity) {
    return static_cast<D&>(entity).*(D::kopMember(Number<N>{}).member);
  }
  static const auto& member(const Entity& entity) {
    return static_cast<const D&>(entity).*(D::kopMember(Number<N>{}).member);
  }
  static void set(Entity& entity, const void* value) {
    const auto& wanted = *static_cast<const typename Row::Type*>(value);
    if (member(entity) == wanted) return;
    EntityAccess::writable(entity);
    member(entity) = wanted;
    EntityAccess::notify(entity, N);
  }
  static void write(NboAttrLog::Out& out, const Entity& entity) {
    attrLogWrite(out, member(entity));
  }
  static void apply(Entity& entity, NboAttrLog::In& in) {
    const auto value = attrLogRead<typename Row::Type>(in);
    if (!in.atEnd()) EntityAccess::throwTrailing(in);
    if (member(entity) == value) return;
    member(entity) = value;
    EntityAccess::notify(entity, N);
  }
  static bool isDefault(const Entity& entity) {
    return member(entity) == D::kopDefault(Number<N>{});
  }

  static constexpr EntityAttr attr() {
    EntityAttr attr{};
    attr.number = N;
    attr.name = D::kopMember(Number<N>{}).name;
    if constexpr (CollectionRow<Row>) {
      attr.collection = &collection;
    } else {
      attr.write = write;
      attr.apply = apply;
      attr.isDefault = isDefault;
    }
    return attr;
  }
};

template <class T>
consteval U32 entityAttrCount() {
  if constexpr (std::same_as<T, void>) {
    return 0;
  } else {
    U32 own = 0;
    [&]<U32... I>(std::integer_sequence<U32, I...>) {
      ((own += StoredRow<decltype(T::kopMember(Number<T::kopFirst + I>{}))>), ...);
    }
    (std::make_integer_sequence<U32, ownRows<T>()>{});
    return own + entityAttrCount<typename T::KopBase>();
  }
}
template <class T, class Out>
constexpr void addEntityAttrs(Out& out, U32& at) {
  if constexpr (!std::same_as<T, void>) {
    static_assert(rowsHaveNoGap<T>(), "a number is missing between this type's rows");
    addEntityAttrs<typename T::KopBase>(out, at);
    [&]<U32... I>(std::integer_sequence<U32, I...>) {
      const auto add = [&]<U32 N>(Number<N>) {
        if constexpr (StoredRow<decltype(T::kopMember(Number<N>{}))>)
          out[at++] = EntityRow<T, N>::attr();
      };
      (add(Number<T::kopFirst + I>{}), ...);
    }
    (std::make_integer_sequence<U32, ownRows<T>()>{});
  }
}
template <class T>
consteval auto makeEntityAttrs() {
  std::array<EntityAttr, entityAttrCount<T>()> all{};
  U32 at = 0;
  addEntityAttrs<T>(all, at);
  return all;
}
template <class T>
inline constexpr auto entityAttrsOf = makeEntityAttrs<T>();

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
  return CollBody<T, N>::serializeColl(entity, sa, resync);
}
template <class T, U32 N, class K, class V>
void CollOps<T, N, K, V>::serializeSing(const T& entity, EntitySa& sa, const K& key) {
  CollBody<T, N>::serializeSing(entity, sa, key);
}

template <class T>
template <class K>
T* EntityOps<T>::construct(const K& key) {
  return new T(key);
}
template <class T>
Ptr<T> EntityOps<T>::make(const String& name) {
  if constexpr (std::same_as<typename T::KopKey, String>)
    return EntityMake<T>::with(name);
  else
    return nullptr;  // lives only under its key
}
template <class T>
void EntityOps<T>::keyIs(T& entity, const typename T::KopKey& key) {
  if constexpr (!std::same_as<typename T::KopKey, String>) entity.kopKey_ = key;
}
template <class T>
String EntityOps<T>::nameOf(const typename T::KopKey& key) {
  if constexpr (std::same_as<typename T::KopKey, String>)
    return key;
  else
    return strepOf(key);
}
// Children first, each told; then the observers; the maps go with the members, in reverse
// order of declaration.
template <class T>
void EntityOps<T>::destroy(T& entity) {
  [&]<U32... I>(std::integer_sequence<U32, I...>) {
    const auto clear = [&]<U32 N>(Number<N>) {
      if constexpr (CollectionRow<decltype(T::kopMember(Number<N>{}))>)
        if constexpr (CollBody<T, N>::isChildren) CollBody<T, N>::removeAll(entity);
    };
    (clear(Number<T::kopFirst + I>{}), ...);
  }
  (std::make_integer_sequence<U32, ownRows<T>()>{});
  EntityAccess::notifieesDelAll(entity);
}
template <class T>
constinit const EntityTable EntityOps<T>::table{
    entityAttrsOf<T>,
    std::same_as<typename T::KopKey, String>
    ? +[](const String& name) -> Ptr<Entity> { return EntityOps<T>::make(name); }
    : nullptr};

// Names an entity type to the runtime. The functions named after its collections
// (kopHandleDecapIpSerializeColl and its kin) come from the rows by inheritance.
template <EntityType T>
struct TypeImpl<T> : Mixins<T> {
  using FlowOut = typename T::FlowOut;

  // Errors   NewEntityArgsException when there are arguments: no entity takes any.
  static Ptr<Entity> newEntityForDir(const String& name,
                                     std::span<const GenericArg> arguments = {}) {
    if (!arguments.empty()) throwNewEntityArgsException(EntityOps<T>::type());
    return EntityOps<T>::make(name);
  }
  // Reads the name, the first string of the input.
  static Ptr<Entity> newEntityForAttrLog(NboAttrLog::In& in) {
    return EntityOps<T>::make(in.nextString());
  }
  static std::unique_ptr<FlowOut> newFlowOut(EntitySa&, bool, AttributeId start) {
    return std::make_unique<FlowOut>(start);
  }
  // Sends from `start` on (0: from the first attribute). 0 when everything was sent, the
  // identifier to resume at when the stream asked to stop, 0xffffffff for an identifier
  // that the type does not have.
  static U32 handleAttrFlowOut(EntitySa& sa,
                               AttributeId start,
                               NboAttrLog::FlowOut* flow) {
    return sa.pump(start, flow);
  }
  static void streamAdapterOnAttribute(EntitySa& sa,
                                       AttributeId attribute,
                                       const void* key) {
    sa.onAttributeForConnection(attribute, key);
  }
  static void doHandleAttrDeserialization(EntitySa& sa,
                                          AttributeId attribute,
                                          NboAttrLog::In& in) {
    sa.handleAttrDeserialization(attribute, in);
  }
  static void doHandleAttrTransaction(EntitySa& sa,
                                      AttributeId attribute,
                                      NboAttrLog::MessageKind marker,
                                      NboAttrLog::In& in) {
    sa.received(marker, attribute, in);
  }
  static void freeResyncState(NboAttrLog::FlowOut& flow) { flow.freeResyncState(); }
  static void serializeConstructorParams(NboAttrLog::Out& out, const T& entity) {
    out.writeString(entity.name());
  }
  static U32 attrLogSizeCtorParams(const T& entity) { return 4 + entity.name().size(); }

  static bool genericIfAttributeOp(const KopAttr& attr,
                                   EntityOp op,
                                   Entity& entity,
                                   const void* key,
                                   const void* value,
                                   void* result) {
    return entityAttributeOp(attr, op, entity, key, value, result);
  }
  static std::unique_ptr<CollectionIterator> genericIfIterator(const KopAttr& attr,
                                                               Entity& entity) {
    return entityIterator(attr, entity);
  }
  static void iterInc(CollectionIterator& it) { it.iterInc(); }
  static const void* iterKey(const CollectionIterator& it) { return it.iterKey(); }
  static Ptr<Entity> iterObj(const CollectionIterator& it) { return it.iterObj(); }
  static bool iterNonnull(const CollectionIterator& it) { return it.iterNonnull(); }
  static void iterDel(CollectionIterator& it) { it.iterDel(); }
};

}  // namespace Kop

// At global scope, after KOP_MODULE. Two words, because a constructor's definition needs the
// class's own name.
#define KOP_INSTANTIATE_ENTITY(Namespace, Class)                                    \
  class Namespace::Class::FlowOut : public Kop::NboAttrLog::FlowOut {               \
   public:                                                                          \
    explicit FlowOut(Kop::AttributeId start)                                        \
        : Kop::NboAttrLog::FlowOut(Kop::EntityOps<Class>::table, start) {}          \
  };                                                                                \
  template <>                                                                       \
  Kop::FwkType Kop::EntityOps<Namespace::Class>::type() {                           \
    return {&KopHere::kopModule, KopHere::Types::indexOf<Namespace::Class>()};      \
  }                                                                                 \
  template struct Kop::EntityOps<Namespace::Class>;                                 \
  Namespace::Class::Class(const KopKey& key)                                        \
      : KopSuper(Kop::EntityOps<Class>::nameOf(key)) {                              \
    Kop::EntityOps<Class>::keyIs(*this, key);                                       \
  }                                                                                 \
  Namespace::Class::~Class() {                                                      \
    Kop::EntityOps<Class>::destroy(*this);                                          \
  }                                                                                 \
  Kop::FwkType Namespace::Class::fwkType() const {                                  \
    return Kop::EntityOps<Class>::type();                                           \
  }                                                                                 \
  Kop::AllocTrackTypeInfo& Namespace::Class::kopAllocTrack() {                      \
    static Kop::AllocTrackTypeInfo info(typeid(Class));                             \
    return info;                                                                    \
  }                                                                                 \
  void* Namespace::Class::operator new(std::size_t size) {                          \
    void* const object = kopMemAlloc(size);                                         \
    Kop::AllocTrackTypeInfo::trackAllocation(kopAllocTrack(), typeid(Class), size); \
    return object;                                                                  \
  }                                                                                 \
  void Namespace::Class::operator delete(void* object, std::size_t size) {          \
    Kop::AllocTrackTypeInfo::trackRelease(kopAllocTrack(), size);                   \
    kopMemFree(object);                                                             \
  }                                                                                 \
  static_assert(true)
