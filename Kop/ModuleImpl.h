#pragma once

#include <ios>

#include "Kop/GenericIfImpl.h"
#include "Kop/Module.h"

// Builds a module's descriptor and its digest at compile time, out of the rows.

namespace Kop {

// Reads "idle = 0, running = 0x10" as the compiler did. Every number must be written out.
template <class E>
consteval U32 enumeratorCount() {
  U32 count = 1;
  for (const char c : std::string_view(kopEnumerators(E{})))
    count += c == ',';
  return count;
}
constexpr U32 enumeratorNumber(std::string_view digits) {
  const bool hex = digits.starts_with("0x");
  U32 value = 0;
  for (const char c : digits.substr(hex ? 2 : 0)) {
    const int digit = c >= 'a' ? c - 'a' + 10 : c - '0';
    if (digit < 0 || digit >= (hex ? 16 : 10)) throw "an enumerator needs a plain number";
    value = value * (hex ? 16 : 10) + static_cast<U32>(digit);
  }
  return value;
}
template <class E, U32 first>
consteval auto makeEnumerators() {
  std::array<MemberRecord, enumeratorCount<E>()> all{};
  std::string_view rest = kopEnumerators(E{});
  for (U32 i = 0; i < all.size(); ++i) {
    const auto equals = rest.find(" = "), comma = rest.find(',');
    if (equals > comma) throw "an enumerator needs a number of its own";
    const U32 value = enumeratorNumber(rest.substr(equals + 3, comma - equals - 3));
    all[i] = {rest.substr(0, equals),
              first + i,
              MemberKind::enumerator,
              typeName<E>(),
              {},
              value,
              nullptr};
    rest.remove_prefix(comma == rest.npos ? rest.size() : comma + 2);
  }
  return all;
}
template <class E, U32 first>
inline constexpr auto enumeratorsOf = makeEnumerators<E, first>();

template <class... Ts>
struct TypeList {
  template <class T>
  static consteval U32 indexOf() {
    U32 index = 0, found = sizeof...(Ts);
    ((std::same_as<T, Ts> ? found = index++ : index++), ...);
    if (found == sizeof...(Ts)) throw "type is not in the module's list";
    return found;
  }

  // Enumerators are numbered on through the module, from 2.
  template <U32 index>
  static consteval U32 firstEnumerator() {
    U32 i = 0, number = firstValueNumber;
    const auto add = [&]<class T>(T*) {
      if constexpr (std::is_enum_v<T>) number += i < index ? enumeratorCount<T>() : 0;
      ++i;
    };
    (add(static_cast<Ts*>(nullptr)), ...);
    return number;
  }

  template <class T>
  static consteval TypeRecord record() {
    if constexpr (std::is_enum_v<T>)
      return {typeName<T>(), Kind::enumeration,
              sizeof(T),     enumeratorsOf<T, firstEnumerator<indexOf<T>()>()>,
              nullptr,       nullptr};
    else if constexpr (ValueType<T>)
      return {typeName<T>(), Kind::value, 0, membersOf<T>, &TypeImpl<T>::table, nullptr};
    else if constexpr (requires { T::kopKind; })
      return {typeName<T>(), Kind::entity, 0,
              membersOf<T>,  nullptr,      &EntityOps<T>::table};
    else
      return {typeName<T>(), Kind::value, 0, {}, &TypeImpl<T>::table, nullptr};
  }

  static constexpr std::array<TypeRecord, sizeof...(Ts)> types{record<Ts>()...};

  static consteval bool inOrder() {
    for (U32 i = 1; i < types.size(); ++i)
      if (types[i].kind < types[i - 1].kind) return false;
    return true;
  }
};

// FNV-1a 64 over a canonical text: a line per type, a line per member. Defaults and the
// values of constants are left out: a peer with other defaults still understands the log.
class Digest {
 public:
  constexpr void text(std::string_view s) {
    for (const char c : s)
      byte(static_cast<U8>(c));
    byte('\n');
  }
  constexpr void number(U64 n) {
    for (int i = 0; i < 8; ++i, n >>= 8)
      byte(static_cast<U8>(n));
  }
  constexpr U64 result() const { return h_; }

