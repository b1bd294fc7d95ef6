#pragma once

#include <algorithm>
#include <new>
#include <tuple>

#include "Kop/ValueImpl.h"

// The reflection tables of values and enumerations, built from the rows. Included through
// ValueImpl.h; entities add theirs in EntityImpl.h.

namespace Kop {

template <class A>
struct TypeOpsOf;

template <class A>
consteval std::string_view attrTypeName() {
  if constexpr (isHashSet<A>)
    return "Kop::HSet";
  else if constexpr (isHashMap<A>)
    return "Kop::HashMap2018";
  else if constexpr (isOrderedMap<A>)
    return "Kop::RbTreeMap";
  else if constexpr (isPodArray<A>)
    return "Kop::PodArray";
  else
    return typeName<A>();
}

template <ValueCollection A>
struct ElementOpsOf {
  static const A& of(const void* collection) {
    return *static_cast<const A*>(collection);
  }
  static U32 count(const void* collection) { return of(collection).count(); }
  static void each(const void* collection,
                   void* context,
                   void (*visit)(void* context, const void* key, const void* value)) {
    for (const auto& node : of(collection)) {
      const auto& key = node.key();
      if constexpr (isHashSet<A>)
        visit(context, &key, nullptr);
      else if constexpr (isHashMap<A>)
        visit(context, &key, &node.value);
      else
        visit(context, &key, &node.value());
    }
  }
  static void insert(void* collection, const void* key, const void* value) {
    A& a = *static_cast<A*>(collection);
    if constexpr (isHashSet<A>) {
      a.is(*static_cast<const typename A::Key*>(key));
    } else if constexpr (isHashMap<A>) {
      const auto& v = *static_cast<const typename A::Node::ValueType*>(value);
      const auto [node, isNew] = a.insert(*static_cast<const typename A::Key*>(key), v);
      if (!isNew) node->value = v;
    } else {
      const auto& k = *static_cast<const typename A::KeyType*>(key);
      if (!a.has(k)) a.insert(k, *static_cast<const typename A::ValueType*>(value));
    }
  }
  static constexpr const TypeOps* keyOps() {
    if constexpr (isOrderedMap<A>)
      return &TypeOpsOf<typename A::KeyType>::ops;
    else
      return &TypeOpsOf<typename A::Key>::ops;
  }
  static constexpr const TypeOps* valueOps() {
    if constexpr (isOrderedMap<A>)
      return &TypeOpsOf<typename A::ValueType>::ops;
    else if constexpr (isHashMap<A>)
      return &TypeOpsOf<typename A::Node::ValueType>::ops;
    else
      return nullptr;
  }
  static constexpr std::string_view valueName() {
    if constexpr (isHashSet<A>)
      return "bool";
    else
      return valueOps()->name;
  }
  static constexpr std::array<std::string_view, 1> keyNames{keyOps()->name};
  static constexpr ElementOps ops{keyOps(), valueOps(), count, each, insert};
};

// Elements of an array by index. One that is put behind the last makes those between them
// default elements.
template <class A>
struct ArrayElementOpsOf {
  using Index = typename A::IndexType;
  static U32 count(const void* array) { return static_cast<const A*>(array)->count(); }
  static void each(const void* array,
                   void* context,
                   void (*visit)(void* context, const void* key, const void* value)) {
    for (auto it = static_cast<const A*>(array)->iteratorConst(); it; it.advance()) {
      const Index index = it.key();
      visit(context, &index, &it.value());
    }
  }
  static void insert(void* array, const void* key, const void* value) {
    static_cast<A*>(array)->set(*static_cast<const Index*>(key),
                                *static_cast<const typename A::Element*>(value));
  }
  static constexpr std::array<std::string_view, 1> keyNames{typeName<Index>()};
  static constexpr ElementOps ops{
      &TypeOpsOf<Index>::ops, &TypeOpsOf<typename A::Element>::ops, count, each, insert};
};

template <class A>
struct TypeOpsOf {
  static const A& of(const void* value) { return *static_cast<const A*>(value); }
  static A& of(void* value) { return *static_cast<A*>(value); }

