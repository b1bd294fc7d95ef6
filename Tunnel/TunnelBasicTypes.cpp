#include "Tunnel/TunnelBasicTypes.h"

#include <cmath>
#include <iterator>
#include <ostream>

#include "Kop/Assert.h"
#include "Kop/EntityImpl.h"
#include "Kop/ModuleImpl.h"
#include "Kop/ValueImpl.h"
#include "Toggle/Toggle.h"
#include "Tunnel/TunnelIntfId.h"

namespace Tunnel {

constexpr const char* source = "Tunnel/TunnelBasicTypes";

// Function-local, so that a failing toggle service leaves them unset and is asked again.

bool toggleFlexAlgoEnabled() {
  static const bool enabled = getToggleState("FlexAlgo", "Tunnel.json", true);
  return enabled;
}
bool toggleOspfSegmentRoutingTunnelEnabled() {
  static const bool enabled =
      getToggleState("OspfSegmentRoutingTunnel", "Tunnel.json", true);
  return enabled;
}

U32 valueHash(const TunnelEntrySequenceNumber&, U32) = delete;
std::ostream& operator<<(std::ostream& out, const TunnelEntrySequenceNumber& number) {
  return out << number.value();
}

namespace TunnelTable {

namespace {

// Which addresses a type of tunnel may have.
enum class Family : U8 {
  ipv4Only,  // the family bit must be clear
  byBit,
  none,  // whatever the bit says
};

// What is known of a type of tunnel without looking it up anywhere.
struct TypeRules {
  const char* cliText;  // empty: there is no such type
  TunnelTableIdentifier table;
  TunnelTransportType transport;
  Family family;
  bool entropyLabel;  // may push one
};

constexpr auto noTable = static_cast<TunnelTableIdentifier>(0xff);
constexpr TypeRules noType{"", noTable, unknownTunnel, Family::ipv4Only, false};

// By type number.
constexpr TypeRules typeRules[] = {
    {"invalidTunnel",    invalidTunnelTable,           unknownTunnel, Family::ipv4Only, false},
    {"BGP LU Push",      bgpLuPushTunnelTable,         mplsTunnel,    Family::ipv4Only, true },
    {"BGP LU",           bgpLuTunnelTable,             mplsTunnel,    Family::ipv4Only, true },
    {"LDP",              ldpTunnelTable,               mplsTunnel,    Family::ipv4Only, true },
    {"Nexthop",          noTable,                      unknownTunnel, Family::ipv4Only, false},
    {"Static MPLS",      staticTunnelTable,            mplsTunnel,    Family::byBit,    true },
    {"EVPN VXLAN",       evpnVxlanTunnelTable,         unknownTunnel, Family::ipv4Only, false},
    {"IS-IS SR",         srTunnelTable,                mplsTunnel,    Family::byBit,    true },
    {"SR-TE",            srTeSegmentListTunnelTable,   mplsTunnel,    Family::none,     true },
    {"Static Interface", noTable,                      ipTunnel,      Family::none,     false},
    {"RSVP",             noTable,                      mplsTunnel,    Family::ipv4Only, true },
    {"Nexthop Group",    nexthopGroupTunnelTable,      mplsTunnel,    Family::byBit,    false},
    {"TI-LFA",           tiLfaTunnelTable,             mplsTunnel,    Family::ipv4Only, false},
    {"OSPF SR",          ospfSrTunnelTable,            mplsTunnel,    Family::byBit,    true },
    {"SR-TE Policy",     srTePolicyTunnelTable,        mplsTunnel,    Family::ipv4Only, false},
    {"VXLAN VTEP Encap", noTable,                      unknownTunnel, Family::ipv4Only, false},
    {"RSVP LER",         rsvpLerTunnelTable,           mplsTunnel,    Family::ipv4Only, false},
    {"RSVP FRR",         rsvpFrrTunnelTable,           mplsTunnel,    Family::ipv4Only, false},
    {"KelSdk sBFD",      kelSdkSbfdSessionTunnelTable, mplsTunnel,    Family::ipv4Only, false},
    {"VXLAN",            noTable,                      unknownTunnel, Family::ipv4Only, false},
    {"RSVP LER SUB",     rsvpLerSubTunnelTable,        mplsTunnel,    Family::ipv4Only, false},
    {"IS-IS FlexAlgo",   isisFlexAlgoTunnelTable,      mplsTunnel,    Family::byBit,    true },
    {"MLDP",             mldpTunnelTable,              mplsTunnel,    Family::ipv4Only, false},
    noType,
    noType,
    noType,
    noType,
    noType,
    noType,
    noType,
    noType,
    {"maxTunnelType",    noTable,                      unknownTunnel, Family::ipv4Only, false},
};
static_assert(std::size(typeRules) == maxTunnelType + 1);

// Those of noType for any number that is none: a word from the attribute log may hold one.
const TypeRules& rulesOf(TunnelType type) {
  return type < std::size(typeRules) ? typeRules[type] : noType;
}
bool exists(const TypeRules& rules) {
  return rules.cliText[0] != '\0';
}

// Whether the command line may call the type by its name.
bool shown(TunnelType type) {
  if (type == ospfSrTunnel) return toggleOspfSegmentRoutingTunnelEnabled();
  if (type == isisFlexAlgoTunnel) return toggleFlexAlgoEnabled();
  return true;
}

void appendHex(Kop::TextOut& out, U64 number) {
  char digits[16];
  const auto end = std::to_chars(std::begin(digits), std::end(digits), number, 16).ptr;
  out.append(digits, static_cast<std::size_t>(end - digits));
}

}  // namespace

void TunnelId::throwOutOfRange() {
  throw Kop::RangeException(
      "Tunnel::TunnelTable::TunnelId::value < Tunnel::TunnelTable::TunnelId::minValue or "
      "> Tunnel::TunnelTable::TunnelId::maxValue not allowed");
}

TunnelTableIdentifier TunnelId::tableType() const {
  const TypeRules& rules = rulesOf(tunnelType());
  if (!exists(rules))
    Kop::assertFail("false && \"Unknown tunnel type used\"", source, __func__);
  if (rules.table == noTable)
    Kop::assertFail("false && \"No tunnel table identifier for type\"", source, __func__);
  return rules.table;
}

TunnelTransportType TunnelId::tunnelTransportType() const {
  const TypeRules& rules = rulesOf(tunnelType());
  if (!exists(rules))
    throw Kop::InternalException(
        Kop::stringPrintf("Unexpected tunnelType %x", U32{tunnelType()}));
  return rules.transport;
}

Vantor::AddressFamily TunnelId::tunnelAf() const {
  const bool ipv6 = (value_ & TunnelIdConstants::tunnelAfMask) != 0;
  switch (rulesOf(tunnelType()).family) {
    case Family::none: return Vantor::noAddressFamily;
    case Family::byBit: return ipv6 ? Vantor::ipv6 : Vantor::ipv4;
    case Family::ipv4Only: break;
  }
  if (ipv6)
    throw Kop::InternalException(
        Kop::stringPrintf("IPv6 not yet supported for %x", U32{tunnelType()}));
  return Vantor::ipv4;
}

bool TunnelId::supportsEntropyLabelPush() const {
  return rulesOf(tunnelType()).entropyLabel;
}

U8 TunnelId::extractFlexAlgoId() const {
  if (!isFlexAlgoTunnelType(tunnelType()))
    throw Kop::RangeException("extractFlexAlgoId only supported for flex algo tunnels");
  return static_cast<U8>(value_ >> TunnelIdConstants::flexAlgoPos);
}

// The label says "Table:", what follows is the type: log readers match on it.
Kop::String TunnelId::toStrep() const {
  Kop::TextOut out;
  out.append("Table:");
  strepWrite(out, tunnelType());
  out.append("-Index:");
  appendHex(out, tunnelIndex());
  return out.string();
}

Kop::String TunnelId::toCliStrep() const {
  Kop::TextOut out;
  out.append(tunnelTypeToCliStrep(tunnelType(), false));
  out.append(" tunnel index ");
  out.number(tunnelIndex());
  return out.string();
}

Kop::String TunnelId::typeCliStr() const {
  return tunnelTypeToCliStrep(tunnelType(), false);
}

Kop::String TunnelId::addressFamilyCliStr() const {
  return (value_ & TunnelIdConstants::tunnelAfMask) != 0 ? "IPv6" : "IPv4";
}

// In a policy's interface the constant covers index bits 40 to 42, so indices that differ
// only there share an interface.
Vantor::IntfId TunnelId::intfId() const {
  if (tunnelType() != srTePolicyTunnel)
    return Vantor::DynamicTunnelIntfId::tunnelIdToIntfId(value_);
  constexpr U32 policyIntfIdType = 19, part0Bits = 23, part1Constant = 0x1e0000;
  Vantor::IntfId intf;
  intf.typeIdIs(policyIntfIdType);
  intf.partIs(0, static_cast<U32>(tunnelIndex() & ((1u << part0Bits) - 1)));
  intf.partIs(1, static_cast<U32>(tunnelIndex() >> part0Bits | part1Constant));
  return intf;
}

Kop::String TunnelId::intfCliStr() const {
  if (tunnelType() != staticInterfaceTunnel) return intfId().stringValue();
  Kop::TextOut out;
  out.append("Tunnel");
  out.number(tunnelIndex());
  return out.string();
}

U64 TunnelId::convertToTunnelValue(TunnelType type, U64 indexAndAf) {
  if (indexAndAf >> TunnelIdConstants::tunnelTypePos != 0)
    throw Kop::RangeException("Invalid 'indexAndAf'value, value is above 2^44");
  return (U64{type} << TunnelIdConstants::tunnelTypePos &
          TunnelIdConstants::tunnelTypeMask) |
         indexAndAf;
}

U64 TunnelId::convertToFlexAlgoTunnelValue(TunnelType type, U8 algoId, U64 indexAndAf) {
  if (!isFlexAlgoTunnelType(type))
    throw Kop::RangeException(
        "convertToFlexAlgoTunnelValue only supported for flex algo tunnels");
  return convertToTunnelValue(type, indexAndAf) | U64{algoId}
                                                      << TunnelIdConstants::flexAlgoPos;
}

// The spellings fixed for JSON are those of the enumerators, so the flag changes nothing as
// long as nobody renames one.
Kop::String TunnelId::tunnelTypeToCliStrep(TunnelType type, bool json) {
  if (!shown(type)) type = invalidTunnel;
  if (!json && (type == invalidTunnel || type == maxTunnelType))
    return valueToStrep(type);
  return rulesOf(type).cliText;
}

void valueParse(TunnelId& id, Kop::TextIt& it, const Kop::TextIt& end) {
  id = TunnelId(Kop::readAttr<U64>(it, end, "value"));
}
std::ostream& operator<<(std::ostream& out, const TunnelId& id) {
  return out << id.value();
}

void EncapId::encapValueIs(EncapType type, U32 index) {
  if (index >> EncapIdConstants::encapTypePos != 0)
    throw Kop::RangeException("Invalid 'encapIndex'");
  encapIdValue_ = U32{type} << EncapIdConstants::encapTypePos | index;
}

Kop::String EncapId::typeCliStr(bool json) const {
  return typeCliStrep(encapType(), json);
}

Kop::String EncapId::typeCliStrep(EncapType type, bool json) {
  switch (type) {
    case greEncap: return "GRE";
    case ipSecEncap: return "IPsec";
    case ipSecGreEncap: return json ? "GREoverIPsec" : "GRE over IPsec";
    case mplsEncap: return "MPLS";
    case invalidEncap:
    case vxlanEncap: return "Invalid";
  }
  return "";
}

U32 HwTunnelKey::hash(U32 seed) const {
  return Kop::ValueOps<HwTunnelKey>::recordHash(*this, seed);
}

bool TunnelBandwidth::isValid() const {
  return std::isfinite(value_) && value_ >= 0;
}
bool valueTruth(const TunnelBandwidth& bandwidth) {
  return bandwidth.isPresent();
}
std::ostream& operator<<(std::ostream& out, const TunnelBandwidth& bandwidth) {
  return out << bandwidth.value();
}

}  // namespace TunnelTable
}  // namespace Tunnel

