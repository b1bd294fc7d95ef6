#include "apps/tunnelctl/Identifiers.h"

#include <charconv>

#include "Kop/Exception.h"
#include "Kop/Module.h"
#include "Tunnel/TunnelIntfId.h"

namespace Tunnelctl {

using namespace Tunnel::TunnelTable;
using Vantor::DynamicTunnelIntfId;
using Vantor::IntfId;

namespace {

constexpr U32 kindCount = 32;  // of 5 bits
constexpr U32 policyIntfType = 19;
constexpr U64 policyIndexLow = 0x7fffff;   // of part 0
constexpr U32 policyPart1Mark = 0x1e0000;  // always set in part 1
constexpr U32 staticIntfType = 5;          // "Tunnel<n>"

std::string str(const Kop::String& text) {
  return {text.data(), text.size()};
}
std::string quote(std::string_view text) {
  return "'" + std::string(text) + "'";
}
std::string hex(U64 value) {
  char digits[20];
  const auto end = std::to_chars(digits, digits + sizeof digits, value, 16);
  return "0x" + std::string(digits, end.ptr);
}
std::string lower(std::string_view text) {
  std::string result(text);
  for (char& c : result)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return result;
}

// The enumerator of a kind that goes by the name, in any case.
template <class E>
std::optional<E> kindNamed(std::string_view name,
                           U32 count,
                           Kop::String (*cliText)(E, bool)) {
  const std::string wanted = lower(name);
  if (wanted.empty()) return {};
  for (U32 i = 0; i < count; ++i) {
    const E kind = static_cast<E>(i);
    if (lower(Kop::EnumOps<E>::name(kind)) == wanted) return kind;
  }
  // Texts come second: VXLAN encapsulations are shown as invalid ones.
  for (U32 i = 0; i < count; ++i) {
    const E kind = static_cast<E>(i);
    if (lower(str(cliText(kind, false))) == wanted ||
        lower(str(cliText(kind, true))) == wanted)
      return kind;
  }
  return {};
}

template <class E>
std::string kindList(U32 count) {
  std::string list;
  for (U32 i = 0; i < count; ++i) {
    const auto name = Kop::EnumOps<E>::name(static_cast<E>(i));
    if (!name.empty()) list += (list.empty() ? "" : ", ") + std::string(name);
  }
  return list;
}

std::optional<TunnelType> tunnelKind(std::string_view name) {
  return kindNamed<TunnelType>(name, kindCount, TunnelId::tunnelTypeToCliStrep);
}
std::optional<EncapType> encapKind(std::string_view name) {
  return kindNamed<EncapType>(name, 6, EncapId::typeCliStrep);
}

std::optional<TunnelId> idOf(TunnelType kind, U64 indexAndAf) {
  if (indexAndAf > TunnelIdConstants::tunnelIndexMask) return {};
  return TunnelId(TunnelId::convertToTunnelValue(kind, indexAndAf));
}

// "LDP tunnel index 26"
std::optional<TunnelId> fromCliText(std::string_view text) {
  constexpr std::string_view middle = " tunnel index ";
  const auto at = text.rfind(middle);
  if (at == text.npos) return {};
  const auto kind = tunnelKind(text.substr(0, at));
  const auto index = readNumber(text.substr(at + middle.size()));
  if (!kind || !index) return {};
  return idOf(*kind, *index);
}

// "Table:ldpTunnel-Index:1a"
std::optional<TunnelId> fromDiagnosticText(std::string_view text) {
  constexpr std::string_view head = "Table:", middle = "-Index:";
  if (!text.starts_with(head)) return {};
  const auto at = text.find(middle);
  if (at == text.npos) return {};
  const auto kind = tunnelKind(text.substr(head.size(), at - head.size()));
  const std::string_view digits = text.substr(at + middle.size());
  U64 index = 0;
  const auto read =
      std::from_chars(digits.data(), digits.data() + digits.size(), index, 16);
  if (!kind || digits.empty() || read.ec != std::errc() ||
      read.ptr != digits.data() + digits.size())
    return {};
  return idOf(*kind, index);
}

std::optional<TunnelId> fromInterface(IntfId intf) {
  if (DynamicTunnelIntfId::isDynamicTunnelIntfId(intf)) {
    const U64 value = DynamicTunnelIntfId::tunnelId(intf);
    if (value > TunnelId::maxValue) return {};
    return TunnelId(value);
  }
  if (intf.typeId() == staticIntfType && intf.part(0) == 0)
    return idOf(staticInterfaceTunnel, intf.part(1));
  // The mark covers index bits 40 to 42; indexes that large are not told apart.
  if (intf.typeId() == policyIntfType &&
      (intf.part(1) & policyPart1Mark) == policyPart1Mark)
    return idOf(srTePolicyTunnel, U64{intf.part(1) & ~policyPart1Mark} << 23 |
                                      (intf.part(0) & policyIndexLow));
  return {};
}

std::optional<IntfId> intfNamed(std::string_view name) {
  try {
    return IntfId(Kop::String(name));
  } catch (const Kop::Exception&) {
    return {};
  }
}

std::optional<TunnelId> tunnelIdFromText(std::string_view text) {
  if (const auto id = fromCliText(text)) return id;
  if (const auto id = fromDiagnosticText(text)) return id;
  // Of static interface tunnels the name holds the index, also one too large for a name of
  // any real interface.
  constexpr std::string_view staticName = "Tunnel";
  if (text.starts_with(staticName))
    if (const auto index = readNumber(text.substr(staticName.size())))
      return idOf(staticInterfaceTunnel, *index);
  if (const auto intf = intfNamed(text)) return fromInterface(*intf);
  return {};
}

// Null for what a kind cannot answer.
template <class Ask>
Json answer(Ask ask) {
  try {
    return Json::string(str(Kop::strepOf(ask())));
  } catch (const Kop::Exception&) {
    return Json();
  }
}
Json nameOrNull(std::string_view name) {
  return name.empty() ? Json() : Json::string(std::string(name));
}

U64 needNumber(std::string_view argument, const std::string& text, U64 limit) {
  const auto number = readNumber(text);
  if (!number || *number > limit)
    throw UsageError(std::string(argument) + " " + quote(text) +
                     ": expected a number from 0 to " + std::to_string(limit) + " (" +
                     hex(limit) + ")");
  return *number;
}

}  // namespace

std::optional<U64> readNumber(std::string_view text) {
  const bool isHex = text.starts_with("0x") || text.starts_with("0X");
  if (isHex) text.remove_prefix(2);
  U64 value = 0;
  const char* const end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, value, isHex ? 16 : 10);
  if (text.empty() || read.ec != std::errc() || read.ptr != end) return {};
  return value;
}

