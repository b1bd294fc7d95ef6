#pragma once

#include <array>
#include <span>

#include "Kop/GenericIf.h"
#include "Kop/Value.h"

// For implementation headers only: walking the rows of a complete type.

namespace Kop {

template <class T, U32 I = 0>
consteval U32 ownRows() {
  if constexpr (HasRow<T, T::kopFirst + I>)
    return ownRows<T, I + 1>();
  else
    return I;
}

// Looks past the first missing number, to the end of the level.
template <class T>
consteval bool rowsHaveNoGap() {
  return []<U32... I>(std::integer_sequence<U32, I...>) {
    return (U32(HasRow<T, T::kopFirst + I>) + ...) == ownRows<T>();
  }
  (std::make_integer_sequence<U32, numbersPerLevel>{});
}

// Calls visit with every row's description in number order, bases first.
template <class T, class Visit>
constexpr void eachRow(Visit&& visit) {
  static_assert(rowsHaveNoGap<T>(), "a number is missing between this type's rows");
  if constexpr (!std::same_as<typename T::KopBase, void>)
    eachRow<typename T::KopBase>(visit);
  [&]<U32... I>(std::integer_sequence<U32, I...>) {
    (visit(T::kopMember(Number<T::kopFirst + I>{})), ...);
  }
  (std::make_integer_sequence<U32, ownRows<T>()>{});
}
template <class T>
consteval U32 rowCount() {
  if constexpr (std::same_as<T, void>)
    return 0;
  else
    return rowCount<typename T::KopBase>() + ownRows<T>();
}

template <class Row>
concept StoredRow = requires(Row row) {
  row.member;
};
template <class Row>
concept CollectionRow = requires {
  typename Row::Map;
};
template <class Row>
concept ConstantRow = requires(Row row) {
  row.value;
};
template <class Row>
concept FunctionRow = requires(Row row) {
  row.function;
};

// Calls visit with every stored attribute's description, by position.
template <class T, class Visit>
constexpr void eachStored(Visit&& visit) {
  [&]<U32... I>(std::integer_sequence<U32, I...>) {
    (visit(storedRow<T, I>()), ...);
  }
  (std::make_integer_sequence<U32, storedCount<T>()>{});
}

}  // namespace Kop
