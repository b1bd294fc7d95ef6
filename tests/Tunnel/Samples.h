#pragma once

#include <random>
#include <string>

#include "Tunnel/DecapGroupHivelTypes.h"
#include "Tunnel/MldpTunnelHivelTypes.h"
#include "Tunnel/NexthopGroupTunnelConfigInput.h"
#include "Tunnel/StaticTunnelConfig.h"
#include "Tunnel/TunnelBasicTypes.h"
#include "Tunnel/TunnelIntfId.h"
#include "Tunnel/TunnelTableHivelTypes.h"

// Random values of any declared type, made from its rows. Half of all attributes come from a
// handful of numbers, so that equal values and values that differ in one attribute only are
// as frequent as others.

namespace Samples {

// One-at-a-time, written once more: what hashes are compared with.
struct Fold {
  Fold& number(U32 value, int bytes) {
    for (; bytes > 0; --bytes, value /= 256) {
      h += value & 0xff;
      h += h * 1024;
      h ^= h / 64;
    }
    return *this;
  }
  Fold& byte(U32 value) { return number(value, 1); }
  Fold& word(U32 value) { return number(value, 4); }
  U32 end() const {
    U32 end = h * 9;
    end ^= end / 2048;
    return end * 32769;
  }
  U32 h = 0;
};

constexpr U32 seed = 20181;  // printed by who loops over it
using Random = std::mt19937;

inline U64 word(Random& random) {
  const U64 any = U64{random()} << 32 | random();
  return any % 2 == 0 ? any >> 1 & 3 : any >> (any >> 1 & 63);
}

template <class T>
T sample(Random& random);

template <class K>
void fill(Random& random, Kop::HSet<K>& set) {
  for (U32 left = random() % 4; left > 0; --left)
    set.is(sample<K>(random));
}
template <class K, class V>
void fill(Random& random, Kop::RbTreeMap<K, V>& map) {
  for (U32 left = random() % 4; left > 0; --left) {
    const auto key = sample<K>(random);
    if (!map.has(key)) map.insert(key, sample<V>(random));
  }
}
template <class N, class K>
void fill(Random& random, Kop::HashMap2018<N, K>& map) {
  for (U32 left = random() % 4; left > 0; --left)
    map.insert(sample<K>(random), sample<typename N::ValueType>(random));
}

template <class T, class Index, U32 N>
void fill(Random& random, Kop::PodArray<T, Index, N>& array) {
  for (U32 size = random() % 2 * (random() % (N + 1)); array.count() < size;)
    array.set(Index(static_cast<U8>(array.count())), sample<T>(random));
}

// A word whose type exists: others cannot be ordered among entries.
inline Tunnel::TunnelTable::TunnelId typedTunnelId(Random& random) {
  using namespace Tunnel::TunnelTable;
  const U32 type = random() % 24;
  return TunnelId(TunnelId::convertToTunnelValue(
      static_cast<TunnelType>(type > mldpTunnel ? U32{maxTunnelType} : type),
      word(random) >> 20));
}

template <class T>
T sample(Random& random) {
  using namespace Tunnel::TunnelTable;
  if constexpr (std::same_as<T, bool>) {
    return random() % 2 == 0;
  } else if constexpr (std::same_as<T, float>) {
    constexpr float some[] = {0.0f, -0.0f, -1.0f, 0.1f, 1e9f, -0.5f, 3.4e38f, 1e-45f};
    return random() % 2 == 0 ? some[random() % std::size(some)]
                             : static_cast<float>(word(random)) / 7;
  } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
    return static_cast<T>(word(random));
  } else if constexpr (std::same_as<T, Kop::String>) {
    std::string text(random() % 20, 'x');
    for (char& c : text)
      c = static_cast<char>(random() % 2 == 0 ? random() : "'\\a\n"[random() % 4]);
    return text;
  } else if constexpr (std::same_as<T, Brel::ChipId>) {
    return T(sample<U8>(random));
  } else if constexpr (std::same_as<T, Routing::Multicast::MulticastTreeId>) {
    U8 bytes[20];
    for (U8& byte : bytes)
      byte = sample<U8>(random);
    return T(bytes, random() % 2 == 0 ? random() % 2 : random() % sizeof bytes);
  } else if constexpr (std::same_as<T, Vantor::AddressFamily>) {
    return static_cast<T>(random() % 3);
  } else if constexpr (std::same_as<T, Vantor::IntfId>) {
    return T::fromValue(word(random) << (random() % 2 * 48));
  } else if constexpr (std::same_as<T, Vantor::IpGenAddr>) {
    U8 bytes[T::byteCount];
    for (U8& byte : bytes)
      byte = sample<U8>(random);
    const U32 kind = random() % 3;
    return kind == 0   ? T()
           : kind == 1 ? T::fromIpv4(sample<U32>(random))
                       : T::fromIpv6(bytes);
  } else if constexpr (std::same_as<T, Vantor::IpGenPrefix>) {
    const auto addr = sample<Vantor::IpGenAddr>(random);
    return T(addr, random() % 2 * (addr.bitCount() - addr.bitCount() / 4));
  } else if constexpr (std::same_as<T, Vantor::MplsLabelOperation> ||
                       std::same_as<T, Vantor::DynamicMplsLabelStack>) {
    T labels;
    if constexpr (std::same_as<T, Vantor::MplsLabelOperation>)
      labels.operationIs(static_cast<Vantor::MplsOperation>(random() % 5));
    for (U32 left = random() % 4; left > 0; --left)
      labels.labelPush(sample<U32>(random) & Vantor::maxMplsLabel);
    return labels;
  } else if constexpr (std::same_as<T, Vantor::IpDscp>) {
    return T(sample<U8>(random));
  } else if constexpr (std::same_as<T, U3>) {
    return T::cut(sample<U8>(random));
  } else if constexpr (std::same_as<T, Vantor::EthAddr>) {
    U8 bytes[T::byteCount];
    for (U8& byte : bytes)
      byte = sample<U8>(random);
    return T::fromBytes(bytes);
  } else if constexpr (std::same_as<T, Vxlan::VniExt>) {
    return T(sample<U32>(random));
  } else if constexpr (std::same_as<T, Brel::ChipSet>) {
    T chips;
    for (U32 left = random() % 4; left > 0; --left)
      chips.chipIs(sample<Brel::ChipId>(random));
    return chips;
  } else if constexpr (std::same_as<T, TunnelId>) {
    return T(word(random) & T::maxValue);
  } else if constexpr (std::same_as<T, TepIndex> || std::same_as<T, NameIndex> ||
                       std::same_as<T, ViaIndex> || std::same_as<T, NextHopIndex>) {
    return T(static_cast<decltype(T::max)>(word(random) % (T::max + 1)));
  } else {
    T value;
    [&]<U32... I>(std::integer_sequence<U32, I...>) {
      [[maybe_unused]] const auto set = [&]<class Row>(Row row) {
        using A = typename Row::Type;
        if constexpr (Kop::ValueCollection<A> || Kop::isPodArray<A>)
          fill(random, value.*row.member);
        else if constexpr (std::same_as<T, TunnelTableEntry> && std::same_as<A, TunnelId>)
          value.*row.member = typedTunnelId(random);
        else
          value.*row.member = sample<A>(random);
      };
      (set(Kop::storedRow<T, I>()), ...);
    }
    (std::make_integer_sequence<U32, Kop::storedCount<T>()>{});
    return value;
  }
}

}  // namespace Samples