bool hasTable(TunnelType type) {
  switch (type) {
    case invalidTunnel:
    case bgpLuPushTunnel:
    case bgpLuTunnel:
    case ldpTunnel:
    case staticTunnel:
    case evpnVxlanTunnel:
    case srTunnel:
    case srTeSegmentListTunnel:
    case nexthopGroupTunnel:
    case tiLfaTunnel:
    case ospfSrTunnel:
    case srTePolicyTunnel:
    case rsvpLerTunnel:
    case rsvpFrrTunnel:
    case kelSdkSbfdSessionTunnel:
    case rsvpLerSubTunnel:
    case isisFlexAlgoTunnel:
    case mldpTunnel: return true;
    default: return false;
  }
}

TunnelId readTunnelId(std::string_view text) {
  if (const auto number = readNumber(text)) {
    if (*number <= TunnelId::maxValue) return TunnelId(*number);
    throw UsageError("id " + quote(text) + ": above the largest identifier " +
                     std::to_string(TunnelId::maxValue) + " (" + hex(TunnelId::maxValue) +
                     ")");
  }
  if (const auto id = tunnelIdFromText(text)) return *id;
  throw UsageError("id " + quote(text) +
                   ": expected a number, a text such as 'LDP tunnel index 26' or "
                   "'Table:ldpTunnel-Index:1a', or a tunnel's interface such as "
                   "'DynamicTunnel3145728.5'");
}

Json familyJson(TunnelId id) {
  try {
    switch (id.tunnelAf()) {
      case Vantor::ipv4: return Json::string("IPv4");
      case Vantor::ipv6: return Json::string("IPv6");
      default: return Json();
    }
  } catch (const Kop::Exception&) {
    return Json();
  }
}

Json describe(TunnelId id) {
  const TunnelType kind = id.tunnelType();
  const std::string text = str(id.typeCliStr());
  Json json = Json::object();
  json.add("value", Json::number(id.value()));
  json.add("hex", Json::string(hex(id.value())));
  json.add("kind", nameOrNull(Kop::EnumOps<TunnelType>::name(kind)));
  json.add("number", Json::number(U64{kind}));
  json.add("type", nameOrNull(text));
  json.add("index", Json::number(id.tunnelIndex()));
  json.add("family", familyJson(id));
  json.add("algorithm", TunnelId::isFlexAlgoTunnelType(kind)
                            ? Json::number(U64{id.extractFlexAlgoId()})
                            : Json());
  json.add("table", hasTable(kind) ? answer([&] { return id.tableType(); }) : Json());
  json.add("transport", answer([&] { return id.tunnelTransportType(); }));
  json.add("entropyLabel", Json::boolean(id.supportsEntropyLabelPush()));
  json.add("interface", Json::string(str(id.intfCliStr())));
  json.add("text", Json::string(str(id.toCliStrep())));
  json.add("diagnostic", Json::string(str(id.toStrep())));
  return json;
}

