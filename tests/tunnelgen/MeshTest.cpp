#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "apps/tunnelgen/Failures.h"
#include "apps/tunnelgen/Mesh.h"
#include "tests/Support/PublishedPaths.h"

namespace Tunnelgen {
namespace {

using testing::HasSubstr;
using Tunnel::TunnelTable::TunnelType;
using Lines = std::map<std::string, std::string>;  // paths by their names

// Keeps what it is told, as a publisher does.
struct Held final : Sink {
  void pathIs(const Agent::Path& path) override {
    last = path;
    lines[std::string(path.name)] = Support::lineOf(path);
    EXPECT_TRUE(told.insert(std::string(path.name)).second) << path.name << " twice";
  }
  void pathDel(TunnelType, const Kop::String& name) override {
    EXPECT_EQ(lines.erase(std::string(name)), 1u) << name << " was not there";
    told.insert(std::string(name));
  }
  Lines lines;
  Agent::Path last;
  std::set<std::string> told;
};

Topology network(U32 routerCount) {
  Topology topology;
  for (U32 i = 0; i < routerCount; ++i)
    topology.routers.push_back({std::to_string(i), "", ""});
  return topology;
}

std::string dotted(U32 ip) {
  return std::to_string(ip >> 24) + "." + std::to_string(ip >> 16 & 255) + "." +
         std::to_string(ip >> 8 & 255) + "." + std::to_string(ip & 255);
}

// All pairs by the plainest algorithm, all that follows from the costs by definition.
class Model {
 public:
  static constexpr U64 far = 1 << 30;

  Model(const Topology& topology, const std::vector<bool>& up)
      : topology_(topology),
        up_(up),
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

  Lines lines(const Mesh::Options& options) const {
    Lines result;
    for (U32 s = 0; s < cost_.size(); ++s)
      for (U32 d = 0; d < cost_.size(); ++d) {
        if (s == d || cost_[s][d] >= far || (options.router && *options.router != s))
          continue;
        const std::string name = "n" + std::to_string(s) + "-n" + std::to_string(d);
        std::string& line = result[name];
        line = name + " type 3 " + dotted(0x0a000001 + d) + "/32 metric " +
               std::to_string(cost_[s][d]);
        for (U32 l = 0; l < up_.size(); ++l)
          if (isFirst(s, d, l)) line += " | " + hop(s, d, l, options.stack);
      }
    return result;
  }

 private:
  U32 end(U32 link, U32 router) const { return topology_.links[link].ends[1] == router; }
  U32 other(U32 link, U32 router) const {
    return topology_.links[link].ends[1 - end(link, router)];
  }
  bool touches(U32 link, U32 router) const {
    const auto& ends = topology_.links[link].ends;
    return up_[link] && (ends[0] == router || ends[1] == router);
  }
  bool isFirst(U32 s, U32 d, U32 link) const {
    return touches(link, s) &&
           topology_.links[link].metric + cost_[other(link, s)][d] == cost_[s][d];
  }
  std::string hop(U32 s, U32 d, U32 link, Stack stack) const {
    std::string labels;
    if (stack == Stack::adjacencies)
      labels = adjacencies(s, d, link);
    else if (other(link, s) != d)
      labels = std::to_string(16000 + d);
    return dotted(0x64400000 + 2 * link + 1 - end(link, s)) + " Ethernet" +
           std::to_string(topology_.links[link].intfs[end(link, s)]) + " push[" + labels +
           "]";
  }
  // Back from the destination over the lowest link that lies on a path with that begin.
  std::string adjacencies(U32 s, U32 d, U32 first) const {
    std::string labels;
    for (U32 at = d; at != s;) {
      U32 link = 0;
      for (;; ++link) {
        if (!touches(link, at)) continue;
        const U32 from = other(link, at);
        if (cost_[s][from] + topology_.links[link].metric == cost_[s][at] &&
            (from == s ? link == first : isFirst(s, from, first)))
          break;
      }
      at = other(link, at);
      if (at != s)
        labels = std::to_string(100000 + 2 * link + end(link, at)) +
                 (labels.empty() ? "" : ", " + labels);
    }
    return labels;
  }

