#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Tunnel/TunnelBasicTypes.h"
#include "Vantor/IntfId.h"
#include "apps/tunnelctl/Output.h"

// Identifiers taken apart and put together: what the verbs id, encap and intf do. Results
// are records for printRecords; a property that a kind of tunnel does not have is null.
//
// Errors   UsageError

namespace Tunnelctl {

// A decimal number, or a hexadecimal one with 0x. Empty when it is neither, or does not fit.
std::optional<U64> readNumber(std::string_view text);

// A number, a text such as "LDP tunnel index 26" or "Table:ldpTunnel-Index:1a", or the name
// of a tunnel's interface.
Tunnel::TunnelTable::TunnelId readTunnelId(std::string_view text);
Json describe(Tunnel::TunnelTable::TunnelId id);
// "IPv4" or "IPv6"; null for kinds without a family, and for one that does not exist.
Json familyJson(Tunnel::TunnelTable::TunnelId id);

struct TunnelIdParts {
  std::string kind;   // enumerator or command-line text, in any case
  std::string index;  // a number
  bool ipv6 = false;
  std::optional<std::string> algorithm;  // of a flex-algorithm tunnel
};
Tunnel::TunnelTable::TunnelId makeTunnelId(const TunnelIdParts& parts);

Tunnel::TunnelTable::EncapId readEncapId(std::string_view text);
Json describe(Tunnel::TunnelTable::EncapId id);
Tunnel::TunnelTable::EncapId makeEncapId(const std::string& kind,
                                         const std::string& index);

// A word or a name.
Vantor::IntfId readIntfId(std::string_view text);
Json describe(Vantor::IntfId intf);

// Whether asking for the table of such a tunnel is allowed.
bool hasTable(Tunnel::TunnelTable::TunnelType type);

// The results for a whole command line. Words that together are one identifier, as
// "LDP tunnel index 26" is, need no quotes.
Json decodeTunnelIds(const std::vector<std::string>& words);

}  // namespace Tunnelctl
