#pragma once

#include <string_view>

#include "Kop/Types.h"

// The rows of which a type is declared, and what each of them becomes.
//
// A row emits the member, its accessors and kopMember(Number<N>), a description of the member
// that is found by its number. Nothing else is generated: equality, order, hash, text, parser,
// log, reflection, module descriptor and digest are templates over those descriptions.
//
//   Mistake                      What the compiler says
//   number written twice         "cannot be overloaded", at the second row
//   number of another level      static_assert in the row
//   gap in the numbers           static_assert where the type is instantiated
//   wrong digest of the module   static_assert that shows the digest it wants

namespace Kop {

// What a row says of its member. Structural, so usable at compile time.
template <class Class, class T>
struct Attr {
  using Owner = Class;
  using Type = T;
  const char* name;
  U32 number;
  T Class::*member;
};
class String;
// As what a constant stands in the program: nothing runs at load, so a text is no String.
template <class T>
struct KeptConstant {
  using Type = T;
};
template <>
struct KeptConstant<String> {
  using Type = std::string_view;
};
template <class T>
struct Constant {
  using Type = T;
  const char* name;
  U32 number;
  const typename KeptConstant<T>::Type* value;
};
template <class F>  // F is a pointer to a member function or to a static one
struct Function {
  using Type = F;
  const char* name;
  U32 number;
  F function;
};

enum class CollectionKind : U8 { valueMap, internalMap, set, children };

template <class Class, class M, class O, CollectionKind kind_>
struct Collection {
  using Owner = Class;
  using Map = M;
  using Ops = O;  // CollOps of this collection
  static constexpr CollectionKind kind = kind_;
  const char* name;
  U32 number;
  M Class::*member;
};

template <U32 first, class... Base>
struct Level {
  using KopBase = void;
  static constexpr U32 kopFirst = first;
};
template <U32 first, class Base>
struct Level<first, Base> {
  using KopBase = Base;
  static constexpr U32 kopFirst = Base::kopFirst + numbersPerLevel;
};

constexpr bool numberIsOwn(U32 number, U32 first) {
  return number >= first && number < first + numbersPerLevel;
}

}  // namespace Kop

// ---------------------------------------------------------------------------------------
// Enumerations
// ---------------------------------------------------------------------------------------

// KOP_ENUM(TunnelTransportType, U8, unknownTunnel = 0, mplsTunnel = 1), in its namespace:
// the enumeration, its list as text, and the six operations. Unscoped with a fixed width, so
// that any number of the width is a legal value.
#define KOP_ENUM(E, Width, ...)                                                  \
  enum KOP_EXPORT E : Width { __VA_ARGS__ };                                     \
  constexpr const char* kopEnumerators(E) {                                      \
    return #__VA_ARGS__;                                                         \
  }                                                                              \
  inline E E##Instance(U32 number) {                                             \
    return Kop::EnumOps<E>::instance(number);                                    \
  }                                                                              \
  inline E E##Instance(const Kop::String& name) {                                \
    return Kop::EnumOps<E>::instance(name);                                      \
  }                                                                              \
  inline void sequenceToValue(Kop::TextIt& it, const Kop::TextIt& end, E* out) { \
    *out = Kop::EnumOps<E>::read(it, end);                                       \
  }                                                                              \
  inline Kop::String valueToStrep(E value) {                                     \
    return Kop::strepOf(value);                                                  \
  }                                                                              \
  inline Kop::String stringValue(E value) {                                      \
    return Kop::strepOf(value);                                                  \
  }                                                                              \
  inline std::ostream& operator<<(std::ostream& out, E value) {                  \
    return Kop::writeText(out, Kop::strepOf(value));                             \
  }                                                                              \
  static_assert(true)

// ---------------------------------------------------------------------------------------
// Values
// ---------------------------------------------------------------------------------------

