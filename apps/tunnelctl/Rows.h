#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Tunnel/TunnelTableHivelTypes.h"
#include "apps/tunnelctl/Output.h"

// Rows of tunnel tables and their next hops, for people and for programs.
//
// Rows come from memory that another process writes: any identifier, family or number may
// stand in them, and nothing here takes offence at it.

namespace Tunnelctl {

// The next hops of one row, and where they come from.
struct RowHops {
  // False when nobody tells next hops, or some have not arrived.
  bool known = false;
  std::vector<Tunnel::TunnelTable::NexthopTunnelL3Info> hops;
};

// "LDP", or "type 25" for a number that is no kind.
std::string kindText(Tunnel::TunnelTable::TunnelId id);
// "LDP tunnel index 26", "type 25 index 26"
std::string idText(Tunnel::TunnelTable::TunnelId id);
// "push 16003 16004"; "-" when the labels stay as they are.
std::string labelText(const Vantor::MplsLabelOperation& labels);
// "10.1.0.1  Ethernet1  push 16003 16004"
std::string hopText(const Tunnel::TunnelTable::NexthopTunnelL3Info& hop);

// The columns of a table of rows, and the cells of one.
std::vector<std::string> rowHeading(const Style& style);
std::vector<std::string> rowCells(const Style& style,
                                  const Tunnel::TunnelTable::TunnelTableEntry& row,
                                  const RowHops& hops);
// What details show below a row: a line per next hop, further endpoints.
std::vector<std::string> rowDetails(const Tunnel::TunnelTable::TunnelTableEntry& row,
                                    const RowHops& hops);

Json rowJson(const Tunnel::TunnelTable::TunnelTableEntry& row, const RowHops& hops);
Json hopJson(const Tunnel::TunnelTable::NexthopTunnelL3Info& hop);

// Name and text of everything a row says but its identifier.
using RowFields = std::vector<std::pair<std::string, std::string>>;
RowFields rowFields(const Tunnel::TunnelTable::TunnelTableEntry& row);

// What is wrong with a row that stands under a key in a table of one type; empty when
// nothing is.
std::string rowFault(Tunnel::TunnelTable::TunnelType tableType,
                     U64 key,
                     const Tunnel::TunnelTable::TunnelTableEntry& row);

bool isInside(const Vantor::IpGenPrefix& inner, const Vantor::IpGenPrefix& outer);
// Whether an endpoint of the row lies within the prefix.
bool hasEndpointIn(const Tunnel::TunnelTable::TunnelTableEntry& row,
                   const Vantor::IpGenPrefix& prefix);
// A prefix, or an address for itself alone.
//
// Errors   UsageError that names the argument.
Vantor::IpGenPrefix readPrefixArgument(std::string_view argument,
                                       const std::string& text);

// A row in its binary form, and back.
std::string packed(const Tunnel::TunnelTable::TunnelTableEntry& row);
Tunnel::TunnelTable::TunnelTableEntry unpacked(const std::string& bytes);

// Rows held in their binary form, to be shown in the order of entries: as operator< says, with
// what it says nothing of behind: types that are none, bandwidths that are no number, equal
// rows by key.
//
// Cost     the bytes of the records and 24 bytes per row.
class RowSet {
 public:
  void add(U64 key, const Tunnel::TunnelTable::TunnelTableEntry& row);
  std::size_t count() const { return order_.size(); }
  // The best `count` rows come first, in order; the others stand behind in no order.
  void sort(std::size_t count);
  Tunnel::TunnelTable::TunnelTableEntry row(std::size_t i) const;
  U64 key(std::size_t i) const;

 private:
  struct Place {
    U64 rank;      // of preference, default preference and metric
    U64 tunnelId;  // decides next
    U64 offset;    // of the record, which the key stands in front of
  };
  Tunnel::TunnelTable::TunnelTableEntry at(U64 offset) const;
  U64 keyAt(U64 offset) const;
  bool less(const Place& a, const Place& b) const;

  std::vector<Place> order_;
  std::vector<U8> bytes_;
};

}  // namespace Tunnelctl
