#pragma once

#include "Kop/HashMap2018.h"

namespace Kop {

// A node whose key is read out of its value by KeyFunktor. The stored value's key never
// changes, or the entry would stand at a place where nobody looks for it: so a value is
// replaced by valueIs, which asserts that the key stays the same.
template <class K, class V, class KeyFunktor>
struct HashMap2018NodeInternalKey {
  using KeyType = K;
  using ValueType = V;
  using KeyFunktorType = KeyFunktor;
  static constexpr bool nodeIsRelocatable = isRelocatable<V>;

  template <class... A>
    requires(sizeof...(A) > 0)
  explicit HashMap2018NodeInternalKey(const K& key, A&&... args)
      : value(std::forward<A>(args)...) {
    keyIs(key, value);
  }
  decltype(auto) key() const { return fwkKey(); }
  decltype(auto) fwkKey() const { return KeyFunktor()(value); }
  template <class W>
  void valueIs(W&& other) {
    keyIs(fwkKey(), other);
    value = std::forward<W>(other);
  }
  friend bool operator==(const HashMap2018NodeInternalKey& a,
                         const HashMap2018NodeInternalKey& b) {
    return a.value == b.value;
  }

  V value;  // read it here, replace it by valueIs

 private:
  static void keyIs(const K& key, const V& value) {
    KOP_ASSERT(KeyOps<K>::equal(key, KeyFunktor()(value)),
               "fwkKey() == KeyFunktor()( _value )", "HashMap2018NodeInternalKey");
  }
};

}  // namespace Kop
