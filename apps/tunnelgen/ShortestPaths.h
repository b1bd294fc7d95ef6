#pragma once

#include <functional>
#include <span>
#include <utility>
#include <vector>

#include "apps/tunnelgen/Topology.h"

namespace Tunnelgen {

// Shortest paths from some or all routers of a network whose links fail and return.
//
// Next hops     Of a pair of routers they are the links out of its source with which a path
//               of least cost begins: parallel links count one by one.
// Choice        Among paths of least cost that begin with the same link, path() gives always
//               the same one: seen from the destination it takes at each router the link of
//               the lowest number that leads back.
// Cost          8 bytes per pair and 64 links of its source, 4 for the cost. A change of a
//               link looks only at sources on whose shortest paths it lies or will lie, and
//               there only at routers whose paths may have changed.
//
// Owner    the topology outlives it and stays as it is.
class ShortestPaths {
 public:
  static constexpr U32 unreachable = 0xffffffff;  // a cost

  // With all links up. `deep`: path() will be asked, so a change anywhere on a path counts.
  ShortestPaths(const Topology& topology, std::vector<U32> sources, bool deep = false);

  const std::vector<U32>& sources() const { return sources_; }
  bool isUp(U32 link) const { return up_[link] != 0; }

  // Where the cost, the next hops or, when `deep`, a path of the pair have changed.
  using Changed = std::function<void(U32 source, U32 destination)>;
  // Takes a link out of the network, or puts it in again. Told is each pair once, by source,
  // then destination, when all of the source's paths are as they are now. Nothing when the
  // link was so before.
  void linkIs(U32 link, bool up, const Changed& changed);

  // Below, the source is one of sources(), by its place in there.
  U32 cost(std::size_t row, U32 destination) const {
    return rows_[row].cost[destination];
  }
  // Links out of the source, in the order of its interfaces; cleared first.
  void nextHops(std::size_t row, U32 destination, std::vector<U32>& links) const;
  // All links of the chosen path that begins with one of the next hops; cleared first.
  void path(std::size_t row,
            U32 destination,
            U32 firstLink,
            std::vector<U32>& links) const;

 private:
  static constexpr U32 noLink = 0xffffffff;

  struct Arc {
    U32 to, metric, link;
    U32 toPlace;  // of the link among the links of `to`
  };
  // Paths from one router. Which links they begin with is a set of bits, `words` words per
  // destination; bit i is the i-th link of the source.
  struct Row {
    U32 source = 0, words = 0;
    std::vector<U32> cost;
    std::vector<U64> first;

    std::span<U64> firstOf(U32 router) {
      return {first.data() + std::size_t{router} * words, words};
    }
    std::span<const U64> firstOf(U32 router) const {
      return {first.data() + std::size_t{router} * words, words};
    }
  };

  std::span<const Arc> arcs(U32 router) const {
    return {arcs_.data() + begins_[router], arcs_.data() + begins_[router + 1]};
  }
  // Whether a path of least cost to the arc's beginning, which costs `cost`, comes over it.
  bool isParent(const Row& row, U32 cost, const Arc& arc, U32 flipped = noLink) const {
    return (up_[arc.link] != 0) != (arc.link == flipped) &&
           row.cost[arc.to] != unreachable && row.cost[arc.to] + arc.metric == cost;
  }
  const Arc& parent(const Row& row, U32 router, U32 place, U32 flipped = noLink) const;
  void joinFirst(const Row& row, U32 router, std::span<U64> first) const;

  void compute(Row& row);
  void raise(Row& row, U32 router);
  void lower(Row& row, U32 router, U32 cost);
  void settle(Row& row, U32 link);
  bool move(const Row& row, U32 router, U32 link);
  bool touch(U32 router);
  void push(U32 cost, U32 router);
  std::pair<U32, U32> pop();

  const Topology& topology_;
  bool deep_;
  std::vector<U32> sources_;
  std::vector<U32> begins_;  // of a router's arcs
  std::vector<Arc> arcs_;    // of a router by the number of the link
  std::vector<U8> up_;
  std::vector<Row> rows_;

  // Of the change under way.
  Row before_;
  enum Mark : U8 { untouched, touched, cut };
  std::vector<Mark> marks_;
  std::vector<U32> touched_;  // routers whose parents may have changed
  std::vector<U32> changed_;
  std::vector<U64> moved_;  // when deep: as Row::first, which of the paths are others
  std::vector<U64> heap_;   // cost << 32 | router, least first
  std::vector<U64> scratch_;
};

}  // namespace Tunnelgen
