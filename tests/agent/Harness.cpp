#include "Harness.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace AgentTest {

pid_t forkedRun(const std::function<void()>& run) {
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(1);
  run();
  ::_exit(0);
}

void killAndWait(pid_t pid) {
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

Database::Database() {
  char name[] = "/tmp/agentXXXXXX";
  if (!::mkdtemp(name)) std::abort();
  directory_ = name;
  start();
}

Database::~Database() {
  kill();
  for (U32 type = 0; type <= maxTunnelType; ++type)
    if (Agent::hasTable(static_cast<TunnelType>(type)))
      Quarn::TableWriter<TunnelTableEntry>::remove(shm(static_cast<TunnelType>(type)));
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

void Database::start() {
  const std::string daemon = HOUSE_BIN_DIR "/hiveld", types = "libTunnelHivelTypes.so.0";
  // Run anew, because a copy of this process would keep its tables and so their locks.
  pid_ = forkedRun([&] {
    ::execl(daemon.c_str(), "hiveld", "--socket", socketPath().c_str(), "--types",
            types.c_str(), "--quiet", nullptr);
  });
  Hivel::ClientOptions options;
  options.socketPath = socketPath();
  options.retryMax = 20ms;
  Hivel::Client client(options);
  client.wait([&] { return client.state() == Hivel::Client::State::connected; },
              patience);
}

void Database::kill() {
  if (pid_ > 0) killAndWait(pid_);
  pid_ = -1;
}

Publisher::Options Database::options(const std::string& agent) const {
  Publisher::Options options;
  options.socketPath = socketPath();
  options.agent = agent;
  return options;
}

std::string Database::shm(TunnelType type) const {
  return Agent::shmName(socketPath(),
                        Agent::tablePath(std::string(Agent::tableNameOf(type))));
}

Path pathOf(TunnelType type, const std::string& name, U32 hops, U32 salt) {
  Path path;
  path.type = type;
  path.name = name;
  path.endpoint = IpGenPrefix(IpGenAddr::fromIpv4(0x0a000000 + salt % 5), 32);
  path.metric = salt;
  for (U32 hop = 0; hop < hops; ++hop) {
    const U32 labels[] = {16 + salt % 1000, 100 + hop};
    path.nextHops.push_back({IpGenAddr::fromIpv4(0xc0a80000 + hop),
                             Vantor::IntfId(Kop::stringPrintf("Ethernet%u", hop + 1)),
                             Vantor::MplsLabelOperation(Vantor::push, labels)});
  }
  return path;
}

Path randomPath(std::minstd_rand& random) {
  constexpr TunnelType types[] = {srTunnel, ldpTunnel, srTePolicyTunnel, rsvpLerTunnel};
  const auto below = [&](U32 n) { return static_cast<U32>(random()) % n; };
  const TunnelType type = types[below(4)];
  const U32 number = below(12);
  const std::string name =
      number == 0 ? std::string(128, 'n') : "path " + std::string(number, 'x');
  const U32 hops = below(40) == 0 ? Agent::maxNextHops : below(5);
  Path path = pathOf(type, name, hops, below(8));
  if (below(6) == 0) path.endpoint = IpGenPrefix();
  if (Agent::hasIpv6(type)) path.ipv6 = below(3) == 0;
  path.bandwidth = static_cast<float>(below(2));
  return path;
}

Reader::Reader(const Database& database, const std::string& agent)
    : agent_(agent),
      client_([&] {
        Hivel::ClientOptions options;
        options.socketPath = database.socketPath();
        options.name = "reader";
        options.retryMax = 50ms;
        return options;
      }()),
      directory(client_, database.socketPath()),
      rib(directory) {
  directory.follow(agent);
}

std::string Reader::differenceTo(const Model& model) {
  std::string last;
  if (!wait([&] { return (last = difference(model)).empty(); })) return last;
  return {};
}

std::string Reader::difference(const Model& model) {
  std::vector<TunnelTableEntry> rows;
  bool listsNextHops = false;
  for (const Agent::TableRef& table : directory.tables()) {
    if (table.agent != agent_) return "a table of " + table.agent;
    if (!table.hasRows()) {
      listsNextHops =
          std::string_view(table.info.mountPath()) == Agent::nexthopTablePath(agent_);
      continue;
    }
    directory.open(table)->forEachRow([&](U64 key, const TunnelTableEntry& row) {
      if (row.tunnelId().value() == key && row.tunnelId().tunnelType() == table.type)
        rows.push_back(row);
    });
  }
  if (!listsNextHops) return "no table of next hops is listed";
  if (rows.size() != model.size())
    return std::to_string(rows.size()) + " rows, not " + std::to_string(model.size());
  for (const TunnelTableEntry& row : rows) {
    const auto at = model.find({row.tunnelId().tunnelType(), std::string(row.getName())});
    if (at == model.end()) return "row " + std::string(row.getName()) + " is of no path";
    const Path& path = at->second;
    TunnelTableEntry expected(
        row.tunnelId(),
        TunnelEntryPref(TunnelEntryPref::getDefaultPrefForType(path.type)));
    expected.nexthopTunnelIdIs(row.nexthopTunnelId());
    expected.entryMetricIs(path.metric);
    expected.tunnelBwIs(TunnelBandwidth(path.bandwidth));
    if (path.endpoint != IpGenPrefix()) expected.tepIs(path.endpoint);
    expected.setName(path.name);
    const bool ipv6 = (row.tunnelId().value() & TunnelIdConstants::tunnelAfMask) != 0;
    if (!(row == expected) || ipv6 != path.ipv6)
      return "row " + std::string(row.getName()) + " is not as told";
  }
  for (const std::string& found :
       {hopDifference(rows, model), nameDifference(rows), ribDifference(rows)})
    if (!found.empty()) return found;
  return {};
}

std::string Reader::hopDifference(const std::vector<TunnelTableEntry>& rows,
                                  const Model& model) {
  const auto table = directory.nextHops(agent_);
  if (!table) return "no table of next hops";
  U32 count = 0;
  for (const TunnelTableEntry& row : rows) {
    const std::string name(row.getName());
    const Path& path = model.at({row.tunnelId().tunnelType(), name});
    const Agent::Hops hops = Agent::hopsOf(*table, row);
    if (!hops.arrived || hops.infos.size() != path.nextHops.size())
      return "path " + name + " has " + std::to_string(hops.infos.size()) + " hops";
    for (std::size_t i = 0; i < hops.infos.size(); ++i) {
      const NexthopTunnelL3Info& info = hops.infos[i];
      if (info.groupType() != Tunnel::TunnelTable::mpls ||
          !(NextHop{info.destinationIp(), info.l3Intf(), info.mplsLabelStack()} ==
            path.nextHops[i]))
        return "hop " + std::to_string(i) + " of path " + name + " is not as told";
    }
    count += static_cast<U32>(hops.infos.size());
  }
  for (const auto& node : table->entry())
    if (Agent::groupOf(node.key()) >= table->nextAvailableIndex())
      return "a group of hops beyond the next available index";
  return table->entryCount() == count ? "" : "hops that no row leads to";
}

std::string Reader::nameDifference(const std::vector<TunnelTableEntry>& rows) {
  const auto names = directory.names(agent_);
  if (!names) return "no names";
  U64 count = 0;
  for (const auto& child : names->localTunnelNameStatus()) {
    const TunnelNameStatus& status = *child.value;
    if (status.tunnelNameToIdCount() != status.tunnelIdToNameCount() ||
        status.tunnelNameToIdCount() != status.tunnelIdNamePairCount())
      return "the collections of names differ";
    count += status.tunnelNameToIdCount();
  }
  if (count != rows.size()) return std::to_string(count) + " names";
  for (const TunnelTableEntry& row : rows) {
    const TunnelId id = row.tunnelId();
    const auto status = names->localTunnelNameStatus(id.tunnelType());
    if (!status || !(status->tunnelNameToId(row.getName()) == id) ||
        !(status->tunnelIdToName(id) == row.getName()) ||
        !status->tunnelIdNamePairHas(TunnelIdNamePair(id, row.getName())))
      return "the name of row " + std::string(row.getName());
  }
  return {};
}

// The RIB as it is by sorting, and whether every change of it was told.
std::string Reader::ribDifference(const std::vector<TunnelTableEntry>& rows) {
  Rib expected;
  for (const TunnelTableEntry& row : rows)
    if (!row.endpoint().empty() && contributeToTunnelRib(row.tunnelId().tunnelType()))
      expected[row.tep()].push_back(row);
  for (auto& [endpoint, entries] : expected)
    std::sort(entries.begin(), entries.end());

  for (const IpGenPrefix& endpoint : rib.update())
    touched_.insert(endpoint);
  if (!rib.faults().empty()) return "a table of the RIB: " + rib.faults()[0].second;
  if (rib.endpointCount() != expected.size()) return "endpoints of the RIB";
  for (const auto& [endpoint, entries] : expected) {
    const auto found = rib.rows(endpoint);
    if (!std::equal(found.begin(), found.end(), entries.begin(), entries.end(),
                    [](const auto& a, const auto& b) { return a.entry == b; }))
      return "rows of the RIB to " + std::string(endpoint.stringValue());
    if (before_[endpoint] != entries && !touched_.contains(endpoint))
      return "a change that was not told of " + std::string(endpoint.stringValue());
  }
  for (const auto& [endpoint, entries] : before_)
    if (!entries.empty() && !expected.contains(endpoint) && !touched_.contains(endpoint))
      return "an end that was not told of " + std::string(endpoint.stringValue());
  before_ = std::move(expected);
  touched_.clear();
  return {};
}

}  // namespace AgentTest