// KOP_VALUE(HwTunnelKey) or KOP_VALUE(TunnelVia, Via), first line of a value:
//   using KopSelf = HwTunnelKey;  using KopBase = ...;  kopFirst, kopKind
//   HwTunnelKey();  HwTunnelKey(all attributes of a record);
//   HwTunnelKey(TextIt&, const TextIt&);  explicit HwTunnelKey(NboAttrLog::In&);
#define KOP_VALUE(Class, ...)                                                            \
 public:                                                                                 \
  using KopSelf = Class;                                                                 \
  using KopBase = Kop::Level<Kop::firstValueNumber __VA_OPT__(, ) __VA_ARGS__>::KopBase; \
  static constexpr U32 kopFirst =                                                        \
      Kop::Level<Kop::firstValueNumber __VA_OPT__(, ) __VA_ARGS__>::kopFirst;            \
  static constexpr Kop::Kind kopKind = Kop::Kind::value;                                 \
  Class() = default;                                                                     \
  template <class... Args>                                                               \
    requires Kop::AllAttributes<Class, Args...> Class(const Args&... args) {             \
      Kop::assignAll(*this, args...);                                                    \
    }                                                                                    \
  Class(Kop::TextIt& it, const Kop::TextIt& end) {                                       \
    Kop::ValueOps<Class>::parse(*this, it, end);                                         \
  }                                                                                      \
  explicit Class(Kop::NboAttrLog::In& in) {                                              \
    Kop::ValueOps<Class>::logRead(*this, in);                                            \
  }                                                                                      \
  static_assert(true)

// KOP_ATTR(2, U64, index) with an optional default:
//   const U64& index() const;  void indexIs(const U64&);  U64 index_{};
#define KOP_ATTR(N, T, name, ...) \
 public:                          \
  void name##Is(const T& v) {     \
    name##_ = v;                  \
  }                               \
  KOP_WRAPPED(N, T, name, __VA_ARGS__)

