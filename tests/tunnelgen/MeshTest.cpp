#include <cmath>

#include "apps/tunnelgen/Failures.h"
#include "apps/tunnelgen/Mesh.h"
#include "tests/Support/PublishedPaths.h"
#include "tests/Support/Testing.h"

namespace Tunnelgen {
namespace {

using Held = Support::HeldPaths<Sink>;

// The least costs by the plainest algorithm, and where a packet comes to that has the labels
// of a path.
class Model {
 public:
  static constexpr U64 far = 1 << 30;

  Model(const Topology& topology,
        const std::vector<bool>& up,
        const Mesh::Options& options)
      : topology_(topology),
        up_(up),
        options_(options),
        cost_(topology.routers.size(), std::vector<U64>(topology.routers.size(), far)) {
    const std::size_t n = cost_.size();
    for (std::size_t i = 0; i < n; ++i)
      cost_[i][i] = 0;
    for (std::size_t i = 0; i < up.size(); ++i) {
      const auto& [a, b] = topology.links[i].ends;
      const U64 metric = topology.links[i].metric;
      if (up[i]) cost_[a][b] = cost_[b][a] = std::min(cost_[a][b], metric);
    }
    for (std::size_t k = 0; k < n; ++k)
      for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < n; ++j)
          cost_[i][j] = std::min(cost_[i][j], cost_[i][k] + cost_[k][j]);
  }

  // Of which pair the path is wrong or missing, or that there are others.
  std::string faultIn(const Support::Paths& paths) const {
    U64 count = 0;
    for (U32 s = 0; s < cost_.size(); ++s)
      for (U32 d = 0; d < cost_.size(); ++d) {
        if (s == d || cost_[s][d] >= far || options_.router.value_or(s) != s) continue;
        const std::string name = "n" + std::to_string(s) + "-n" + std::to_string(d);
        const auto found = paths.find({options_.type, name});
        if (found == paths.end()) return name + " is missing";
        if (!isRight(found->second, s, d)) return Support::lineOf(found->second);
        ++count;
      }
    return count == paths.size() ? "" : "paths of other pairs";
  }

 private:
  // Every link that a shortest path leaves over is a next hop, in their order.
  bool isRight(const Agent::Path& path, U32 s, U32 d) const {
    std::vector<Agent::NextHop> hops = path.nextHops;
    for (U32 i = static_cast<U32>(up_.size()); i-- > 0;) {
      const Link& link = topology_.links[i];
      if (!up_[i] || (link.ends[0] != s && link.ends[1] != s)) continue;
      const U32 next = link.otherEnd(s), near = link.endOf(s);
      if (link.metric + cost_[next][d] != cost_[s][d]) continue;
      if (hops.empty() || !leads(hops.back().labels.labels(), next, d) ||
          std::string(hops.back().intf.stringValue()) !=
              "Ethernet" + std::to_string(link.intfs[near]) ||
          hops.back().address !=
              Vantor::IpGenAddr::fromIpv4(0x64400000 + 2 * i + 1 - near))
        return false;
      hops.pop_back();
    }
    return hops.empty() && path.metric == cost_[s][d] &&
           path.endpoint ==
               Vantor::IpGenPrefix(Vantor::IpGenAddr::fromIpv4(0x0a000001 + d), 32);
  }
  // Whether labels take a packet on to d at the least cost, of links where there is room.
  bool leads(std::span<const U32> labels, U32 at, U32 d) const {
    U64 left = cost_[at][d];
    const bool isExplicit = options_.stack == Stack::adjacencies;
    if (labels.size() > (isExplicit ? 16u : 1u)) return false;
    for (const U32 label : labels) {
      const U32 before = at;
      if (label >= 100000) {
        const Link& link = topology_.links.at((label - 100000) / 2);
        if (!up_[(label - 100000) / 2] || link.ends[label % 2] != at || !isExplicit)
          return false;
        at = link.ends[1 - label % 2];
        left -= link.metric;
      } else {
        at = label - 16000;
        if (at >= cost_.size() || (isExplicit && labels.size() < 16)) return false;
        left -= cost_[before][at];
      }
      if (at == before || left != cost_[at][d]) return false;
    }
    return at == d;
  }