 private:
  constexpr void byte(U8 b) { h_ = (h_ ^ b) * 0x100000001b3; }
  U64 h_ = 0xcbf29ce484222325;
};

template <class Types>
consteval U64 digestOf(std::string_view module) {
  static_assert(Types::inOrder(), "enumerations, then values, then entities");
  Digest digest;
  digest.text(module);
  for (const auto& type : Types::types) {
    digest.number(static_cast<U64>(type.kind) << 8 | type.width);
    digest.text(type.name);
    for (const auto& member : type.members) {
      digest.number(U64{member.number} << 32 | member.value);
      digest.number(static_cast<U64>(member.kind));
      digest.text(member.name);
      digest.text(member.type);
      for (const auto argument : member.arguments)
        digest.text(argument);
    }
  }
  return digest.result();
}

// Sixteen digits as characters of a type, which both compilers print readably.
template <char... digits>
struct Hex {};
template <U64 digest, U32... I>
auto hexOf(std::integer_sequence<U32, I...>)
    -> Hex<"0123456789abcdef"[digest >> (60 - 4 * I) & 15]...>;
template <U64 digest>
using HexOf = decltype(hexOf<digest>(std::make_integer_sequence<U32, 16>{}));

template <class Written, class Wanted>
struct DigestCheck {
  static_assert(std::is_same_v<Written, Wanted>,
                "the module's description has changed: write the wanted digest");
};
consteval U64 hexNumber(std::string_view digits) {
  if (digits.size() != 16) throw "a digest has 16 digits";
  U64 value = 0;
  for (const char c : digits)
    value = value << 4 | (c >= 'a' ? c - 'a' + 10ul : c - '0' + 0ul);
  return value;
}

template <class E>
E EnumOps<E>::instance(U32 number) {
  if constexpr (sizeof(E) == 1)
    return static_cast<E>(enumInstance8(type(), number));
  else
    return static_cast<E>(enumInstance32(type(), number));
}
template <class E>
E EnumOps<E>::instance(const String& name) {
  if constexpr (sizeof(E) == 1)
    return static_cast<E>(enumInstance8(type(), name));
  else
    return static_cast<E>(enumInstance32(type(), name));
}
template <class E>
E EnumOps<E>::read(TextIt& it, const TextIt& end) {
  if constexpr (sizeof(E) == 1)
    return static_cast<E>(enumRead8(type(), it, end));
  else
    return static_cast<E>(enumRead32(type(), it, end));
}
template <class E>
std::string_view EnumOps<E>::name(E value) {
  return enumName(type(), static_cast<U32>(value));
}

struct ModuleRegistration {
  explicit ModuleRegistration(const ModuleDescriptor& module) { kopModuleIs(module); }
  std::ios_base::Init streams;
};

}  // namespace Kop

// KOP_MODULE(TunnelIntfId, 0123456789abcdef, types...), at global scope, once per source:
// the descriptor KopModules::TunnelIntfId::kopModule, exported as
// TunnelIntfId_0123456789abcdef, and its registration.
#define KOP_MODULE(Name, digits, ...)                                                 \
  namespace KopModules::Name {                                                        \
  using Types = Kop::TypeList<__VA_ARGS__>;                                           \
  inline constexpr U64 digest = Kop::digestOf<Types>(#Name);                          \
  static_assert(sizeof(                                                               \
      Kop::DigestCheck<Kop::HexOf<Kop::hexNumber(#digits)>, Kop::HexOf<digest>>));    \
  KOP_EXPORT extern const Kop::ModuleDescriptor kopModule __asm__(#Name "_" #digits); \
  constinit const Kop::ModuleDescriptor kopModule{#Name, digest, Types::types};       \
  static const Kop::ModuleRegistration registration(kopModule);                       \
  }                                                                                   \
  namespace {                                                                         \
  namespace KopHere = KopModules::Name;                                               \
  }                                                                                   \
  static_assert(true)

#define KOP_INSTANTIATE_ENUM(E)                                 \
  template <>                                                   \
  Kop::FwkType Kop::EnumOps<E>::type() {                        \
    return {&KopHere::kopModule, KopHere::Types::indexOf<E>()}; \
  }                                                             \
  template struct Kop::EnumOps<E>
