#pragma once

#include <concepts>
#include <iosfwd>
#include <utility>

#include "Kop/Declare.h"
#include "Kop/Enum.h"
#include "Kop/HSet.h"
#include "Kop/HashMap2018.h"
#include "Kop/KeyOps.h"
#include "Kop/NboAttrLog.h"
#include "Kop/RbTreeMap.h"
#include "Kop/Text.h"

// Values: plain records that are copied, compared, hashed, printed, parsed and logged as a
// whole. A type declares its rows (Declare.h) and derives from Value<itself>; this header
// gives it the operations, ValueImpl.h defines their bodies for the source that instantiates
// the type with KOP_INSTANTIATE_VALUE.
//
// Hand-written rules. A rule that differs is a plain function beside the type, declared
// before the instantiation: valueEqual, valueLess, valueHash, valueText, valueParse,
// valueLogWrite, valueLogRead, valueLogSize or valueTruth with the type as argument. It is a
// better match than the template of that name, whereas a base's rule is a worse one, so a
// derived type keeps its generated rule. `= delete` of valueHash says that the type is
// unhashable; `operator<` deleted in the header says that it has no order.

namespace Kop {

// Base of every plain value: makes Kop an associated namespace, so that the operators below
// are found. One base per type: two members with the same empty base would be kept at
// different addresses, and the record would grow.
template <class T>
class Value {};

template <class T>
concept ValueType = std::same_as<typename T::KopSelf, T> && T::kopKind == Kind::value;

// The operations of a value. Who only uses values never compiles a body.
template <class T>
struct KOP_EXPORT ValueOps {
  static bool equal(const T& a, const T& b);
  static bool less(const T& a, const T& b);
  static U32 hash(const T& value, U32 seed);  // UnhashableTypeException
  static void text(TextOut& out, const T& value);
  static void parse(T& value, TextIt& it, const TextIt& end);
  static void logWrite(NboAttrLog::Out& out, const T& value);
  static void logRead(T& value, NboAttrLog::In& in);
  static U32 logSize(const T& value);
  static bool truth(const T& value);

  // The generated rules, for hand-written ones that build on them and for the tie order of
  // keys, which must tell apart what a hand-written `<` need not.
  static bool recordLess(const T& a, const T& b);
  static U32 recordHash(const T& value, U32 seed);
};

template <ValueType T>
bool operator==(const T& a, const T& b) {
  if constexpr (equalIsBitwise<T>)
    return std::memcmp(&a, &b, sizeof a) == 0;
  else
    return ValueOps<T>::equal(a, b);
}
template <ValueType T>
bool operator<(const T& a, const T& b) {
  return ValueOps<T>::less(a, b);
}
template <ValueType T>
bool keyLess(const T& a, const T& b) {
  return ValueOps<T>::recordLess(a, b);
}
template <ValueType T>
U32 hashOf(const T& value) {
  if constexpr (requires { value.hash(); })
    return value.hash();
  else
    return ValueOps<T>::hash(value, 0);
}
template <ValueType T>
void strepWrite(TextOut& out, const T& value) {
  ValueOps<T>::text(out, value);
}
template <ValueType T>
String valueToStrep(const T& value) {
  return strepOf(value);
}
template <ValueType T>
std::ostream& operator<<(std::ostream& out, const T& value) {
  TextOut text;
  strepWrite(text, value);
  return writeText(out, text.view());
}
template <ValueType T>
NboAttrLog::Out& operator<<(NboAttrLog::Out& out, const T& value) {
  return ValueOps<T>::logWrite(out, value), out;
}
template <ValueType T>
U32 attrLogSize(const T& value) {
  return ValueOps<T>::logSize(value);
}

// The I-th stored attribute of T, its bases' first.

template <class T, U32 N>
concept HasRow = requires {
  T::kopMember(Number<N>{});
};
template <class T, U32 N>
concept HasStored = requires {
  T::kopMember(Number<N>{}).member;
};

template <class T, U32 I = 0>
consteval U32 ownStored() {
  if constexpr (HasStored<T, T::kopFirst + I>)
    return ownStored<T, I + 1>();
  else
    return I;
}
template <class T>
consteval U32 storedCount() {
  if constexpr (std::same_as<T, void>)
    return 0;
  else
    return storedCount<typename T::KopBase>() + ownStored<T>();
}
template <class T, U32 I>
consteval auto storedRow() {
  constexpr U32 inherited = storedCount<typename T::KopBase>();
  if constexpr (I < inherited)
    return storedRow<typename T::KopBase, I>();
  else
    return T::kopMember(Number<T::kopFirst + I - inherited>{});
}
template <class T, U32 I>
using StoredType = typename decltype(storedRow<T, I>())::Type;

// Collections inside a value: not taken by constructors, not parsed.
template <class A>
inline constexpr bool isHashSet = false;
template <class K>
inline constexpr bool isHashSet<HSet<K>> = true;
template <class A>
inline constexpr bool isHashMap = false;
template <class N, class K>
inline constexpr bool isHashMap<HashMap2018<N, K>> = true;
template <class A>
inline constexpr bool isOrderedMap = false;
template <class K, class V>
inline constexpr bool isOrderedMap<RbTreeMap<K, V>> = true;
template <class A>
concept ValueCollection = isHashSet<A> || isHashMap<A> || isOrderedMap<A>;

// Arrays inside a value, likewise not taken by constructors. One of bytes is written and
// read as a text; of others the elements are seen.
template <class T, class Index, U32 N>
class PodArray;
template <class A>
inline constexpr bool isPodArray = false;
template <class T, class Index, U32 N>
inline constexpr bool isPodArray<PodArray<T, Index, N>> = true;
template <class A>
inline constexpr bool isByteArray = false;
template <class Index, U32 N>
inline constexpr bool isByteArray<PodArray<U8, Index, N>> = true;

template <class T, class... Args>
consteval bool allAttributes() {
  if constexpr (sizeof...(Args) != storedCount<T>())
    return false;
  else
    return []<U32... I>(std::integer_sequence<U32, I...>) {
      return ((std::convertible_to<Args, StoredType<T, I>> &&
               !ValueCollection<StoredType<T, I>> && !isPodArray<StoredType<T, I>>)&&...);
    }
  (std::make_integer_sequence<U32, sizeof...(Args)>{});
}
// Only records: the constructor of a wrapper checks its range, so it is written by hand,
// and a template would be the better match for a plain int.
template <class T, class... Args>
concept AllAttributes = sizeof...(Args) >= 2 && allAttributes<T, Args...>();

template <class T, class... Args>
void assignAll(T& value, const Args&... args) {
  [&]<U32... I>(std::integer_sequence<U32, I...>) {
    ((value.*(storedRow<T, I>().member) = args), ...);
  }
  (std::make_integer_sequence<U32, sizeof...(Args)>{});
}

}  // namespace Kop