  const Topology& topology_;
  const std::vector<bool>& up_;
  const Mesh::Options& options_;
  std::vector<std::vector<U64>> cost_;
};

// Catches a path that is not the shortest, a next hop too many or too few, a stack that leads
// elsewhere or is too deep, a change that is not told, and one that is told although nothing
// differs.
TEST(Mesh, followsFailuresAsAModelThatComputesEverythingAnew) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  U64 changeCount = 0;
  for (int round = 0; round < 130; ++round) {
    // Few metrics make many equal costs; then more links than a word has bits, and chains
    // that are longer than a stack is deep.
    const bool isWide = round >= 110 && round < 120, isChain = round >= 120;
    const U32 n = isWide ? 3 : isChain ? 15 + random() % 25 : 2 + random() % 11;
    const U32 linkCount = isWide ? 150 : isChain ? n - 1 : 1 + random() % (2 * n);
    Topology topology;
    for (U32 i = 0; i < n; ++i)
      topology.routers.push_back({std::to_string(i), "", ""});
    for (U32 i = 0; i < linkCount; ++i) {
      const U32 a = isChain ? i : random() % n;
      const U32 b = (a + 1 + (isChain ? 0 : static_cast<U32>(random()) % (n - 1))) % n;
      topology.links.push_back(Link{
          {a, b},
          1 + static_cast<U32>(random()) % 3
      });
    }
    topology.finish("random");
    Mesh::Options options;
    options.type = Tunnel::TunnelTable::ldpTunnel;
    options.stack = round % 2 == 0 && !isChain ? Stack::node : Stack::adjacencies;
    if (round % 5 == 0) options.router = random() % n;
    Mesh mesh(topology, options);
    std::vector<bool> up(linkCount, true);
    Held held;
    U64 from = 0;
    do
      from = mesh.tell(held, from, 3);
    while (from != 0);
    ASSERT_EQ(Model(topology, up, options).faultIn(held.paths), "") << "round " << round;
    EXPECT_EQ(mesh.count().tunnels, held.paths.size());

    Failures failures(linkCount, 1 + linkCount / 2, random());
    for (int step = 0; step < 40; ++step) {
      SCOPED_TRACE("round " + std::to_string(round) + " step " + std::to_string(step));
      const auto [link, isUp] = failures.next();
      ASSERT_NE(up[link], isUp);
      up[link] = isUp;
      const Support::Paths before = std::exchange(held, {}).paths;
      held.paths = before;
      const Mesh::Change change = mesh.linkIs(link, isUp, held);
      ASSERT_EQ(Model(topology, up, options).faultIn(held.paths), "");
      std::multiset<Support::PathKey> differ;
      for (const auto& [key, path] : held.paths)
        if (!before.contains(key) || !(before.at(key) == path)) differ.insert(key);
      for (const auto& [key, path] : before)
        if (!held.paths.contains(key)) differ.insert(key);
      ASSERT_EQ(held.told, differ);
      ASSERT_EQ(change.told + change.deleted, differ.size());
      changeCount += differ.size();
      mesh.linkIs(link, isUp, held);
      ASSERT_EQ(held.told, differ) << "a link is again as it was";
    }
    while (const auto step = failures.nextRestored())
      mesh.linkIs(step->link, step->up, held);
    up.assign(linkCount, true);
    ASSERT_EQ(Model(topology, up, options).faultIn(held.paths), "");
  }
  EXPECT_GT(changeCount, 1000u);
}

// Catches a percentile from the wrong place.
TEST(Latencies, agreeWithTheSortedTimes) {
  std::mt19937_64 random(7);
  Latencies latencies;
  std::vector<U64> times(5000);
  for (U64& time : times)
    latencies.add(time = random() >> (20 + random() % 44));
  std::sort(times.begin(), times.end());
  for (const double share : {0.001, 0.25, 0.5, 0.9, 0.99, 1.0}) {
    const U64 exact = times[static_cast<std::size_t>(std::ceil(share * 5000)) - 1];
    EXPECT_GE(latencies.percentile(share), exact) << share;
    EXPECT_LE(latencies.percentile(share), exact + exact / 62) << share;
  }
}

}  // namespace
}  // namespace Tunnelgen
