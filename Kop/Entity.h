#pragma once

#include <memory>
#include <type_traits>
#include <utility>

#include "Kop/Declare.h"
#include "Kop/Enum.h"
#include "Kop/GenericIf.h"
#include "Kop/HSet.h"
#include "Kop/HashMap2018.h"
#include "Kop/HashMap2018NodeInternalKey.h"
#include "Kop/Notifiee.h"
#include "Kop/Ptr.h"
#include "Kop/Value.h"

// Entities: objects with identity, named attributes, keyed collections and observers, held
// by Ptr. A type declares its rows (Declare.h) and derives from Entity; EntityImpl.h defines
// the bodies for the source that instantiates it with KOP_INSTANTIATE_ENTITY.
//
// A write compares, stores, then tells the observers; an equal write stops at the comparison.
//
// Threads  one thread at a time, the owner's; only references may be taken and dropped on
//          several, while threadSafePtrs() is on.

namespace Kop {

class EntitySa;
struct EntityTable;
namespace NboAttrLog {
class FlowOut;
}

template <class T>
concept EntityType = std::same_as<typename T::KopSelf, T> && T::kopKind == Kind::entity;

class KOP_EXPORT Entity : public PtrInterface {  // the base of all entities
 public:
  using KopNboAttrLogSa = EntitySa;

  NotifieeListIterator notifieeList() override;
  virtual const String& name() const;
  // Told after the parent link was set or cleared (null).
  virtual void handleParent(Ptr<Entity> parent);

  // The link does not own: a parent's collection owns its children.
  Entity* parent() const { return parent_; }
  void parentIs(Entity* parent);

  void notifieeAdd(Notifiee* notifiee) { notifiees_.add(notifiee); }
  void notifieeAddFirst(Notifiee* notifiee) { notifiees_.addFirst(notifiee); }
  void notifieeDel(Notifiee* notifiee) { notifiees_.del(notifiee); }
  U32 notifieeCount() const { return notifiees_.count(); }

  // Names this entity in every copy of it: drawn when it is made, kept by its replicas, and
  // never used again, so that a deleted and re-made entity is told from the old one.
  U64 identity() const { return identity_; }

  // A replica refuses local writes: setters throw, the attribute log does not ask.
  bool readOnlyProxy() const { return readOnly_; }
  void readOnlyProxyIs(bool readOnly) { readOnly_ = readOnly; }

  const EntityTable& kopTable() const;

 protected:
  explicit Entity(const String& name);
  ~Entity() override;

  void kopWritable() const {
    if (readOnly_) [[unlikely]]
      throwWriteUpdateFromReadOnlyProxyException();
  }
  void kopNotify(AttributeId attribute) { notifiees_.visit(attribute); }
  void kopNotify(AttributeId attribute, const void* key) {
    notifiees_.visit(attribute, key);
  }

 private:
  friend struct EntityAccess;
  friend class EntitySa;
  [[noreturn]] void throwWriteUpdateFromReadOnlyProxyException() const;
  void receivedIdentityIs(U64 identity) {
    identity_ = identity;
    identityIsReceived_ = true;
  }

  String name_;
  Entity* parent_ = nullptr;
  U64 identity_;
  bool identityIsReceived_ = false;  // the original's, from the attribute log
  bool readOnly_ = false;
  NotifieeList notifiees_;
};

template <U32 first, class... Base>
struct EntityLevel : Level<first> {
  using Super = Entity;
};
template <U32 first, class Base>
struct EntityLevel<first, Base> : Level<first, Base> {
  using Super = Base;
};

// The operations of one collection: number N of T. Typed and direct, because a map's set,
// look-up and delete are the data path. V is a Ptr for children, bool for sets.
//
// A key or value that refers into the collection itself may be given: it is copied before
// anything moves.
template <class T, U32 N, class K, class V>
struct KOP_EXPORT CollOps {
  using ValueType = V;
  static V get(const T& entity, const K& key);  // the default when absent
  static void set(T& entity, const K& key, const V& value);
  static V childIs(T& entity, const K& key);  // the child, made when absent
  static V del(T& entity, const K& key);      // what was removed, or the default
  static void delAll(T& entity);
  static bool serializeColl(const T& entity, EntitySa& sa, NboAttrLog::FlowOut* resync);
  static void serializeSing(const T& entity, EntitySa& sa, const K& key);
};

// The operations of an entity type.
template <class T>
struct KOP_EXPORT EntityOps {
  static Ptr<T> make(const String& name);  // notification-active from birth
  static FwkType type();
  static const EntityTable table;

