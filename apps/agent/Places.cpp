#include "apps/agent/Places.h"

#include "Hivel/Database.h"
#include "Kop/Assert.h"
#include "Kop/Exception.h"

namespace Agent {

using namespace Tunnel::TunnelTable;

namespace {

constexpr U32 hopBits = 8;
static_assert(1u << hopBits == maxNextHops);

std::string pathOf(std::string_view folder, std::string_view part) {
  std::string path = std::string(folder) + '/' + std::string(part);
  Hivel::checkPath(path);
  if (part.find('/') != part.npos)
    throw Kop::RangeException("'" + std::string(part) +
                              "' is not one part of a path: it has a '/'");
  return path;
}

}  // namespace

std::string tableInfoPath(std::string_view agent) {
  return pathOf(tableInfoPrefix, agent);
}
std::string tablePath(std::string_view tableName) {
  return pathOf("tunnel/table", tableName);
}
std::string nexthopTableName(std::string_view agent) {
  return "nexthopTunnelTable-" + std::string(agent);
}
std::string nexthopTablePath(std::string_view agent) {
  pathOf("tunnel/table", agent);  // an empty name would do no harm in the path itself
  return tablePath(nexthopTableName(agent));
}
std::string tunnelNamePath(std::string_view agent) {
  return pathOf("tunnel/tunnelName", agent);
}
std::string tunnelConvergencePath(std::string_view agent) {
  return pathOf("tunnel/tunnelConvergence", agent);
}
std::string bgpLuConvergencePath(std::string_view agent) {
  return pathOf("tunnel/bgpLuConvergence", agent);
}

std::string_view agentOfTableInfoPath(std::string_view path) {
  if (!path.starts_with(tableInfoPrefix)) return {};
  path.remove_prefix(tableInfoPrefix.size());
  if (!path.starts_with('/')) return {};
  path.remove_prefix(1);
  return path.find('/') == path.npos ? path : std::string_view();
}

// Of the types that go over MPLS, RSVP tunnels alone have no table: their LERs and FRRs have.
bool hasTable(TunnelType type) {
  if (Kop::EnumOps<TunnelType>::name(type).empty() || type == rsvpTunnel) return false;
  const TunnelId id(TunnelId::convertToTunnelValue(type, 0));
  return id.tunnelTransportType() == mplsTunnel;
}

TunnelTableIdentifier tableIdOf(TunnelType type) {
  if (!hasTable(type))
    throw Kop::RangeException("tunnels of type " + std::string(valueToStrep(type)) +
                              " are no labelled paths with a table of their own");
  return TunnelId(TunnelId::convertToTunnelValue(type, 0)).tableType();
}
Kop::String tableNameOf(TunnelType type) {
  return valueToStrep(tableIdOf(type));
}
Kop::String tableTypeOf(TunnelType type) {
  return valueToStrep(type);
}
TunnelType typeOfTable(const Kop::String& tableType) {
  try {
    return TunnelTypeInstance(tableType);
  } catch (const Kop::RangeException&) {
    return invalidTunnel;
  }
}

bool hasIpv6(TunnelType type) {
  try {
    return TunnelId(TunnelId::convertToTunnelValue(type, TunnelIdConstants::tunnelAfMask))
               .tunnelAf() == Vantor::ipv6;
  } catch (const Kop::InternalException&) {
    return false;  // the type is for IPv4 alone
  }
}

TunnelId nextHopId(U32 group, U32 hop) {
  KOP_ASSERT(hop < maxNextHops, "hop < maxNextHops", "Agent/Places");
  return TunnelId(
      TunnelId::convertToTunnelValue(nexthopTunnel, U64{group} << hopBits | hop));
}

U32 groupOf(const TunnelId& nextHop) {
  if (nextHop.tunnelType() != nexthopTunnel) return 0;
  const U64 group = nextHop.extractIndexAndAf() >> hopBits;
  return group <= 0xffffffff ? static_cast<U32>(group) : 0;
}

}  // namespace Agent
