#include "tests/Tunnel/Samples.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <stdexcept>

#include "Tunnel/MldpTunnelHivelTypes.h"
#include "Tunnel/TunnelTableHivelTypes.h"

namespace Samples {

using namespace Tunnel::TunnelTable;
using namespace Vantor;
using Kop::MemberKind;

U64 word(Random& random) {
  const U64 any = U64{random()} << 32 | random();
  return any % 2 == 0 ? any >> 1 & 3 : any >> (any >> 1 & 63);
}

std::vector<const Kop::MemberRecord*> storedMembers(const Kop::TypeRecord& type) {
  std::vector<const Kop::MemberRecord*> stored;
  for (const auto& member : type.members)
    if (member.kind == MemberKind::attribute || member.kind == MemberKind::collection)
      stored.push_back(&member);
  return stored;
}

namespace {

template <U32 size>
struct Bytes {
  explicit Bytes(Random& random) {
    for (U8& byte : bytes)
      byte = static_cast<U8>(random() % 2 == 0 ? random() : random() % 2);
  }
  U8 bytes[size];
};

IntfId intfId(Random& random) {
  constexpr U64 types[] = {0, 1, 1, 1, 2, 3, 4, 5, 6, 19, 58, 255};
  const U64 type = types[random() % std::size(types)];
  U64 rest = word(random) << (random() % 2 * 24) & ((U64{1} << 56) - 1);
  if (type == 1 && random() % 2 == 0) rest |= U64{1} << 50;  // an Ethernet module
  if (type == 0 && random() % 2 == 0) {                      // a short name
    rest = 0;
    for (U32 i = random() % 8; i > 0; --i)
      rest = rest >> 8 | U64{0x20 + random() % 0x5f} << 48;
  }
  return IntfId::fromValue(type << 56 | rest);
}

IpGenAddr ipGenAddr(Random& random) {
  Bytes<IpGenAddr::byteCount> any(random);
  const U32 kind = random() % 6;
  if (kind == 0) return IpGenAddr();
  if (kind < 3) return IpGenAddr::fromIpv4(static_cast<U32>(word(random)));
  if (kind == 3) std::memcpy(any.bytes, "\0\0\0\0\0\0\0\0\0\0\xff\xff", 12);
  const U32 begin = random() % 8, end = std::min<U32>(begin + random() % 9, 8);
  if (kind > 3) std::memset(any.bytes + 2 * begin, 0, 2 * (end - begin));
  return IpGenAddr::fromIpv6(any.bytes);
}

using Name = Kop::PodArray<U8, NameIndex, TunnelTableEntry::maxNameSize>;

template <class T>
T make(Random& random) {
  const U32 few = random() % 3 == 0 ? random() % 40 : random() % 4;
  if constexpr (std::same_as<T, float>) {
    constexpr float some[] = {0.0f, -0.0f, -1.0f, 0.1f, 1e9f, -0.5f, 3.4e38f, 1e-45f};
    return random() % 2 == 0 ? some[random() % std::size(some)]
                             : static_cast<float>(word(random)) / 7;
  } else if constexpr (std::integral<T>) {
    return static_cast<T>(word(random));
  } else if constexpr (std::same_as<T, Kop::String>) {
    std::string text(few, 'x');
    for (char& c : text)
      c = static_cast<char>(random() % 2 == 0 ? random() : "'\\a\n"[random() % 4]);
    return text;
  } else if constexpr (std::same_as<T, AddressFamily>) {
    return static_cast<T>(random() % 3);
  } else if constexpr (std::same_as<T, IntfId>) {
    return intfId(random);
  } else if constexpr (std::same_as<T, IpGenAddr>) {
    return ipGenAddr(random);
  } else if constexpr (std::same_as<T, IpGenPrefix>) {
    const auto addr = ipGenAddr(random);
    return T(addr, random() % 2 * (random() % (addr.bitCount() + 1)));
  } else if constexpr (std::same_as<T, EthAddr>) {
    return T::fromBytes(Bytes<T::byteCount>(random).bytes);
  } else if constexpr (requires(T labels) { labels.labelPush(0); }) {
    T labels;
    U32 most = 40;
    if constexpr (std::same_as<T, MplsLabelOperation>) {
      labels.operationIs(static_cast<MplsOperation>(random() % 6));  // 2 unnamed
      most = T::maxLabels;
    }
    for (U32 left = std::min(few, most); left > 0; --left)
      labels.labelPush(static_cast<U32>(word(random)) & maxMplsLabel);
    return labels;
  } else if constexpr (std::same_as<T, U3>) {
    return T::cut(make<U8>(random));
  } else if constexpr (std::same_as<T, Brel::ChipSet>) {
    T chips;
    for (U32 left = few; left > 0; --left)
      chips.chipIs(Brel::ChipId(make<U8>(random)));
    return chips;
  } else if constexpr (std::same_as<T, Routing::Multicast::MulticastTreeId>) {
    return T(Bytes<40>(random).bytes, few);
  } else if constexpr (std::same_as<T, TunnelId>) {
    return T(word(random) & T::maxValue);
  } else if constexpr (requires { T::max; }) {
    return T(static_cast<decltype(T::max)>(word(random) % (T::max + 1)));
  } else if constexpr (std::same_as<T, Name>) {
    T name;
    const U32 size = random() % 8 == 0 ? random() % (T::capacity + 1) : few;
    while (name.count() < size)
      name.set(NameIndex(static_cast<U8>(name.count())), make<U8>(random));
    return name;
  } else {  // of a number
    return T(make<std::remove_cvref_t<decltype(T().value())>>(random));
  }
}

using Makers = std::map<std::string_view, void (*)(Random&, void*)>;
template <class... Ts>
Makers makersOf() {
  return {
      {Kop::typeName<Ts>(), [](Random& random, void* value) {
         *static_cast<Ts*>(value) = make<Ts>(random);
       }}
      ...
  };
}

}  // namespace

void randomize(Random& random, const Kop::TypeOps& type, void* value) {
  if (!type.elements) return randomize(random, type.name, value);
  type.assign(value, Kop::GenericValue(&type).get());
  const bool isArray = type.name == "Kop::PodArray";
  U32 left = random() % 4;
  if (isArray && left == 0) left = random() % (TunnelTableEntry::maxEndpoints + 1);
  for (U32 i = 0; i < left; ++i) {
    auto key = sample(random, *type.elements->key);
    if (isArray) *static_cast<TepIndex*>(key.get()) = TepIndex(static_cast<U8>(i));
    const auto element = type.elements->value ? sample(random, *type.elements->value)
                                              : Kop::GenericValue();
    type.elements->insert(value, key.get(), element.get());
  }
}
void randomize(Random& random, std::string_view type, void* value) {
  static const Makers makers = [] {
    auto all = makersOf<bool, float, U8, U16, U32, U64, Kop::String, AddressFamily,
                        IntfId, IpGenAddr, IpGenPrefix, EthAddr, MplsLabelOperation,
                        DynamicMplsLabelStack, IpDscp, U3, Vxlan::VniExt, Brel::ChipId,
                        Brel::ChipSet, Routing::Multicast::MulticastTreeId, TunnelId,
                        TepIndex, NameIndex, ViaIndex, NextHopIndex>();
    all["Kop::PodArray"] = [](Random& r, void* v) {
      *static_cast<Name*>(v) = make<Name>(r);
    };
    return all;
  }();
  if (const auto found = makers.find(type); found != makers.end())
    return found->second(random, value);
  const Kop::TypeRecord* const record = Kop::findType(type);
  if (!record) throw std::logic_error("no samples of " + std::string(type));
  if (record->kind == Kop::Kind::enumeration) {
    const U64 number = word(random);
    std::memcpy(value, &number, record->width);
    return;
  }
  for (const auto* member : storedMembers(*record)) {
    void* const at = const_cast<void*>(member->ops->at(value));
    // A word whose type exists: others cannot be ordered among entries.
    if (type == "Tunnel::TunnelTable::TunnelTableEntry" && member->name == "tunnelId") {
      const U32 kind = random() % 24;
      *static_cast<TunnelId*>(at) = TunnelId(TunnelId::convertToTunnelValue(
          kind == 23 ? maxTunnelType : static_cast<TunnelType>(kind),
          word(random) >> 20));
    } else {
      randomize(random, *member->ops->type, at);
    }
  }
}

void mixIn(Random& random, std::string_view type, void* to, const void* from) {
  for (const auto* member : storedMembers(*Kop::findType(type)))
    if (random() % 2 == 0)
      member->ops->type->assign(const_cast<void*>(member->ops->at(to)),
                                member->ops->at(from));
}

}  // namespace Samples