  static void construct(void* at, const void* from) {
    if (from)
      new (at) A(of(from));
    else
      new (at) A{};
  }
  static void destruct(void* value) { of(value).~A(); }
  static void assign(void* to, const void* from) { of(to) = of(from); }
  static bool equal(const void* a, const void* b) { return of(a) == of(b); }
  static bool less(const void* a, const void* b) {
    if constexpr (!ValueCollection<A> && requires { of(a) < of(b); })
      return of(a) < of(b);
    else
      throw UnorderedTypeException(attrTypeName<A>());
  }
  static U32 hash(const void* value) {
    if constexpr (ValueType<A>)
      return ValueOps<A>::hash(of(value), 0);
    else if constexpr (BuiltIn<A> || std::is_enum_v<A>)
      return hashSingleAttr(of(value), 0);
    else if constexpr (HashableAttr<A> && requires { of(value).hash(); })
      return of(value).hash();
    else
      throw UnhashableTypeException(attrTypeName<A>());
  }
  static bool truth(const void* value) {
    if constexpr (ValueType<A>)
      return ValueOps<A>::truth(of(value));
    else
      return attrTruth(of(value));
  }
  static void text(TextOut& out, const void* value) { attrText(out, of(value)); }
  static void parse(void* value, TextIt& it, const TextIt& end, const char* name) {
    attrParse(of(value), it, end, name);
  }
  static void logWrite(NboAttrLog::Out& out, const void* value) {
    attrLogWrite(out, of(value));
  }
  static void logRead(void* value, NboAttrLog::In& in) { of(value) = attrLogRead<A>(in); }

  static constexpr const ElementOps* elements() {
    if constexpr (ValueCollection<A>)
      return &ElementOpsOf<A>::ops;
    else if constexpr (isPodArray<A> && !isByteArray<A>)
      return &ArrayElementOpsOf<A>::ops;
    else
      return nullptr;
  }
  static constexpr TypeOps ops{attrTypeName<A>(),
                               sizeof(A),
                               alignof(A),
                               construct,
                               destruct,
                               assign,
                               equal,
                               less,
                               hash,
                               truth,
                               text,
                               parse,
                               logWrite,
                               logRead,
                               elements()};
};

// A buffer's address, which only functions take: it is copied and compared, and nothing of it
// can be kept or sent.
template <class P>
struct TypeOpsOf<P*> {
  using A = P*;
  static A of(const void* value) { return *static_cast<const A*>(value); }
  [[noreturn]] static void refuse() {
    throw Exception(stringPrintf("%s has no text and no log form",
                                 std::string(typeName<A>()).c_str()));
  }

  static void construct(void* at, const void* from) {
    new (at) A{from ? of(from) : nullptr};
  }
  static void destruct(void*) {}
  static void assign(void* to, const void* from) { *static_cast<A*>(to) = of(from); }
  static bool equal(const void* a, const void* b) { return of(a) == of(b); }
  static bool less(const void*, const void*) {
    throw UnorderedTypeException(typeName<A>());
  }
  static U32 hash(const void*) { throw UnhashableTypeException(typeName<A>()); }
  static bool truth(const void* value) { return of(value) != nullptr; }
  static void text(TextOut&, const void*) { refuse(); }
  static void parse(void*, TextIt&, const TextIt&, const char*) { refuse(); }
  static void logWrite(NboAttrLog::Out&, const void*) { refuse(); }
  static void logRead(void*, NboAttrLog::In&) { refuse(); }

  static constexpr TypeOps ops{typeName<A>(), sizeof(A), alignof(A), construct, destruct,
                               assign,        equal,     less,       hash,      truth,
                               text,          parse,     logWrite,   logRead,   nullptr};
};

// A function row, taken apart.
template <class F>
struct Signature;
template <class R, class... A>
struct Signature<R (*)(A...)> {
  using Result = R;
  using Arguments = std::tuple<std::remove_cvref_t<A>...>;
  using Class = void;
  static constexpr bool isStatic = true, changes = false;
};
template <class R, class C, class... A>
struct Signature<R (C::*)(A...)> : Signature<R (*)(A...)> {
  using Class = C;
  static constexpr bool isStatic = false, changes = true;
};
template <class R, class C, class... A>
struct Signature<R (C::*)(A...) const> : Signature<R (*)(A...)> {
  using Class = C;
  static constexpr bool isStatic = false, changes = false;
};

template <class Arguments>
struct ArgumentOps;
template <class... A>
struct ArgumentOps<std::tuple<A...>> {
  static constexpr std::array<std::string_view, sizeof...(A)> names{typeName<A>()...};
  static constexpr std::array<const TypeOps*, sizeof...(A)> ops{&TypeOpsOf<A>::ops...};
};

template <class T>
concept EntityClass = requires {
  T::kopKind;
}
&&T::kopKind == Kind::entity;

// One row of an entity, in EntityImpl.h.
template <class D, U32 N>
struct EntityRow;

// An untyped object as its type: values are given as themselves, entities as their base.
template <class T, class E = Entity>
T* selfOf(void* self) {
  if constexpr (EntityClass<T>)
    return static_cast<T*>(static_cast<E*>(self));
  else
    return static_cast<T*>(self);
}

// T is the type asked, D the base or itself that holds the row of number N.
template <class T, class D, U32 N, bool redefined>
struct RowOps {
  static constexpr auto row() {
    if constexpr (redefined)
      return D::kopRedefined(Number<N>{});
    else
      return D::kopMember(Number<N>{});
  }
  using Row = decltype(row());

