#pragma once

#include <new>
#include <type_traits>

#include "Kop/Hash.h"
#include "Kop/Module.h"
#include "Kop/Rows.h"
#include "Kop/Value.h"

// The bodies of the value protocol. Included by the source that instantiates the type, after
// the type and its hand-written rules.

namespace Kop {

template <class A>
struct TypeOpsOf;

// One attribute at a time. Unqualified calls, so that a type's own function is found.

template <class A>
void attrText(TextOut& out, const A& attr) {
  if constexpr (isOrderedMap<A>) {
    out.append('{');
    std::string_view separator = "";
    for (const auto& node : attr) {
      out.append(separator);
      attrText(out, node.key());
      out.append(": ");
      attrText(out, node.value());
      separator = ", ";
    }
    out.append('}');
  } else if constexpr (ValueCollection<A>) {
    out.append("None");  // members of hash collections are never printed
  } else {
    strepWrite(out, attr);
  }
}

template <class A>
void attrParse(A& attr, TextIt& it, const TextIt& end, const char* name) {
  if constexpr (ValueCollection<A>) {
    throw Exception(stringPrintf("cannot read attribute '%s'", name));
  } else if constexpr (BuiltIn<A>) {
    attr = readAttr<A>(it, end, name);
  } else {
    try {
      if constexpr (std::is_enum_v<A>)
        sequenceToValue(it, end, &attr);
      else
        attr = A(it, end);
    } catch (const RangeException& error) {
      rethrowFromDeserializeAttr(error, name);
    }
  }
}

template <class A>
void attrLogWrite(NboAttrLog::Out& out, const A& attr) {
  if constexpr (BuiltIn<A>) {
    NboAttrLog::write(out, attr);
  } else if constexpr (std::is_enum_v<A>) {
    out.writeU32(static_cast<U32>(attr));
  } else if constexpr (isHashSet<A>) {
    out.writeU32(attr.count());
    for (const auto& node : attr)
      attrLogWrite(out, node.key());
  } else if constexpr (isHashMap<A>) {
    out.writeU32(attr.count());
    for (const auto& node : attr) {
      attrLogWrite(out, node.key());
      attrLogWrite(out, node.value);
    }
  } else if constexpr (isOrderedMap<A>) {
    out.writeU32(attr.count());
    for (const auto& node : attr) {
      attrLogWrite(out, node.key());
      attrLogWrite(out, node.value());
    }
  } else {
    out << attr;
  }
}

template <class A>
A attrLogRead(NboAttrLog::In& in);

// Entries beyond the first are only read while bytes are left, so a wrong count ends in the
// reader's error and never in an allocation of its size.
template <class A>
A collectionLogRead(NboAttrLog::In& in) {
  A collection;
  for (U32 left = in.nextU32(); left > 0; --left) {
    if constexpr (isHashSet<A>) {
      collection.is(attrLogRead<typename A::Key>(in));
    } else if constexpr (isHashMap<A>) {
      const auto key = attrLogRead<typename A::Key>(in);
      const auto value = attrLogRead<typename A::Node::ValueType>(in);
      collection.insert(key, value);
    } else {
      const auto key = attrLogRead<typename A::KeyType>(in);
      const auto value = attrLogRead<typename A::ValueType>(in);
      if (collection.has(key))
        throw LogCorruptException("a key stands twice in an ordered map");
      collection.insert(key, value);
    }
  }
  return collection;
}

template <class A>
A attrLogRead(NboAttrLog::In& in) {
  if constexpr (BuiltIn<A>)
    return NboAttrLog::read<A>(in);
  else if constexpr (std::is_enum_v<A>)
    return static_cast<A>(static_cast<std::underlying_type_t<A>>(in.nextU32()));
  else if constexpr (ValueCollection<A>)
    return collectionLogRead<A>(in);
  else
    return A(in);
}

template <class A>
U32 attrSize(const A& attr) {
  if constexpr (std::same_as<A, String>) {
    return 4 + attr.size();
  } else if constexpr (BuiltIn<A>) {
    return sizeof(A);
  } else if constexpr (std::is_enum_v<A>) {
    return 4;
  } else if constexpr (isHashSet<A>) {
    U32 size = 4;
    for (const auto& node : attr)
      size += attrSize(node.key());
    return size;
  } else if constexpr (isHashMap<A>) {
    U32 size = 4;
    for (const auto& node : attr)
      size += attrSize(node.key()) + attrSize(node.value);
    return size;
  } else if constexpr (isOrderedMap<A>) {
    U32 size = 4;
    for (const auto& node : attr)
      size += attrSize(node.key()) + attrSize(node.value());
    return size;
  } else {
    return attrLogSize(attr);
  }
}

template <class A>
concept HashableAttr = BuiltIn<A> || std::is_enum_v<A> ||
    requires(Hash& hash, const A& attr) {
  hashMix(hash, attr);
} || requires(const A& attr) {
  hashOf(attr);
} || requires(const A& attr) {
  attr.hash();
};

template <class A>
void attrMix(Hash& hash, const A& attr) {
  if constexpr (std::same_as<A, String>)
    hash.mixString(attr);
  else if constexpr (std::same_as<A, float>)
    hash.mix32(floatBits(attr));
  else if constexpr (BuiltIn<A> || std::is_enum_v<A>) {
    if constexpr (sizeof(A) == 1)
      hash.mix8(static_cast<U8>(attr));
    else if constexpr (sizeof(A) == 2)
      hash.mix16(static_cast<U16>(attr));
    else if constexpr (sizeof(A) == 4)
      hash.mix32(static_cast<U32>(attr));
    else
      hash.mix64(static_cast<U64>(attr));
  } else if constexpr (requires { hashMix(hash, attr); })
    hashMix(hash, attr);
  else if constexpr (requires { hashOf(attr); })
    hash.mix32(hashOf(attr));
  else
    hash.mix32(attr.hash());
}

template <class A>
bool attrTruth(const A& attr) {
  if constexpr (ValueCollection<A>)
    return !attr.empty();
  else
    return !(attr == A());
}

// The table of a type's stored attributes: parser and reflection run over it, so that their
// loops are compiled once. Labels are complete: what stands before the value in the
// text, from the type's head or the separator on. They stand in whole pieces of a TextOut.
struct AttrRecord {
  std::string_view label;
  const char* name;
  const void* (*at)(const void* value);
  const TypeOps* ops;

