#pragma once

#include "Kop/CollectionImpl.h"

// The bodies of the entity protocol. Included by the source that instantiates the type,
// before Kop/ModuleImpl.h.

namespace Kop {

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
// Takes out the children of T's own rows, then of its bases'.
template <class T, class Level>
void childrenDelAll(T& entity) {
  if constexpr (!std::same_as<Level, void>) {
    [&]<U32... I>(std::integer_sequence<U32, I...>) {
      const auto clear = [&]<U32 N>(Number<N>) {
        if constexpr (CollectionRow<decltype(Level::kopMember(Number<N>{}))>)
          if constexpr (CollBody<Level, N>::isChildren)
            CollBody<Level, N>::removeAll(entity);
      };
      (clear(Number<Level::kopFirst + I>{}), ...);
    }
    (std::make_integer_sequence<U32, ownRows<Level>()>{});
    childrenDelAll<T, typename Level::KopBase>(entity);
  }
}
// Children first, each told; then the observers; the maps go with the members, in reverse
// order of declaration. The most derived type does it for its bases: when their turn comes,
// nobody listens any more.
template <class T>
void EntityOps<T>::destroy(T& entity) {
  childrenDelAll<T, T>(entity);
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
