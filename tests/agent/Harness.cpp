#include "Harness.h"

#include <algorithm>

namespace AgentTest {

Publisher::Options Agents::options(const std::string& agent) const {
  Publisher::Options options;
  options.socketPath = socket_;
  options.agent = agent;
  return options;
}

std::string Agents::shm(TunnelType type) const {
  return Agent::shmName(socket_, Agent::tablePath(std::string(Agent::tableNameOf(type))));
}

Path pathOf(TunnelType type, const std::string& name, U32 hops, U32 salt) {
  Path path{.type = type, .name = name};
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
  const auto below = [&](U32 n) { return static_cast<U32>(random()) % n; };
  const TunnelType type = typesOfPaths[below(4)];
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

Reader::Reader(const Hivel::ClientOptions& options)
    : client(options), directory(client, options.socketPath), rib(directory) {
  directory.follow("one");
}

std::string Reader::differenceTo(const Model& model) {
  std::string last;
  if (!wait([&] { return (last = difference(model)).empty(); })) return last;
  return {};
}

std::string Reader::difference(const Model& model) {
  Support::Published found;
  const std::string fault = read(directory, "one", found);
  if (!fault.empty()) return fault;
  const auto [told, seen] =
      std::mismatch(model.begin(), model.end(), found.paths.begin(), found.paths.end());
  if (told != model.end()) return Support::lineOf(told->second) + " is not as told";
  if (seen != found.paths.end()) return Support::lineOf(seen->second) + " was not told";
  return ribDifference(found.rows);
}

// The RIB as it is by sorting, and whether every change of it was told.
std::string Reader::ribDifference(const std::vector<TunnelTableEntry>& rows) {
  decltype(before) expected;
  for (const TunnelTableEntry& row : rows)
    if (!row.endpoint().empty() && contributeToTunnelRib(row.tunnelId().tunnelType()))
      expected[row.tep()].push_back(row);
  for (auto& [endpoint, entries] : expected)
    std::sort(entries.begin(), entries.end());

  for (const IpGenPrefix& endpoint : rib.update())
    touched.insert(endpoint);
  if (!rib.faults().empty()) return "a table of the RIB: " + rib.faults()[0].second;
  if (rib.endpointCount() != expected.size()) return "endpoints of the RIB";
  for (const auto& [endpoint, entries] : before)
    expected[endpoint];
  for (const auto& [endpoint, entries] : expected) {
    const auto found = rib.rows(endpoint);
    if (!std::equal(found.begin(), found.end(), entries.begin(), entries.end(),
                    [](const auto& a, const auto& b) { return a.entry == b; }))
      return "rows of the RIB to " + std::string(endpoint.stringValue());
    if (before[endpoint] != entries && !touched.contains(endpoint))
      return "a change that was not told of " + std::string(endpoint.stringValue());
  }
  before = std::move(expected);
  touched.clear();
  return {};
}

}  // namespace AgentTest