  // For the instantiating source.
  template <class K>
  static T* construct(const K& key);
  static String nameOf(const typename T::KopKey& key);
  static void keyIs(T& entity, const typename T::KopKey& key);
  static void destroy(T& entity);
};

// What the bodies of the protocol need of any entity.
struct EntityAccess {
  static void notify(Entity& entity, AttributeId attribute) {
    entity.kopNotify(attribute);
  }
  static void notify(Entity& entity, AttributeId attribute, const void* key) {
    entity.kopNotify(attribute, key);
  }
  static void writable(const Entity& entity) { entity.kopWritable(); }
  static void notifieesDelAll(Entity& entity) { entity.notifiees_.deleteAll(); }
  [[noreturn]] KOP_EXPORT static void throwTrailing(const NboAttrLog::In& in);
};

// Names one attribute of one type to the runtime.
struct KopAttr {
  FwkType type;
  AttributeId attribute;
};

// Which numbers of T's own level are rows.
template <class T, U32 I = 0>
consteval U32 ownEntityRows() {
  if constexpr (HasRow<T, T::kopFirst + I>)
    return ownEntityRows<T, I + 1>();
  else
    return I;
}

// The classes named after the rows that others inherit: kopReaction, kopMixin. A number
// that has none gives an empty class of its own, since none may be inherited twice.
template <class T, U32 N>
concept HasReaction = requires {
  // Only named: nobody makes one, so it cannot be destroyed either.
  typename std::type_identity_t<decltype(T::kopReaction(Number<N>{}))>;
};
template <class T, U32 N>
concept HasMixin = requires {
  T::kopMixin(Number<N>{});
};
template <class T, U32 N>
struct NoMixin {};
template <class T, U32 N>
struct MixinAt : NoMixin<T, N> {};
template <class T, U32 N>
  requires HasMixin<T, N>
struct MixinAt<T, N> : decltype(T::kopMixin(Number<N>{})) {
};
template <class T, class Numbers>
struct OwnMixins;
template <class T, U32... I>
struct OwnMixins<T, std::integer_sequence<U32, I...>> : MixinAt<T, T::kopFirst + I>... {};
template <class T>
struct Mixins : Mixins<typename T::KopBase>,
                OwnMixins<T, std::make_integer_sequence<U32, ownEntityRows<T>()>> {};
template <>
struct Mixins<void> {};

// A function is a row to which nobody can react.
template <class T, U32 N>
struct ReactionAt {
  using Type = NoMixin<T, N>;
};
template <class T, U32 N>
  requires HasReaction<T, N>
struct ReactionAt<T, N> {
  using Type = decltype(T::kopReaction(Number<N>{}));
};

template <class T, class Numbers>
class OwnReactions;
template <class T, U32... I>
class OwnReactions<T, std::integer_sequence<U32, I...>>
    : public ReactionAt<T, T::kopFirst + I>::Type... {
 protected:
  ~OwnReactions() = default;
  template <class Derived>
  static bool react(Derived& self, AttributeId attribute, const void* key) {
    return (reactAt<T::kopFirst + I>(self, attribute, key) || ...);
  }

 private:
  template <U32 N, class Derived>
  static bool reactAt(Derived& self, AttributeId attribute, const void* key) {
    if (attribute != N) return false;
    if constexpr (HasReaction<T, N>)
      static_cast<typename ReactionAt<T, N>::Type&>(self).kopReact(key);
    return true;
  }
};
template <class T>
class Reactions
    : public Reactions<typename T::KopBase>,
      public OwnReactions<T, std::make_integer_sequence<U32, ownEntityRows<T>()>> {
 protected:
  ~Reactions() = default;
  template <class Derived>
  static void react(Derived& self, AttributeId attribute, const void* key) {
    using Own = OwnReactions<T, std::make_integer_sequence<U32, ownEntityRows<T>()>>;
    if (!Own::react(self, attribute, key))
      Reactions<typename T::KopBase>::react(self, attribute, key);
  }
};
template <>
class Reactions<void> {
 protected:
  ~Reactions() = default;
  template <class Derived>
  static void react(Derived&, AttributeId, const void*) {}
};

// An observer with one function per attribute of T, each empty until overridden:
//   struct Watch : Kop::Reactor<DecapGroup> {
//     using Reactor::Reactor;
//     void tunnelTypeReaction() override { ... notifier()->tunnelType() ... }
//     void decapIpReaction(const Vantor::IpGenAddr& ip) override { ... }
//   };
//
// Owner    holds a reference to the entity, so it never hears of its end; it leaves when it
//          is destroyed or given another notifier.
template <EntityType T>
class Reactor : public Notifiee, public Reactions<T> {
 public:
  Reactor() = default;
  explicit Reactor(const Ptr<T>& notifier) { notifierIs(notifier); }
  ~Reactor() override { notifierIs(nullptr); }
  Reactor(const Reactor&) = delete;
  Reactor& operator=(const Reactor&) = delete;

  const Ptr<T>& notifier() const { return notifier_; }
  void notifierIs(const Ptr<T>& notifier) {
    if (notifier_) notifier_->notifieeDel(this);
    notifier_ = notifier;
    if (notifier_) notifier_->notifieeAdd(this);
  }
  void onAttribute(AttributeId attribute) final {
    Reactions<T>::react(*this, attribute, nullptr);
  }
  void onAttribute(AttributeId attribute, const void* key) final {
    Reactions<T>::react(*this, attribute, key);
  }

 private:
  Ptr<T> notifier_;
};

}  // namespace Kop