TunnelId makeTunnelId(const TunnelIdParts& parts) {
  const auto kind = tunnelKind(parts.kind);
  if (!kind)
    throw UsageError("KIND " + quote(parts.kind) + ": expected one of " +
                     kindList<TunnelType>(kindCount) + ", or its text such as 'LDP'");
  const bool isFlexAlgo = TunnelId::isFlexAlgoTunnelType(*kind);
  constexpr U64 flexAlgoLimit = (U64{1} << TunnelIdConstants::flexAlgoPos) - 1;
  U64 index = needNumber("INDEX", parts.index,
                         isFlexAlgo ? flexAlgoLimit : TunnelIdConstants::tunnelIndexMask);
  if (parts.algorithm && !isFlexAlgo)
    throw UsageError("--algo " + quote(*parts.algorithm) +
                     ": only isisFlexAlgoTunnel has one, not " +
                     std::string(Kop::EnumOps<TunnelType>::name(*kind)));
  if (parts.ipv6) {
    index |= TunnelIdConstants::tunnelAfMask;
    const TunnelId probe(TunnelId::convertToTunnelValue(*kind, index));
    if (!familyJson(probe).is(Json::Kind::string))
      throw UsageError("--ipv6: " + std::string(Kop::EnumOps<TunnelType>::name(*kind)) +
                       " has no IPv6 tunnels");
  }
  if (!isFlexAlgo) return TunnelId(TunnelId::convertToTunnelValue(*kind, index));
  const U64 algorithm = needNumber("--algo", parts.algorithm.value_or("0"), 255);
  return TunnelId(
      TunnelId::convertToFlexAlgoTunnelValue(*kind, static_cast<U8>(algorithm), index));
}

EncapId readEncapId(std::string_view text) {
  return EncapId(static_cast<U32>(needNumber("encap", std::string(text), 0xffffffff)));
}

Json describe(EncapId id) {
  Json json = Json::object();
  json.add("value", Json::number(U64{id.encapIdValue()}));
  json.add("hex", Json::string(hex(id.encapIdValue())));
  json.add("kind", nameOrNull(Kop::EnumOps<EncapType>::name(id.encapType())));
  json.add("number", Json::number(U64{id.encapType()}));
  json.add("type", nameOrNull(str(id.typeCliStr(false))));
  json.add("index", Json::number(U64{id.encapIndex()}));
  return json;
}

EncapId makeEncapId(const std::string& kindText, const std::string& index) {
  const auto kind = encapKind(kindText);
  if (!kind)
    throw UsageError("KIND " + quote(kindText) + ": expected one of " +
                     kindList<EncapType>(6) + ", or its text such as 'MPLS'");
  EncapId id;
  id.encapValueIs(*kind, static_cast<U32>(needNumber("INDEX", index,
                                                     EncapIdConstants::encapIndexMask)));
  return id;
}

IntfId readIntfId(std::string_view text) {
  if (const auto word = readNumber(text)) return IntfId::fromValue(*word);
  try {
    return IntfId(Kop::String(text));
  } catch (const Kop::Exception& error) {
    throw UsageError(
        "intf " + quote(text) +
        ": expected an interface word, or a name such as 'Ethernet3/1', 'Vlan10' or "
        "'DynamicTunnel3145728.5'");
  }
}

Json describe(IntfId intf) {
  const auto id = fromInterface(intf);
  Json json = Json::object();
  json.add("name", Json::string(str(intf.stringValue())));
  json.add("value", Json::number(intf.value()));
  json.add("hex", Json::string(hex(intf.value())));
  json.add("type", Json::number(U64{intf.typeId()}));
  json.add("part1", Json::number(U64{intf.part(1)}));
  json.add("part0", Json::number(U64{intf.part(0)}));
  json.add("tunnel", id ? Json::number(id->value()) : Json());
  json.add("text", id ? Json::string(str(id->toCliStrep())) : Json());
  return json;
}

Json decodeTunnelIds(const std::vector<std::string>& words) {
  std::string joined;
  bool areWords = words.size() > 1;
  for (const std::string& word : words) {
    joined += (joined.empty() ? "" : " ") + word;
    areWords = areWords && word.find(' ') == word.npos;
  }
  Json records = Json::array();
  if (areWords && joined.find(" tunnel index ") != joined.npos)
    return std::move(records.push(describe(readTunnelId(joined))));
  for (const std::string& word : words)
    records.push(describe(readTunnelId(word)));
  return records;
}

}  // namespace Tunnelctl