// KOP_WRAPPED(2, U64, value): an attribute that only constructors set; for wrappers.
#define KOP_WRAPPED(N, T, name, ...)                                  \
 public:                                                              \
  constexpr const T& name() const {                                   \
    return name##_;                                                   \
  }                                                                   \
  KOP_ROW_(N, (Kop::Attr<KopSelf, T>), {#name, N, &KopSelf::name##_}) \
 private:                                                             \
  T name##_ {                                                         \
    __VA_ARGS__                                                       \
  }

// KOP_CONSTANT(4, U32, typeMin, 0):  static constexpr U32 typeMin = 0;
// One of type Kop::String is a std::string_view.
#define KOP_CONSTANT(N, T, name, ...)                            \
 public:                                                         \
  static constexpr Kop::KeptConstant<T>::Type name{__VA_ARGS__}; \
  KOP_ROW_(N, (Kop::Constant<T>), {#name, N, &KopSelf::name})    \
  static_assert(true)

// KOP_FUNCTION(4, U32, hash, U32 seed):  U32 hash(U32 seed) const;
// Its body stands in the source, or inline below the class.
#define KOP_FUNCTION(N, R, name, ...)                             \
 public:                                                          \
  R name(__VA_ARGS__) const;                                      \
  KOP_ROW_(N, (Kop::Function<R (KopSelf::*)(__VA_ARGS__) const>), \
           {#name, N, &KopSelf::name})                            \
  static_assert(true)

// KOP_METHOD(20, convertToTunnelValue) describes a member declared by hand above it:
// a static or a changing one.
#define KOP_METHOD(N, name)                                                          \
 public:                                                                             \
  KOP_ROW_(N, (Kop::Function<decltype(&KopSelf::name)>), {#name, N, &KopSelf::name}) \
  static_assert(true)

// KOP_REDEFINED(4, U32, hash) in a derived value: a function of the base written anew,
// under the base's number.
#define KOP_REDEFINED(N, R, name, ...)                                                \
 public:                                                                              \
  R name(__VA_ARGS__) const;                                                          \
  static constexpr Kop::Function<R (KopSelf::*)(__VA_ARGS__) const> kopRedefined(     \
      Kop::Number<N>) {                                                               \
    static_assert(N < kopFirst, "a redefined function keeps the number of its base"); \
    return {#name, N, &KopSelf::name};                                                \
  }                                                                                   \
  static_assert(true)

// KOP_SET(3, excludeIntf, ExcludeIntf, Vantor::IntfId): a set that is part of a value.
//   excludeIntf() the set;  excludeIntfHas, excludeIntfIs, excludeIntfDel, excludeIntfDelAll
#define KOP_SET(N, name, Name, K)         \
 public:                                  \
  using Kop##Name##Set = Kop::HSet<K>;    \
  using Kop##Name = Kop##Name##Set::Node; \
  bool name##Has(const K& key) const {    \
    return name##_.has(key);              \
  }                                       \
  void name##Is(const K& key) {           \
    name##_.is(key);                      \
  }                                       \
  void name##Del(const K& key) {          \
    name##_.del(key);                     \
  }                                       \
  void name##DelAll() {                   \
    name##_.clear();                      \
  }                                       \
  KOP_WRAPPED(N, Kop##Name##Set, name)

// KOP_MAP(2, via, Via, TunnelTable::Via, bool): a hash map that is part of a value.
#define KOP_MAP(N, name, Name, K, V)                     \
 public:                                                 \
  struct Kop##Name : Kop::MapNode<K, V> {                \
    using Kop::MapNode<K, V>::MapNode;                   \
  };                                                     \
  using Kop##Name##Map = Kop::HashMap2018<Kop##Name, K>; \
  KOP_VALUE_MAP_ACCESS_(name, K, V)                      \
  KOP_WRAPPED(N, Kop##Name##Map, name)

// KOP_ORDERED_MAP(4, via, Via, MplsVia, bool): a map in the order of its keys' `<`.
#define KOP_ORDERED_MAP(N, name, Name, K, V)       \
 public:                                           \
  using Kop##Name##Map = Kop::RbTreeMap<K, V>;     \
  using Kop##Name = Kop##Name##Map::Node;          \
  V name(const K& key) const {                     \
    const Kop##Name* node = name##_.find(key);     \
    return node ? node->value() : V();             \
  }                                                \
  bool name##Has(const K& key) const {             \
    return name##_.has(key);                       \
  }                                                \
  void name##Is(const K& key, const V& value) {    \
    if (Kop##Name* const node = name##_.find(key)) \
      node->valueIs(value);                        \
    else                                           \
      name##_.insert(key, value);                  \
  }                                                \
  void name##Del(const K& key) {                   \
    name##_.del(key);                              \
  }                                                \
  void name##DelAll() {                            \
    name##_.clear();                               \
  }                                                \
  KOP_WRAPPED(N, Kop##Name##Map, name)

// KOP_ARRAY(7, endpoint, Endpoint, IpGenPrefix, TepIndex, 16): up to 16 elements that stand
// in the value itself. Include Kop/PodArray.h, which tells their rules.
//   endpoint() the array;  endpoint(i) or a default element;  endpointIs(i, element)
//   endpointDel(i or iterator), what was removed;  endpointDelAll
//   endpointIteratorConst()
#define KOP_ARRAY(N, name, Name, T, Index, size)                \
 public:                                                        \
  using Kop##Name##Array = Kop::PodArray<T, Index, size>;       \
  T name(const Index& index) const {                            \
    return name##_.get(index);                                  \
  }                                                             \
  Kop##Name##Array::IteratorConst name##IteratorConst() const { \
    return name##_.iteratorConst();                             \
  }                                                             \
  void name##Is(const Index& index, const T& element) {         \
    name##_.set(index, element);                                \
  }                                                             \
  T name##Del(const Index& index) {                             \
    return name##_.del(index);                                  \
  }                                                             \
  T name##Del(const Kop##Name##Array::IteratorConst& it) {      \
    return name##_.del(it);                                     \
  }                                                             \
  void name##DelAll() {                                         \
    name##_.delAll();                                           \
  }                                                             \
  KOP_WRAPPED(N, Kop##Name##Array, name)

// ---------------------------------------------------------------------------------------
// Entities
// ---------------------------------------------------------------------------------------

// KOP_ENTITY(DecapGroup) or KOP_ENTITY(NexthopTunnelTable, TunnelTableBase), first line of
// an entity: the aliases as for values, the nested FlowOut, constructor, destructor,
// fwkType, allocation counted per class. A factory is a row of its own: KOP_FACTORY.
#define KOP_ENTITY(Class, ...)                                \
  KOP_ENTITY_(Class, Kop::String __VA_OPT__(, ) __VA_ARGS__); \
  static_assert(true)

// KOP_KEYED_ENTITY(TunnelNameStatus, TunnelType, tunnelType): an entity whose identity is
// not a name; name() is the text of its key. It lives in a collection keyed by K.
//   const TunnelType& tunnelType() const;
#define KOP_KEYED_ENTITY(Class, K, key) \
  KOP_ENTITY_(Class, K);                \
                                        \
 public:                                \
  const K& key() const {                \
    return kopKey_;                     \
  }                                     \
                                        \
 private:                               \
  friend struct Kop::EntityOps<Class>;  \
  K kopKey_{};                          \
  static_assert(true)

#define KOP_ENTITY_(Class, Key, ...)                                                 \
 public:                                                                             \
  using KopSelf = Class;                                                             \
  using KopKey = Key;                                                                \
  using KopBase =                                                                    \
      Kop::EntityLevel<Kop::firstEntityNumber __VA_OPT__(, ) __VA_ARGS__>::KopBase;  \
  using KopSuper =                                                                   \
      Kop::EntityLevel<Kop::firstEntityNumber __VA_OPT__(, ) __VA_ARGS__>::Super;    \
  static constexpr U32 kopFirst =                                                    \
      Kop::EntityLevel<Kop::firstEntityNumber __VA_OPT__(, ) __VA_ARGS__>::kopFirst; \
  static constexpr Kop::Kind kopKind = Kop::Kind::entity;                            \
  class FlowOut;                                                                     \
  Kop::FwkType fwkType() const override;                                             \
  static Kop::AllocTrackTypeInfo& kopAllocTrack();                                   \
  static void* operator new(std::size_t size);                                       \
  static void operator delete(void* object, std::size_t size);                       \
                                                                                     \
 protected:                                                                          \
  friend struct Kop::EntityOps<Class>;                                               \
  explicit Class(const KopKey& key);                                                 \
  ~Class() override

// KOP_FACTORY(ConfigInput) behind KOP_ENTITY, for what may stand alone:
//   static Kop::Ptr<ConfigInput> ConfigInputIs(const Kop::String& name);
// The free function configInputFactory is declared beside it by KOP_FACTORY_FUNCTION.
#define KOP_FACTORY(Class)                                    \
 public:                                                      \
  static Kop::Ptr<Class> Class##Is(const Kop::String& name) { \
    return Kop::EntityOps<Class>::make(name);                 \
  }                                                           \
  static_assert(true)