KOP_MODULE(TunnelBasicTypes,
           445c9913fcd3157c,
           Tunnel::GreHdrFlagsType,
           Tunnel::TunnelTable::NexthopType,
           Tunnel::TunnelTable::EncapType,
           Tunnel::TunnelTable::TunnelTableIdentifier,
           Tunnel::TunnelTable::TunnelType,
           Tunnel::TunnelTable::ContributionToTunnelRIB,
           Tunnel::TunnelTable::TunnelTransportType,
           Tunnel::TunnelTable::TunnelIdConstants,
           Tunnel::TunnelTable::TunnelId,
           Tunnel::TunnelTable::EncapIdConstants,
           Tunnel::TunnelTable::EncapId,
           Tunnel::TunnelTable::HwTunnelKey,
           Tunnel::TunnelTable::TunnelBandwidth,
           Tunnel::TunnelEntrySequenceNumber,
           Tunnel::TunnelTable::Via,
           Tunnel::TunnelTable::TunnelVia,
           Tunnel::TunnelTable::MplsVia,
           Tunnel::TunnelTable::MplsCosVia,
           Tunnel::TunnelTable::BgpLuVia,
           Tunnel::TunnelTable::ColoredTunnelEndpoint,
           Tunnel::L3TunnelInfo,
           Tunnel::GreTunnelInfo,
           Tunnel::IpsecGreTunnelInfo,
           Tunnel::IpsecVtiTunnelInfo,
           Tunnel::VxlanTunnelInfo,
           Tunnel::L3TunnelInfoTable,
           Tunnel::GreTunnelInfoTable,
           Tunnel::IpsecGreTunnelInfoTable,
           Tunnel::IpsecVtiTunnelInfoTable);
