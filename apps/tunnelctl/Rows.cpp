#include "apps/tunnelctl/Rows.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "Kop/Exception.h"
#include "Kop/Text.h"
#include "apps/tunnelctl/Identifiers.h"

namespace Tunnelctl {

using namespace Tunnel::TunnelTable;
using Vantor::IpGenAddr;
using Vantor::IpGenPrefix;

namespace {

std::string str(const Kop::String& text) {
  return {text.data(), text.size()};
}
std::string textOrNone(const Kop::String& text) {
  return text.empty() ? "-" : printable(str(text));
}
Json textOrNull(const Kop::String& text) {
  return text.empty() ? Json() : Json::string(str(text));
}
Json textOrBytes(const Kop::String& text) {
  const std::string bytes = str(text);
  if (isUtf8(bytes)) return Json::string(bytes);
  return Json(Json::object().add("bytes", Json::string(printable(bytes).substr(2))));
}

bool isKind(TunnelType type) {
  return !Kop::EnumOps<TunnelType>::name(type).empty();
}

std::string bandwidthText(TunnelBandwidth bandwidth) {
  return bandwidth.isPresent() ? str(Kop::strepOf(bandwidth.value())) : "-";
}

std::string nextHopCell(const TunnelTableEntry& row, const RowHops& hops) {
  if (!row.nexthopTunnelId().isValid()) return "-";
  if (hops.hops.empty()) return idText(row.nexthopTunnelId());
  const NexthopTunnelL3Info& first = hops.hops.front();
  std::string text = textOrNone(first.destinationIp().stringValue()) + " " +
                     textOrNone(first.l3Intf().stringValue());
  if (hops.hops.size() > 1) text += " +" + std::to_string(hops.hops.size() - 1);
  return text;
}

}  // namespace

std::string kindText(TunnelId id) {
  const TunnelType type = id.tunnelType();
  const std::string text = str(TunnelId::tunnelTypeToCliStrep(type, false));
  return text.empty() ? "type " + std::to_string(U32{type}) : text;
}

std::string idText(TunnelId id) {
  if (isKind(id.tunnelType())) return str(id.toCliStrep());
  return kindText(id) + " index " + std::to_string(id.tunnelIndex());
}

std::string labelText(const Vantor::MplsLabelOperation& labels) {
  if (labels.operation() == Vantor::noOperation && labels.labelCount() == 0) return "-";
  const auto name = Kop::EnumOps<Vantor::MplsOperation>::name(labels.operation());
  std::string text = name.empty() ? "operation " + std::to_string(U32{labels.operation()})
                                  : std::string(name);
  for (const U32 label : labels.labels())
    text += " " + std::to_string(label);
  return text;
}

std::string hopText(const NexthopTunnelL3Info& hop) {
  return textOrNone(hop.destinationIp().stringValue()) + "  " +
         textOrNone(hop.l3Intf().stringValue()) + "  " + labelText(hop.mplsLabelStack());
}

std::vector<std::string> rowHeading(const Style& style) {
  if (style.brief) return {"kind", "index", "endpoint"};
  std::vector<std::string> heading{"kind",   "index",     "endpoint", "preference",
                                   "metric", "bandwidth", "next hop"};
  if (style.detail) heading.push_back("interface");
  heading.push_back("name");
  return heading;
}

std::vector<std::string> rowCells(const Style& style,
                                  const TunnelTableEntry& row,
                                  const RowHops& hops) {
  const TunnelId id = row.tunnelId();
  std::vector<std::string> cells{kindText(id), std::to_string(id.tunnelIndex()),
                                 textOrNone(row.tep().stringValue())};
  if (style.brief) return cells;
  cells.push_back(std::to_string(row.entryPref().value()));
  cells.push_back(std::to_string(row.entryMetric()));
  cells.push_back(bandwidthText(row.tunnelBw()));
  cells.push_back(nextHopCell(row, hops));
  if (style.detail) cells.push_back(str(id.intfCliStr()));
  cells.push_back(textOrNone(row.getName()));
  return cells;
}

std::vector<std::string> rowDetails(const TunnelTableEntry& row, const RowHops& hops) {
  std::vector<std::string> lines;
  for (U32 i = 1; i < row.endpoint().count(); ++i)
    lines.push_back("    endpoint " + textOrNone(row.endpoint().data()[i].stringValue()));
  for (const NexthopTunnelL3Info& hop : hops.hops)
    lines.push_back("    via " + hopText(hop));
  if (row.nexthopTunnelId().isValid() && !hops.known)
    lines.push_back("    next hops of " + idText(row.nexthopTunnelId()) + " are missing");
  return lines;
}

Json hopJson(const NexthopTunnelL3Info& hop) {
  const auto operation = hop.mplsLabelStack().operation();
  const auto name = Kop::EnumOps<Vantor::MplsOperation>::name(operation);
  Json labels = Json::array();
  for (const U32 label : hop.mplsLabelStack().labels())
    labels.push(Json::number(U64{label}));
  Json json = Json::object();
  json.add("address", textOrNull(hop.destinationIp().stringValue()));
  json.add("interface", textOrNull(hop.l3Intf().stringValue()));
  json.add("operation",
           name.empty() ? Json::number(U64{operation}) : Json::string(std::string(name)));
  json.add("labels", std::move(labels));
  return json;
}

Json rowJson(const TunnelTableEntry& row, const RowHops& hops) {
  const TunnelId id = row.tunnelId();
  const TunnelType type = id.tunnelType();
  const auto typeName = Kop::EnumOps<TunnelType>::name(type);
  const float bandwidth = row.tunnelBw().value();
  Json endpoints = Json::array();
  for (const IpGenPrefix& endpoint : row.endpoint())
    endpoints.push(textOrNull(endpoint.stringValue()));
  Json nextHops;
  if (hops.known) {
    nextHops = Json::array();
    for (const NexthopTunnelL3Info& hop : hops.hops)
      nextHops.push(hopJson(hop));
  }
  Json json = Json::object();
  json.add("tunnelId", Json::number(id.value()));
  json.add("kind", Json::string(kindText(id)));
  json.add("type", typeName.empty() ? Json() : Json::string(std::string(typeName)));
  json.add("index", Json::number(id.tunnelIndex()));
  json.add("family", familyJson(id));
  json.add("algorithm", TunnelId::isFlexAlgoTunnelType(type)
                            ? Json::number(U64{id.extractFlexAlgoId()})
                            : Json());
  json.add("interface", textOrNull(id.intfCliStr()));
  json.add("endpoint", textOrNull(row.tep().stringValue()));
  json.add("endpoints", std::move(endpoints));
  json.add("preference", Json::number(U64{row.entryPref().value()}));
  json.add("metric", Json::number(U64{row.entryMetric()}));
  json.add("bandwidth",
           !std::isfinite(bandwidth)    ? Json::string(str(Kop::strepOf(bandwidth)))
           : row.tunnelBw().isPresent() ? Json::number(str(Kop::strepOf(bandwidth)))
                                        : Json());
  json.add("nexthopTunnelId", Json::number(row.nexthopTunnelId().value()));
  json.add("nextHops", std::move(nextHops));
  json.add("name", textOrBytes(row.getName()));
  return json;
}

RowFields rowFields(const TunnelTableEntry& row) {
  std::string endpoints;
  for (const IpGenPrefix& endpoint : row.endpoint())
    endpoints += (endpoints.empty() ? "" : " ") + textOrNone(endpoint.stringValue());
  return {
      {"endpoint",   endpoints.empty() ? "-" : endpoints                                  },
      {"preference", std::to_string(row.entryPref().value())                              },
      {"metric",     std::to_string(row.entryMetric())                                    },
      {"bandwidth",  bandwidthText(row.tunnelBw())                                        },
      {"next hop",   row.nexthopTunnelId().isValid() ? idText(row.nexthopTunnelId()) : "-"},
      {"name",       textOrNone(row.getName())                                            },
  };
}

std::string rowFault(TunnelType tableType, U64 key, const TunnelTableEntry& row) {
  const TunnelId id = row.tunnelId();
  std::string fault;
  const auto add = [&](const std::string& text) {
    fault += (fault.empty() ? "" : "; ") + text;
  };
  if (id.value() != key)
    add("stands under key " + std::to_string(key) + ", but says it is " +
        std::to_string(id.value()));
  if (!isKind(id.tunnelType()))
    add("is of type " + std::to_string(U32{id.tunnelType()}) +
        ", which is no kind of tunnel");
  else if (id.tunnelType() != tableType)
    add("is " + idText(id) + ", but the table holds " +
        std::string(Kop::EnumOps<TunnelType>::name(tableType)));
  for (const IpGenPrefix& endpoint : row.endpoint()) {
    const IpGenAddr& address = endpoint.ipGenAddr();
    if (address.af() > Vantor::ipv6)
      add("has an endpoint of family " + std::to_string(U32{address.af()}));
    else if (endpoint.len() > address.bitCount())
      add("has an endpoint of " + std::to_string(endpoint.len()) + " bits where " +
          std::to_string(address.bitCount()) + " are");
  }
  if (std::isnan(row.tunnelBw().value())) add("has a bandwidth that is no number");
  return fault;
}

bool isInside(const IpGenPrefix& inner, const IpGenPrefix& outer) {
  const U8 *const bytes = inner.ipGenAddr().bytes(), *const net =
                                                         outer.ipGenAddr().bytes();
  if (inner.af() != outer.af() || inner.len() < outer.len()) return false;
  const U32 whole = outer.len() / 8, rest = outer.len() % 8;
  if (std::memcmp(bytes, net, whole) != 0) return false;
  return rest == 0 || (bytes[whole] ^ net[whole]) >> (8 - rest) == 0;
}

bool hasEndpointIn(const TunnelTableEntry& row, const IpGenPrefix& prefix) {
  return std::any_of(
      row.endpoint().begin(), row.endpoint().end(),
      [&](const IpGenPrefix& endpoint) { return isInside(endpoint, prefix); });
}

IpGenPrefix readPrefixArgument(std::string_view argument, const std::string& text) {
  try {
    if (text.find('/') != text.npos) return IpGenPrefix(Kop::String(text));
    const IpGenAddr address{Kop::String(text)};
    if (address.af() != Vantor::noAddressFamily)
      return IpGenPrefix(address, address.bitCount());
  } catch (const Kop::Exception&) {
  }
  throw UsageError(
      std::string(argument) + " '" + printable(text) +
      "': expected a prefix or an address, such as 10.0.0.0/8 or 2001:db8::1");
}

std::string packed(const TunnelTableEntry& row) {
  std::string bytes(row.serializeLen(), '\0');
  row.serialize(bytes.data());
  return bytes;
}

TunnelTableEntry unpacked(const std::string& bytes) {
  TunnelTableEntry row;
  row.deserialize(bytes.data(), static_cast<U32>(bytes.size()));
  return row;
}

void RowSet::add(U64 key, const TunnelTableEntry& row) {
  const TunnelType type = row.tunnelId().tunnelType();
  const bool known = isKind(type);
  const U64 defaultPref = known ? TunnelEntryPref::getDefaultPrefForType(type) : 0;
  const U64 rank = U64{!known} << 48 | U64{row.entryPref().value()} << 40 |
                   defaultPref << 32 | row.entryMetric();
  order_.push_back({rank, row.tunnelId().value(), bytes_.size()});
  const std::size_t at = bytes_.size();
  bytes_.resize(at + sizeof key + row.serializeLen());
  std::memcpy(bytes_.data() + at, &key, sizeof key);
  row.serialize(bytes_.data() + at + sizeof key);
}

TunnelTableEntry RowSet::at(U64 offset) const {
  TunnelTableEntry row;
  const U64 start = offset + sizeof(U64);
  row.deserialize(bytes_.data() + start,
                  static_cast<U32>(std::min<U64>(bytes_.size() - start, ~U32{0})));
  return row;
}

TunnelTableEntry RowSet::row(std::size_t i) const {
  return at(order_[i].offset);
}

U64 RowSet::keyAt(U64 offset) const {
  U64 key;
  std::memcpy(&key, bytes_.data() + offset, sizeof key);
  return key;
}

U64 RowSet::key(std::size_t i) const {
  return keyAt(order_[i].offset);
}

bool RowSet::less(const Place& a, const Place& b) const {
  if (a.rank != b.rank) return a.rank < b.rank;
  if (a.tunnelId != b.tunnelId) return a.tunnelId < b.tunnelId;
  if (a.offset == b.offset) return false;
  // One tunnel twice: a table with a fault.
  const TunnelTableEntry ours = at(a.offset), theirs = at(b.offset);
  const bool areOdd = std::isnan(ours.tunnelBw().value()),
             theyAreOdd = std::isnan(theirs.tunnelBw().value());
  if (areOdd != theyAreOdd) return theyAreOdd;
  if (!areOdd && isKind(ours.tunnelId().tunnelType()))
    if (ours < theirs || theirs < ours) return ours < theirs;
  return keyAt(a.offset) < keyAt(b.offset);
}

void RowSet::sort(std::size_t count) {
  const auto middle =
      order_.begin() + static_cast<std::ptrdiff_t>(std::min(count, order_.size()));
  const auto order = [this](const Place& a, const Place& b) { return less(a, b); };
  if (middle == order_.end())
    std::sort(order_.begin(), order_.end(), order);
  else
    std::partial_sort(order_.begin(), middle, order_.end(), order);
}

}  // namespace Tunnelctl