  static const void* attributeAt(const void* self) {
    return &(selfOf<T>(const_cast<void*>(self))->*(row().member));
  }
  static const void* constantAt(const void*) {
    if constexpr (std::same_as<typename Row::Type, String>) {
      static const String text(*row().value);
      return &text;
    } else {
      return row().value;
    }
  }
  static void call(void* self, const void* const* arguments, void* result) {
    using S = Signature<typename Row::Type>;
    using Arguments = typename S::Arguments;
    [&]<std::size_t... I>(std::index_sequence<I...>) {
      const auto invoke = [&]() -> decltype(auto) {
        if constexpr (S::isStatic)
          return row().function(
              *static_cast<const std::tuple_element_t<I, Arguments>*>(arguments[I])...);
        else
          return (selfOf<T>(self)->*(row().function))(
              *static_cast<const std::tuple_element_t<I, Arguments>*>(arguments[I])...);
      };
      if constexpr (std::is_void_v<typename S::Result>)
        invoke();
      else if (result)
        *static_cast<std::remove_cvref_t<typename S::Result>*>(result) = invoke();
      else
        invoke();
    }
    (std::make_index_sequence<std::tuple_size_v<Arguments>>{});
  }
  static constexpr MemberOps make() {
    MemberOps made;
    if constexpr (FunctionRow<Row>) {
      using S = Signature<typename Row::Type>;
      if constexpr (!std::is_void_v<typename S::Result>)
        made.type = &TypeOpsOf<std::remove_cvref_t<typename S::Result>>::ops;
      made.arguments = ArgumentOps<typename S::Arguments>::ops;
      made.call = call;
      made.isStatic = S::isStatic;
      made.changes = S::changes;
    } else if constexpr (ConstantRow<Row>) {
      made.type = &TypeOpsOf<typename Row::Type>::ops;
      made.at = constantAt;
    } else if constexpr (CollectionRow<Row>) {
      made.type = EntityRow<D, N>::valueType();
      made.collection = &EntityRow<D, N>::collection;
    } else {
      made.type = &TypeOpsOf<typename Row::Type>::ops;
      made.at = attributeAt;
      if constexpr (EntityClass<D>) made.set = EntityRow<D, N>::set;
    }
    return made;
  }
  static constexpr MemberOps ops = make();