  void* in(void* value) const { return const_cast<void*>(at(value)); }
};
using Attrs = std::span<const AttrRecord>;

KOP_EXPORT void recordParse(Attrs attrs, void* value, TextIt& it, const TextIt& end);

template <U32 I>
constexpr std::size_t labelWrite(char* to, std::string_view type, std::string_view name) {
  std::size_t size = 0;
  const auto put = [&](std::string_view text) {
    for (const char c : text) {
      if (to) to[size] = c;
      ++size;
    }
  };
  if constexpr (I == 0) {
    put("Value('");
    put(type);
    put("', ** {'");
  } else {
    put(", '");
  }
  put(name);
  put("': ");
  return size;
}
template <class T, U32 I>
inline constexpr auto labelOf = [] {
  constexpr std::size_t size =
      labelWrite<I>(nullptr, typeName<T>(), storedRow<T, I>().name);
  std::array<char, TextOut::padded(size)> label{};
  labelWrite<I>(label.data(), typeName<T>(), storedRow<T, I>().name);
  return label;
}();

template <class T, U32... I>
consteval std::array<AttrRecord, sizeof...(I)> makeAttrs(
    std::integer_sequence<U32, I...>) {
  return {{{std::string_view(labelOf<T, I>.data(), labelWrite<I>(nullptr, typeName<T>(),
                                                                 storedRow<T, I>().name)),
            storedRow<T, I>().name,
            [](const void* value) -> const void* {
              return &(static_cast<const T*>(value)->*(storedRow<T, I>().member));
            },
            &TypeOpsOf<StoredType<T, I>>::ops}...}};
}
template <class T>
inline constexpr auto attrsOf =
    makeAttrs<T>(std::make_integer_sequence<U32, storedCount<T>()>{});

// The generated rules, each the fallback of a hand-written one.

template <ValueType T>
bool valueEqual(const T& a, const T& b) {
  bool equal = true;
  eachStored<T>([&](auto row) { equal = equal && a.*row.member == b.*row.member; });
  return equal;
}

template <ValueType T>
bool valueLess(const T& a, const T& b) {
  return ValueOps<T>::recordLess(a, b);
}

template <class T>
consteval bool allHashable() {
  bool all = storedCount<T>() > 0;
  eachStored<T>([&]<class Row>(Row) { all = all && HashableAttr<typename Row::Type>; });
  return all;
}

template <ValueType T>
U32 valueHash(const T& value, U32 seed) {
  if constexpr (requires { value.hash(seed); })
    return value.hash(seed);
  else if constexpr (requires { value.hash(); })
    return value.hash();
  else if constexpr (allHashable<T>())
    return ValueOps<T>::recordHash(value, storedCount<T>() == 1 ? 0 : seed);
  else
    throw UnhashableTypeException(typeName<T>());
}

// A lone attribute stands without an envelope, no attribute is the empty text. Unrolled, not
// a loop over the table: most of a short record's time would be calls.
template <ValueType T>
void valueText(TextOut& out, const T& value) {
  [&]<U32... I>(std::integer_sequence<U32, I...>) {
    if constexpr (sizeof...(I) == 1) {
      (attrText(out, value.*(storedRow<T, I>().member)), ...);
    } else if constexpr (sizeof...(I) > 1) {
      ((out.appendPadded(attrsOf<T>[I].label),
        attrText(out, value.*(storedRow<T, I>().member))),
       ...);
      out.append("})");
    }
  }
  (std::make_integer_sequence<U32, storedCount<T>()>{});
}

template <ValueType T>
void valueParse(T& value, TextIt& it, const TextIt& end) {
  eachStored<T>([]<class Row>(Row) {
    static_assert(!ValueCollection<typename Row::Type>,
                  "what holds a collection has no string constructor: write valueParse");
  });
  recordParse(attrsOf<T>, &value, it, end);
}

// An assertion for the types that have no string constructor.
[[noreturn]] inline void noStringConstructor(const char* expression, const char* source) {
  assertFail(expression, source, "valueParse");
}

template <ValueType T>
void valueLogWrite(NboAttrLog::Out& out, const T& value) {
  eachStored<T>([&](auto row) { attrLogWrite(out, value.*row.member); });
}

template <ValueType T>
void valueLogRead(T& value, NboAttrLog::In& in) {
  eachStored<T>([&]<class Row>(Row row) {
    value.*row.member = attrLogRead<typename Row::Type>(in);
  });
}

template <ValueType T>
U32 valueLogSize(const T& value) {
  U32 size = 0;
  eachStored<T>([&](auto row) { size += attrSize(value.*row.member); });
  return size;
}

template <ValueType T>
bool valueTruth(const T& value) {
  if constexpr (requires { static_cast<bool>(value); })
    return static_cast<bool>(value);
  else if constexpr (storedCount<T>() == 0)
    return false;
  else
    return attrTruth(value.*(storedRow<T, 0>().member));
}

template <class T>
bool ValueOps<T>::equal(const T& a, const T& b) {
  return valueEqual(a, b);
}
template <class T>
bool ValueOps<T>::less(const T& a, const T& b) {
  return valueLess(a, b);
}
template <class T>
bool ValueOps<T>::recordLess(const T& a, const T& b) {
  int order = 0;
  eachStored<T>([&]<class Row>(Row row) {
    if constexpr (requires { a.*row.member < b.*row.member; }) {
      if (order != 0 || a.*row.member == b.*row.member) return;
      order = a.*row.member < b.*row.member ? -1 : 1;
    }
  });
  return order < 0;
}
template <class T>
U32 ValueOps<T>::hash(const T& value, U32 seed) {
  if constexpr (requires { valueHash(value, seed); })
    return valueHash(value, seed);
  else
    throw UnhashableTypeException(typeName<T>());  // valueHash(T) = delete
}
template <class T>
U32 ValueOps<T>::recordHash(const T& value, U32 seed) {
  Hash hash(seed);
  eachStored<T>([&]<class Row>(Row row) {
    if constexpr (HashableAttr<typename Row::Type>)
      attrMix(hash, value.*row.member);
    else
      throw UnhashableTypeException(typeName<typename Row::Type>());
  });
  return hash.result();
}
template <class T>
void ValueOps<T>::text(TextOut& out, const T& value) {
  valueText(out, value);
}
template <class T>
void ValueOps<T>::parse(T& value, TextIt& it, const TextIt& end) {
  valueParse(value, it, end);
}
template <class T>
void ValueOps<T>::logWrite(NboAttrLog::Out& out, const T& value) {
  valueLogWrite(out, value);
}
template <class T>
void ValueOps<T>::logRead(T& value, NboAttrLog::In& in) {
  valueLogRead(value, in);
}
template <class T>
U32 ValueOps<T>::logSize(const T& value) {
  return valueLogSize(value);
}
template <class T>
bool ValueOps<T>::truth(const T& value) {
  return valueTruth(value);
}

}  // namespace Kop

#include "Kop/GenericIfImpl.h"

// At global scope, with the qualified name: a template can only be instantiated from a
// namespace around its own. A derived value must not take over its base's hash() in silence.
#define KOP_INSTANTIATE_VALUE(T)                                                     \
  static_assert(Kop::rowsHaveNoGap<T>(),                                             \
                "a number is missing between this type's rows");                     \
  static_assert(Kop::hashIsOwn<T>(), "a derived value needs a hash row of its own"); \
  template struct Kop::ValueOps<T>