  const Topology& topology_;
  const std::vector<bool>& up_;
  std::vector<std::vector<U64>> cost_;
};

// Catches a path that is not the shortest, a next hop too many or too few, a change that is
// not told, and one that is told although nothing differs.
TEST(Mesh, followsFailuresAsAModelThatComputesEverythingAnew) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  U64 changeCount = 0, deleteCount = 0;
  for (int round = 0; round < 120; ++round) {
    // Few metrics make many equal costs; the last rounds have more links than a word bits.
    const bool isWide = round >= 110;
    const U32 n = isWide ? 3 : 2 + random() % 11;
    const U32 linkCount = isWide ? 150 : 1 + random() % (2 * n);
    Topology topology = network(n);
    for (U32 i = 0; i < linkCount; ++i) {
      const U32 a = random() % n;
      const U32 b = (a + 1 + static_cast<U32>(random()) % (n - 1)) % n;
      topology.links.push_back(Link{
          {a, b},
          1 + static_cast<U32>(random()) % 3
      });
    }
    topology.finish("random");

    Mesh::Options options;
    options.type = Tunnel::TunnelTable::ldpTunnel;
    options.stack = round % 2 == 0 ? Stack::node : Stack::adjacencies;
    if (round % 5 == 0) options.router = random() % n;
    Mesh mesh(topology, options);
    std::vector<bool> up(linkCount, true);
    Held held;
    U64 from = 0;
    do
      from = mesh.tell(held, from, 3);
    while (from != 0);
    Lines expected = Model(topology, up).lines(options);
    ASSERT_EQ(held.lines, expected) << "round " << round;
    EXPECT_EQ(mesh.count().tunnels, expected.size());

    Failures failures(linkCount, 1 + linkCount / 2, random());
    for (int step = 0; step < 40; ++step) {
      const auto [link, isUp] = failures.next();
      ASSERT_NE(up[link], isUp);
      up[link] = isUp;
      held.told.clear();
      const Mesh::Change change = mesh.linkIs(link, isUp, held);
      const Lines now = Model(topology, up).lines(options);
      ASSERT_EQ(held.lines, now) << "round " << round << " step " << step;
      std::set<std::string> differ;
      for (const auto& [name, line] : now)
        if (!expected.contains(name) || expected[name] != line) differ.insert(name);
      for (const auto& [name, line] : expected)
        if (!now.contains(name)) differ.insert(name);
      ASSERT_EQ(held.told, differ) << "round " << round << " step " << step;
      ASSERT_EQ(change.told + change.deleted, differ.size());
      changeCount += differ.size();
      deleteCount += change.deleted;
      expected = now;

      held.told.clear();
      mesh.linkIs(link, isUp, held);
      ASSERT_TRUE(held.told.empty()) << "a link is again as it was";
    }
    while (const auto step = failures.nextRestored())
      mesh.linkIs(step->link, step->up, (held.told.clear(), held));
    up.assign(linkCount, true);
    ASSERT_EQ(held.lines, Model(topology, up).lines(options));
  }
  EXPECT_GT(changeCount, 1000u);
  EXPECT_GT(deleteCount, 10u);
}

// Catches a stack that is too deep, or that leads elsewhere than over the path.
TEST(Mesh, cutsDeepPathsIntoSixteenRuns) {
  for (const U32 n : {3u, 17u, 18u, 19u, 33u, 34u, 35u, 60u}) {
    SCOPED_TRACE(n);
    Topology chain = network(n);
    for (U32 i = 0; i + 1 < n; ++i)
      chain.links.push_back(Link{
          {i + i % 2, i + 1 - i % 2},
          5
      });
    chain.finish("chain");
    Mesh::Options options;
    options.stack = Stack::adjacencies;
    options.router = 0;
    Held held;
    const Mesh mesh(chain, options);
    EXPECT_EQ(mesh.tell(held, 0, Mesh::maxTunnels), 0u);
    EXPECT_EQ(mesh.count().mostLabels, std::min(n - 2, 16u));
    const Agent::Path& path = held.last;
    EXPECT_EQ(std::string(path.name), "n0-n" + std::to_string(n - 1));
    EXPECT_EQ(path.metric, 5 * (n - 1));
    ASSERT_EQ(path.nextHops.size(), 1u);
    const auto labels = path.nextHops[0].labels.labels();
    EXPECT_EQ(labels.size(), std::min(n - 2, 16u));
    U32 at = 1;  // routers and links are numbered along the chain
    for (const U32 label : labels)
      if (label >= Topology::firstAdjacencyLabel) {
        const U32 link = (label - Topology::firstAdjacencyLabel) / 2;
        EXPECT_EQ(link, at);
        EXPECT_EQ(chain.links[link].ends[label % 2], at);
        ++at;
      } else {
        EXPECT_GT(label - Topology::firstNodeLabel, at + 1) << "a run of one link";
        EXPECT_LE(label - Topology::firstNodeLabel, at + (n - 2 + 15) / 16);
        at = label - Topology::firstNodeLabel;
      }
    EXPECT_EQ(at, n - 1);
  }
}

// Catches a mesh that would run out of identifiers half-way.
TEST(Mesh, refusesMoreTunnelsThanIdentifiers) {
  Topology many = network(4097);
  many.finish("many");
  EXPECT_THAT(
      [&] { Mesh(many, {}); },
      testing::ThrowsMessage<Failure>(HasSubstr("16781312 tunnels: at most 16777215")));
  Mesh::Options one;
  one.router = 4096;
  EXPECT_EQ(Mesh(many, one).count().tunnels, 0u);
}

// Catches a percentile from the wrong place.
TEST(Latencies, agreeWithTheSortedTimes) {
  std::mt19937_64 random(7);
  Latencies latencies;
  std::vector<U64> times;
  for (int i = 0; i < 5000; ++i) {
    times.push_back(random() >> (20 + random() % 44));
    latencies.add(times.back());
  }
  std::sort(times.begin(), times.end());
  for (const double share : {0.001, 0.25, 0.5, 0.9, 0.99, 1.0}) {
    const auto exact =
        static_cast<double>(times[static_cast<std::size_t>(std::ceil(share * 5000)) - 1]);
    const auto found = static_cast<double>(latencies.percentile(share));
    EXPECT_GE(found, exact) << share;
    EXPECT_LE(found, exact * 1.016) << share;
  }
  EXPECT_EQ(latencies.most(), times.back());
  latencies.add(~U64{0});
  EXPECT_EQ(latencies.percentile(1), ~U64{0});
}

}  // namespace
}  // namespace Tunnelgen
