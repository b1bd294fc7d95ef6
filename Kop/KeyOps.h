#pragma once

#include <concepts>
#include <cstring>
#include <type_traits>

#include "Kop/Hash.h"
#include "Kop/String.h"
#include "Kop/Types.h"

// What a keyed collection asks of its keys.

namespace Kop {

// Whether two values are equal exactly when their bytes are. Identifiers and addresses
// specialise it, so that a look-up compares words instead of calling a function.
template <class T>
inline constexpr bool equalIsBitwise = std::is_integral_v<T> || std::is_enum_v<T>;

// Whether an object may be moved by copying its bytes and forgetting the original.
template <class T>
inline constexpr bool isRelocatable = std::is_trivially_copyable_v<T>;
template <>
inline constexpr bool isRelocatable<String> = true;

// Hash, equality and order of a key type. The order only breaks ties between keys whose
// hashes are equal: it must tell any two unequal keys apart, which a type's own `<` need not
// do. A key type whose collections hash it by a rule of their own specialises this.
template <class K>
struct KeyOps {
  // Enumerations by their number, integers with a constant per width, the rest by their own.
  static U32 hash(const K& key) {
    if constexpr (std::is_enum_v<K>)
      return static_cast<U32>(key);
    else if constexpr (std::same_as<K, U8> || std::same_as<K, bool>)
      return hashInt32(key, 0x5D9B01A7);
    else if constexpr (std::same_as<K, U16>)
      return hashInt32(key, 0x0FC5E202);
    else if constexpr (std::same_as<K, U32>)
      return hashInt32(key, 0x7A3C49D1);
    else if constexpr (std::same_as<K, U64>)
      return hashInt32(static_cast<U32>(key) ^ hashInt32(static_cast<U32>(key >> 32), 0),
                       0x2E8F6B35);
    else if constexpr (requires { hashOf(key); })
      return hashOf(key);
    else
      return key.hash();
  }
  static bool equal(const K& a, const K& b) {
    if constexpr (equalIsBitwise<K>)
      return std::memcmp(&a, &b, sizeof a) == 0;
    else
      return a == b;
  }
  static bool less(const K& a, const K& b) {
    if constexpr (requires { keyLess(a, b); })
      return keyLess(a, b);
    else
      return a < b;
  }
};

}  // namespace Kop