// KOP_FACTORY_FUNCTION(configInputFactory, ConfigInput), after the class, in its namespace.
#define KOP_FACTORY_FUNCTION(function, Class)                \
  inline Kop::Ptr<Class> function(const Kop::String& name) { \
    return Kop::EntityOps<Class>::make(name);                \
  }                                                          \
  static_assert(true)

// KOP_SCALAR(261, TunnelType, tunnelType) with an optional default. The setter compares,
// stores, then tells the notifiees.
//   tunnelType();  tunnelTypeIs(v);  Kop::Reactor<..>::tunnelTypeReaction()
#define KOP_SCALAR(N, T, name, ...)                                   \
 public:                                                              \
  const T& name() const {                                             \
    return name##_;                                                   \
  }                                                                   \
  void name##Is(const T& v) {                                         \
    if (name##_ == v) return;                                         \
    kopWritable();                                                    \
    name##_ = v;                                                      \
    kopNotify(N);                                                     \
  }                                                                   \
  struct KOP_PASTE_(KopReaction_, name) {                             \
    virtual void name##Reaction() {}                                  \
    void kopReact(const void*) { name##Reaction(); }                  \
                                                                      \
   protected:                                                         \
    ~KOP_PASTE_(KopReaction_, name)() = default;                      \
  };                                                                  \
  static KOP_PASTE_(KopReaction_, name) kopReaction(Kop::Number<N>);  \
  static T kopDefault(Kop::Number<N>) {                               \
    return T{__VA_ARGS__};                                            \
  }                                                                   \
  KOP_ROW_(N, (Kop::Attr<KopSelf, T>), {#name, N, &KopSelf::name##_}) \
 private:                                                             \
  T name##_ {                                                         \
    __VA_ARGS__                                                       \
  }

// KOP_VALUE_MAP(259, decapIntf, DecapIntf, DecapIntfKey, DecapIntf):
//   struct KopDecapIntf (the node);  decapIntf() the map;  decapIntf(key) or the default;
//   decapIntfHas, decapIntfCount, decapIntfIs, decapIntfDel, decapIntfDelAll
//   TypeImpl<..>::kopHandleDecapIntfSerializeColl, ...SerializeSing
//   Reactor<..>::decapIntfReaction(key)
#define KOP_VALUE_MAP(N, name, Name, K, V)                              \
  KOP_COLLECTION_(N, name, Name, K, V, (Kop::MapNode<K, V>), valueMap); \
                                                                        \
 public:                                                                \
  V name(const K& key) const {                                          \
    return Kop##Name##Ops::get(*this, key);                             \
  }                                                                     \
  void name##Is(const K& key, const V& value) {                         \
    Kop##Name##Ops::set(*this, key, value);                             \
  }                                                                     \
  V name##Del(const K& key) {                                           \
    return Kop##Name##Ops::del(*this, key);                             \
  }                                                                     \
  static_assert(true)