  static constexpr MemberRecord record() {
    if constexpr (FunctionRow<Row>) {
      using S = Signature<typename Row::Type>;
      return {row().name,
              N,
              MemberKind::function,
              typeName<std::remove_cvref_t<typename S::Result>>(),
              ArgumentOps<typename S::Arguments>::names,
              0,
              &ops};
    } else if constexpr (CollectionRow<Row>) {
      return {row().name,
              N,
              MemberKind::collection,
              EntityRow<D, N>::valueName(),
              EntityRow<D, N>::keyNames,
              0,
              &ops};
    } else if constexpr (ValueCollection<typename Row::Type>) {
      using Elements = ElementOpsOf<typename Row::Type>;
      return {row().name,
              N,
              MemberKind::collection,
              Elements::valueName(),
              Elements::keyNames,
              0,
              &ops};
    } else if constexpr (isPodArray<typename Row::Type>) {
      using Array = ArrayElementOpsOf<typename Row::Type>;
      return {row().name,
              N,
              MemberKind::collection,
              typeName<typename Row::Type::Element>(),
              Array::keyNames,
              0,
              &ops};
    } else {
      return {row().name,
              N,
              ConstantRow<Row> ? MemberKind::constant : MemberKind::attribute,
              typeName<typename Row::Type>(),
              {},
              0,
              &ops};
    }
  }
};

template <class T, U32 N>
concept HasRedefined = requires {
  T::kopRedefined(Number<N>{});
};

// Appends the records of D and its bases, with T's redefined functions in their places.
template <class T, class D, class Out>
constexpr void addMembers(Out& out, U32& at) {
  if constexpr (!std::same_as<D, void>) {
    addMembers<T, typename D::KopBase>(out, at);
    [&]<U32... I>(std::integer_sequence<U32, I...>) {
      [[maybe_unused]] const auto add = [&]<U32 N>(Number<N>) {
        if constexpr (HasRedefined<T, N>)
          out[at++] = RowOps<T, T, N, true>::record();
        else
          out[at++] = RowOps<T, D, N, false>::record();
      };
      (add(Number<D::kopFirst + I>{}), ...);
    }
    (std::make_integer_sequence<U32, ownRows<D>()>{});
  }
}
template <class T>
consteval auto makeMembers() {
  static_assert(rowsHaveNoGap<T>(), "a number is missing between this type's rows");
  std::array<MemberRecord, rowCount<T>()> all{};
  U32 at = 0;
  addMembers<T, T>(all, at);
  return all;
}
template <class T>
inline constexpr auto membersOf = makeMembers<T>();

template <class T>
consteval bool hashIsOwn() {
  if constexpr (std::same_as<typename T::KopBase, void>)
    return true;
  else if constexpr (requires { &T::hash; })
    return std::same_as<typename Signature<decltype(&T::hash)>::Class, T>;
  else
    return true;
}

KOP_EXPORT bool valueAttributeOp(const TypeOps& ops,
                                 std::span<const MemberRecord> members,
                                 AttributeOp op,
                                 void* a,
                                 const void* b,
                                 U32 number,
                                 void* result);
[[noreturn]] KOP_EXPORT void throwCtorArgs(std::string_view type, std::size_t given);

template <class T>
concept AddableValue = ValueType<T> && requires(T& a, const T& b) {
  a += b;
};

// Reflection over untyped values: of those declared by rows, and of foreign types, which
// have no members.
template <class T>
  requires(!requires { T::kopKind; } || ValueType<T>)
struct TypeImpl<T> {
  using Ops = TypeOpsOf<T>;

  static void genericIfConstruct(void* at, const void* from) { Ops::construct(at, from); }
  static void genericIfConstructFromCtorArgs(void* at, std::span<const GenericArg> args) {
    if (args.empty()) return Ops::construct(at, nullptr);
    if (args.size() == 1 && args[0].type->name == typeName<T>())
      return Ops::construct(at, args[0].value);
    if constexpr (ValueType<T>) {
      constexpr U32 wanted = storedCount<T>();
      if (args.size() == wanted)
        return fromAttributes(at, args, std::make_integer_sequence<U32, wanted>{});
    }
    throwCtorArgs(typeName<T>(), args.size());
  }
  static void genericIfDestruct(void* value) { Ops::destruct(value); }
  static void genericIfAssign(void* to, const void* from) { Ops::assign(to, from); }
  static U32 genericIfHash(const void* value) { return Ops::hash(value); }
  static String genericIfStrRep(const void* value) {
    TextOut out;
    Ops::text(out, value);
    return out.string();
  }
  static void genericIfStrepToValue(void* value, const String& text) {
    *static_cast<T*>(value) = strepToValue<T>(text);
  }
  static bool genericIfAttributeOp(
      AttributeOp op, void* a, const void* b, U32 number, void* result) {
    if constexpr (AddableValue<T>)
      if (op == AttributeOp::add)
        return *static_cast<T*>(a) += *static_cast<const T*>(b), true;
    if constexpr (ValueType<T>)
      return valueAttributeOp(Ops::ops, membersOf<T>, op, a, b, number, result);
    else
      return valueAttributeOp(Ops::ops, {}, op, a, b, number, result);
  }

  static constexpr ValueTable table{&Ops::ops, genericIfConstructFromCtorArgs,
                                    genericIfAttributeOp};

 private:
  template <U32... I>
  static void fromAttributes(void* at,
                             std::span<const GenericArg> args,
                             std::integer_sequence<U32, I...>) {
    if constexpr (sizeof...(I) > 0) {
      if (!((args[I].type->name == typeName<StoredType<T, I>>()) && ...))
        throwCtorArgs(typeName<T>(), args.size());
      if constexpr (std::is_constructible_v<T, const StoredType<T, I>&...>)
        new (at) T(*static_cast<const StoredType<T, I>*>(args[I].value)...);
      else
        throwCtorArgs(typeName<T>(), args.size());
    }
  }
};

}  // namespace Kop
