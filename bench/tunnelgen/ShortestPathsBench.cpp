#include <numeric>
#include <random>

#include <benchmark/benchmark.h>
#include <boost/graph/compressed_sparse_row_graph.hpp>
#include <boost/graph/dijkstra_shortest_paths.hpp>

#include "apps/tunnelgen/Failures.h"
#include "apps/tunnelgen/ShortestPaths.h"

// Paths from all routers to all others in a network of the shape of a provider's: a tree of
// short chains with a fifth more links than it needs.

namespace {

using Tunnelgen::Link;
using Tunnelgen::ShortestPaths;
using Tunnelgen::Topology;

Topology network(U32 routerCount) {
  std::mt19937 random(1);
  Topology topology;
  for (U32 i = 0; i < routerCount; ++i)
    topology.routers.push_back({std::to_string(i), "", ""});
  const auto add = [&](U32 a, U32 b) {
    if (a != b)
      topology.links.push_back(Link{
          {a, b},
          1 + U32(random()) % 100
      });
  };
  for (U32 i = 1; i < routerCount; ++i)
    add(i, i - 1 - U32(random()) % std::min(i, 4u));
  for (U32 i = 0; i < routerCount / 5; ++i)
    add(U32(random()) % routerCount, U32(random()) % routerCount);
  topology.finish("network");
  return topology;
}

std::vector<U32> all(const Topology& topology) {
  std::vector<U32> sources(topology.routers.size());
  std::iota(sources.begin(), sources.end(), 0);
  return sources;
}

void pairsAre(benchmark::State& state, U64 count) {
  state.counters["pairs/s"] = benchmark::Counter(
      static_cast<double>(count), benchmark::Counter::kIsIterationInvariantRate);
}

// All costs and all next hops.
void allPaths(benchmark::State& state) {
  const Topology topology = network(static_cast<U32>(state.range(0)));
  for (auto _ : state) {
    const ShortestPaths paths(topology, all(topology));
    benchmark::DoNotOptimize(paths.cost(0, 1));
  }
  pairsAre(state, topology.routers.size() * topology.routers.size());
}

// The peer, which finds costs and one parent each.
void allPathsBoost(benchmark::State& state) {
  const Topology topology = network(static_cast<U32>(state.range(0)));
  struct Metric {
    U32 metric;
  };
  using Graph = boost::compressed_sparse_row_graph<boost::directedS, boost::no_property,
                                                   Metric, boost::no_property, U32, U32>;
  std::vector<std::pair<U32, U32>> edges;
  std::vector<Metric> metrics;
  for (const Link& link : topology.links)
    for (int end = 0; end < 2; ++end) {
      edges.emplace_back(link.ends[end], link.ends[1 - end]);
      metrics.push_back({link.metric});
    }
  const std::size_t count = topology.routers.size();
  const Graph graph(boost::edges_are_unsorted_multi_pass, edges.begin(), edges.end(),
                    metrics.begin(), static_cast<U32>(count));
  std::vector<U32> costs(count * count), parents(count * count);
  for (auto _ : state) {
    for (std::size_t source = 0; source < count; ++source)
      boost::dijkstra_shortest_paths(
          graph, static_cast<U32>(source),
          boost::weight_map(boost::get(&Metric::metric, graph))
              .distance_map(boost::make_iterator_property_map(
                  costs.data() + source * count, boost::get(boost::vertex_index, graph)))
              .predecessor_map(boost::make_iterator_property_map(
                  parents.data() + source * count,
                  boost::get(boost::vertex_index, graph))));
    benchmark::DoNotOptimize(costs.data());
  }
  pairsAre(state, count * count);
}

// One link fails or returns: what it takes to know the pairs that have changed. The bench
// above is what it would take to compute everything anew.
void oneLink(benchmark::State& state) {
  const Topology topology = network(static_cast<U32>(state.range(0)));
  ShortestPaths paths(topology, all(topology), state.range(1) != 0);
  Tunnelgen::Failures failures(static_cast<U32>(topology.links.size()), 4, 1);
  U64 changed = 0;
  for (auto _ : state) {
    const auto [link, up] = failures.next();
    paths.linkIs(link, up, [&](U32, U32) { ++changed; });
  }
  state.counters["changed pairs"] = benchmark::Counter(
      static_cast<double>(changed), benchmark::Counter::kAvgIterations);
}

BENCHMARK(allPaths)
    ->Name("allPaths/ours")
    ->Arg(100)
    ->Arg(750)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(allPathsBoost)
    ->Name("allPaths/boost")
    ->Arg(100)
    ->Arg(750)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(oneLink)
    ->Name("oneLink/ours")
    ->ArgNames({"routers", "deep"})
    ->Args({100, 0})
    ->Args({750, 0})
    ->Args({750, 1})
    ->Unit(benchmark::kMillisecond);

}  // namespace