// KOP_SET_MAP(258, decapIp, DecapIp, IpGenAddr): a value map of booleans. An entry is
// present whatever its boolean says.
#define KOP_SET_MAP(N, name, Name, K) KOP_VALUE_MAP(N, name, Name, K, bool)

// KOP_INTERNAL_MAP(258, tableInfo, TableInfo, String, TunnelTableInfo, tableName): the
// key is read from the value, by TableInfoKeyFunktor; the setter takes the value alone.
#define KOP_INTERNAL_MAP(N, name, Name, K, V, keyAttribute)                          \
 public:                                                                             \
  struct Name##KeyFunktor {                                                          \
    decltype(auto) operator()(const V& value) const { return value.keyAttribute(); } \
  };                                                                                 \
  KOP_COLLECTION_(N, name, Name, K, V,                                               \
                  (Kop::HashMap2018NodeInternalKey<K, V, Name##KeyFunktor>),         \
                  internalMap);                                                      \
                                                                                     \
 public:                                                                             \
  V name(const K& key) const {                                                       \
    return Kop##Name##Ops::get(*this, key);                                          \
  }                                                                                  \
  void name##Is(const V& value) {                                                    \
    Kop##Name##Ops::set(*this, Name##KeyFunktor()(value), value);                    \
  }                                                                                  \
  V name##Del(const K& key) {                                                        \
    return Kop##Name##Ops::del(*this, key);                                          \
  }                                                                                  \
  static_assert(true)

// KOP_VALUE_SET(260, tunnelIdNamePair, TunnelIdNamePair, TunnelIdNamePair): a set of values.
// The boolean of the setter is there for symmetry with set-like maps: the entry counts by
// presence.
#define KOP_VALUE_SET(N, name, Name, K)                             \
  KOP_COLLECTION_(N, name, Name, K, bool, (Kop::HSetNode<K>), set); \
                                                                    \
 public:                                                            \
  bool name(const K& key) const {                                   \
    return name##Has(key);                                          \
  }                                                                 \
  void name##Is(const K& key, bool = true) {                        \
    Kop##Name##Ops::set(*this, key, true);                          \
  }                                                                 \
  bool name##Del(const K& key) {                                    \
    return Kop##Name##Ops::del(*this, key);                         \
  }                                                                 \
  static_assert(true)

// KOP_CHILDREN(259, decapGroup, DecapGroup, String, DecapGroup, name): entities made by
// their key, which DecapGroupKeyFunktor reads from the child.
#define KOP_CHILDREN(N, collection, Name, K, Child, keyAttribute)              \
 public:                                                                       \
  struct Name##KeyFunktor {                                                    \
    decltype(auto) operator()(const Kop::Ptr<Child>& child) const {            \
      return child->keyAttribute();                                            \
    }                                                                          \
  };                                                                           \
  KOP_COLLECTION_(                                                             \
      N, collection, Name, K, Kop::Ptr<Child>,                                 \
      (Kop::HashMap2018NodeInternalKey<K, Kop::Ptr<Child>, Name##KeyFunktor>), \
      children);                                                               \
                                                                               \
 public:                                                                       \
  Kop::Ptr<Child> collection(const K& key) const {                             \
    return Kop##Name##Ops::get(*this, key);                                    \
  }                                                                            \
  Kop::Ptr<Child> collection##Is(const K& key) {                               \
    return Kop##Name##Ops::childIs(*this, key);                                \
  }                                                                            \
  Kop::Ptr<Child> collection##Del(const K& key) {                              \
    return Kop##Name##Ops::del(*this, key);                                    \
  }                                                                            \
  static_assert(true)