KOP_INSTANTIATE_ENUM(Tunnel::GreHdrFlagsType);
KOP_INSTANTIATE_ENUM(Tunnel::TunnelTable::NexthopType);
KOP_INSTANTIATE_ENUM(Tunnel::TunnelTable::EncapType);
KOP_INSTANTIATE_ENUM(Tunnel::TunnelTable::TunnelTableIdentifier);
KOP_INSTANTIATE_ENUM(Tunnel::TunnelTable::TunnelType);
KOP_INSTANTIATE_ENUM(Tunnel::TunnelTable::ContributionToTunnelRIB);
KOP_INSTANTIATE_ENUM(Tunnel::TunnelTable::TunnelTransportType);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::TunnelIdConstants);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::TunnelId);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::EncapIdConstants);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::EncapId);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::HwTunnelKey);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::TunnelBandwidth);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelEntrySequenceNumber);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::Via);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::TunnelVia);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::MplsVia);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::MplsCosVia);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::BgpLuVia);
KOP_INSTANTIATE_VALUE(Tunnel::TunnelTable::ColoredTunnelEndpoint);
KOP_INSTANTIATE_VALUE(Tunnel::L3TunnelInfo);
KOP_INSTANTIATE_VALUE(Tunnel::GreTunnelInfo);
KOP_INSTANTIATE_VALUE(Tunnel::IpsecGreTunnelInfo);
KOP_INSTANTIATE_VALUE(Tunnel::IpsecVtiTunnelInfo);
KOP_INSTANTIATE_VALUE(Tunnel::VxlanTunnelInfo);
KOP_INSTANTIATE_ENTITY(Tunnel, L3TunnelInfoTable);
KOP_INSTANTIATE_ENTITY(Tunnel, GreTunnelInfoTable);
KOP_INSTANTIATE_ENTITY(Tunnel, IpsecGreTunnelInfoTable);
KOP_INSTANTIATE_ENTITY(Tunnel, IpsecVtiTunnelInfoTable);
