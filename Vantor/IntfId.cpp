#include "Vantor/IntfId.h"

#include <optional>

#include "Vantor/Spell.h"

namespace Vantor {

namespace {

enum : U32 { shortNameType = 0, ethernetType = 1, lastNumberedType = 5 };
constexpr U32 maxShortName = 7;  // bytes
constexpr U32 maxPart1 = 0xffffffff;
constexpr U32 maxModule = 0xfff, maxPort = 0xfff, maxLane = 0xff;

// <name><part 1>, with part 0 zero.
struct NumberedRow {
  std::string_view name;
  U32 typeId;
};
constexpr NumberedRow numberedRows[] = {
    {"Loopback", 2               },
    {"Vlan",     3               },
    {"Vxlan",    4               },
    {"Tunnel",   lastNumberedType}
};

// <name><part 1>.<part 0>
constexpr NumberedRow pairRows[] = {
    {"SrTePolicyTunnel", 19},
    {"DynamicTunnel",    58}
};

IntfId make(U32 typeId, U32 part1, U32 part0) {
  return IntfId::fromValue(U64{typeId} << 56 | U64{part1} << 24 | part0);
}

bool isPrintable(char c) {
  return c >= 0x20 && c <= 0x7e;
}

// "Ethernet" is already taken off.
std::optional<IntfId> ethernetRead(std::string_view rest) {
  U32 a, b = 0, c = 0, sub = 0;
  if (!decimalTake(rest, maxModule, a) || a == 0) return {};
  if (literalTake(rest, "/")) {
    if (!decimalTake(rest, maxPort, b) || b == 0) return {};
    if (literalTake(rest, "/") && (!decimalTake(rest, maxLane, c) || c == 0)) return {};
  }
  if (literalTake(rest, ".") && (!decimalTake(rest, IntfId::maxPart0, sub) || sub == 0))
    return {};
  if (!rest.empty()) return {};
  return make(ethernetType, a << 20 | b << 8 | c, sub);
}

// "<part 1>.<part 0>"
std::optional<IntfId> pairRead(std::string_view rest, U32 typeId) {
  U32 part1, part0;
  if (decimalTake(rest, maxPart1, part1) && literalTake(rest, ".") &&
      decimalTake(rest, IntfId::maxPart0, part0) && rest.empty())
    return make(typeId, part1, part0);
  return {};
}

// A name of one of the rows with a word of their own.
std::optional<IntfId> rowRead(std::string_view name) {
  std::string_view rest = name;
  if (literalTake(rest, "Ethernet")) return ethernetRead(rest);
  for (const auto& row : numberedRows) {
    rest = name;
    U32 n;
    if (literalTake(rest, row.name) && decimalTake(rest, maxPart1, n) && rest.empty())
      return make(row.typeId, n, 0);
  }
  for (const auto& row : pairRows) {
    rest = name;
    if (literalTake(rest, row.name)) return pairRead(rest, row.typeId);
  }
  return {};
}

// A word of type 0 as a name: its size, or nothing when the word is not such a name.
std::optional<std::size_t> shortNameOf(IntfId intf, char (&bytes)[maxShortName]) {
  std::size_t size = 0;
  for (U32 i = 0; i < maxShortName; ++i) {
    bytes[i] = static_cast<char>(intf.value() >> (48 - 8 * i));
    if (bytes[i] == 0) continue;
    if (size < i || !isPrintable(bytes[i])) return {};
    size = i + 1;
  }
  if (rowRead({bytes, size})) return {};  // that name is another word's
  return size;
}

std::optional<IntfId> shortNameRead(std::string_view name) {
  if (name.size() > maxShortName) return {};
  U64 word = 0;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (!isPrintable(name[i])) return {};
    word |= U64{static_cast<U8>(name[i])} << (48 - 8 * i);
  }
  return IntfId::fromValue(word);
}

void pairWrite(Kop::TextOut& out, IntfId intf) {
  out.number(intf.part(1));
  out.append('.');
  out.number(intf.part(0));
}

// Writes the name of a word that has one of its row, else nothing and returns false.
bool ownNameWrite(Kop::TextOut& out, IntfId intf) {
  const U32 typeId = intf.typeId(), part1 = intf.part(1), part0 = intf.part(0);
  if (typeId == shortNameType) {
    char bytes[maxShortName];
    const auto size = shortNameOf(intf, bytes);
    if (size) out.append(bytes, *size);
    return size.has_value();
  }
  if (typeId == ethernetType) {
    const U32 a = part1 >> 20, b = part1 >> 8 & maxPort, c = part1 & maxLane;
    if (a == 0 || (b == 0 && c != 0)) return false;
    out.append("Ethernet");
    out.number(a);
    for (const U32 n : {b, c}) {
      if (n == 0) break;
      out.append('/');
      out.number(n);
    }
    if (part0 != 0) {
      out.append('.');
      out.number(part0);
    }
    return true;
  }
  if (typeId <= lastNumberedType) {
    if (part0 != 0) return false;
    out.append(numberedRows[typeId - numberedRows[0].typeId].name);
    out.number(part1);
    return true;
  }
  for (const auto& row : pairRows) {
    if (row.typeId != typeId) continue;
    out.append(row.name);
    pairWrite(out, intf);
    return true;
  }
  return false;
}

// Only for words without a name of their own: no interface has two names.
std::optional<IntfId> genericRead(std::string_view name) {
  U32 typeId;
  if (!literalTake(name, "Generic") || !decimalTake(name, 0xff, typeId) ||
      !literalTake(name, "."))
    return {};
  const auto intf = pairRead(name, typeId);
  Kop::TextOut unused;
  if (!intf || ownNameWrite(unused, *intf)) return {};
  return intf;
}

IntfId intfOf(std::string_view name) {
  if (const auto intf = rowRead(name)) return *intf;
  if (const auto intf = shortNameRead(name)) return *intf;
  if (const auto intf = genericRead(name)) return *intf;
  throwUnreadable<Kop::RangeException>("not the name of an interface", name);
}

}  // namespace

IntfId::IntfId(const Kop::String& name) : IntfId(intfOf(name)) {}

IntfId::IntfId(Kop::TextIt& it, const Kop::TextIt& end) {
  Kop::TextIt behind = it;
  *this = intfOf(Kop::readAttr<Kop::String>(behind, end, "intfId"));
  it = behind;
}

void IntfId::bareWrite(Kop::TextOut& out) const {
  if (ownNameWrite(out, *this)) return;
  out.append("Generic");
  out.number(typeId());
  out.append('.');
  pairWrite(out, *this);
}

Kop::String IntfId::stringValue() const {
  return bareString(*this);
}
void strepWrite(Kop::TextOut& out, const IntfId& intf) {
  // Only a short name may hold what has to be escaped.
  if (intf.typeId() != shortNameType) return quotedWrite(out, intf);
  Kop::TextOut name;
  intf.bareWrite(name);
  Kop::strepWriteQuoted(out, name.view());
}
std::ostream& operator<<(std::ostream& out, const IntfId& intf) {
  return bareToStream(out, intf);
}

}  // namespace Vantor