// ---------------------------------------------------------------------------------------
// What the rows share
// ---------------------------------------------------------------------------------------

#define KOP_PASTE_(a, b) a##b
#define KOP_UNWRAP_(...) __VA_ARGS__

#define KOP_ROW_(N, Description, ...)                                        \
  static constexpr KOP_UNWRAP_ Description kopMember(Kop::Number<N>) {       \
    static_assert(Kop::numberIsOwn(N, kopFirst), "number of another level"); \
    return __VA_ARGS__;                                                      \
  }

#define KOP_VALUE_MAP_ACCESS_(name, K, V)                  \
  V name(const K& key) const {                             \
    const auto* node = name##_.find(key);                  \
    return node ? node->value : V();                       \
  }                                                        \
  bool name##Has(const K& key) const {                     \
    return name##_.find(key) != nullptr;                   \
  }                                                        \
  void name##Is(const K& key, const V& value) {            \
    const auto [node, isNew] = name##_.insert(key, value); \
    if (!isNew) node->value = value;                       \
  }                                                        \
  void name##Del(const K& key) {                           \
    name##_.erase(key);                                    \
  }                                                        \
  void name##DelAll() {                                    \
    name##_.clear();                                       \
  }

// The node, the map, the functions named after the collection for the attribute log
// (kopMixin, inherited by TypeImpl) and the observer's reaction (kopReaction, inherited by
// Reactor). CollOps is declared in Entity.h, defined in EntityImpl.h and exported by the
// source that instantiates the entity; calls are direct.
#define KOP_COLLECTION_(N, name, Name, K, V, Base, kind)                            \
 public:                                                                            \
  struct Kop##Name : KOP_UNWRAP_ Base {                                             \
    using KopNodeBase = KOP_UNWRAP_ Base;                                           \
    using KopNodeBase::KopNodeBase;                                                 \
  };                                                                                \
  using Kop##Name##Map = Kop::HashMap2018<Kop##Name, K>;                            \
  using Kop##Name##Ops = Kop::CollOps<KopSelf, N, K, KOP_UNWRAP_(V)>;               \
  struct Kop##Name##Mixin {                                                         \
    static bool kopHandle##Name##SerializeColl(const KopSelf& entity,               \
                                               Kop::EntitySa& sa,                   \
                                               Kop::NboAttrLog::FlowOut* resync) {  \
      return Kop##Name##Ops::serializeColl(entity, sa, resync);                     \
    }                                                                               \
    static void kopHandle##Name##SerializeSing(const KopSelf& entity,               \
                                               Kop::EntitySa& sa,                   \
                                               const K& key) {                      \
      Kop##Name##Ops::serializeSing(entity, sa, key);                               \
    }                                                                               \
  };                                                                                \
  static Kop##Name##Mixin kopMixin(Kop::Number<N>);                                 \
  struct Kop##Name##Reaction {                                                      \
    virtual void name##Reaction(const K&) {}                                        \
    void kopReact(const void* key) { name##Reaction(*static_cast<const K*>(key)); } \
                                                                                    \
   protected:                                                                       \
    ~Kop##Name##Reaction() = default;                                               \
  };                                                                                \
  static Kop##Name##Reaction kopReaction(Kop::Number<N>);                           \
  KOP_ROW_(N,                                                                       \
           (Kop::Collection<KopSelf, Kop##Name##Map, Kop##Name##Ops,                \
                            Kop::CollectionKind::kind>),                            \
           {#name, N, &KopSelf::name##_})                                           \
  const Kop##Name##Map& name() const {                                              \
    return name##_;                                                                 \
  }                                                                                 \
  bool name##Has(const K& key) const {                                              \
    return name##_.find(key) != nullptr;                                            \
  }                                                                                 \
  U32 name##Count() const {                                                         \
    return name##_.count();                                                         \
  }                                                                                 \
  Kop##Name##Map::IteratorConst name##IteratorConst() const {                       \
    return name##_.iteratorConst();                                                 \
  }                                                                                 \
  Kop##Name##Map::Iterator name##Iterator() {                                       \
    return name##_.iterator();                                                      \
  }                                                                                 \
  void name##DelAll() {                                                             \
    Kop##Name##Ops::delAll(*this);                                                  \
  }                                                                                 \
                                                                                    \
 private:                                                                           \
  Kop##Name##Map name##_
