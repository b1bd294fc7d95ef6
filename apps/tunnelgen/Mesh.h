#pragma once

#include <optional>
#include <vector>

#include "apps/agent/Path.h"
#include "apps/tunnelgen/ShortestPaths.h"
#include "apps/tunnelgen/Topology.h"

namespace Tunnelgen {

// Where tunnels go. What is told is good until the call returns.
struct Sink {
  virtual ~Sink() = default;
  virtual void pathIs(const Agent::Path& path) = 0;
  virtual void pathDel(Tunnel::TunnelTable::TunnelType type, const Kop::String& name) = 0;
};

// What a tunnel pushes onto its packets. A tunnel to a neighbour pushes nothing either way,
// since the last router but one takes the label off: push[].
enum class Stack : U8 {
  node,  // the destination's node label
  // The adjacency label of each link of the path behind the first, up to 16. A longer path is
  // cut into 16 runs of about equal length: a run of one link has its adjacency label, a
  // longer one the node label of its end, which leads there at the same cost.
  adjacencies,
};

// The tunnels from one router, or from all, to all others: what a link-state protocol with
// segment routing installs, kept up to date when links fail and return.
//
//   name       <source>-<destination>, at most 15 bytes
//   endpoint   the destination's loopback
//   metric     the cost of the path
//   next hops  the neighbours over each link with which a path of least cost begins, in the
//              order of the interfaces, 256 at most
//
// A destination that cannot be reached has no tunnel.
//
// Errors   Failure for more than maxTunnels of them.
// Owner    the topology outlives it.
class Mesh {
 public:
  static constexpr U64 maxTunnels = 16'777'215;  // identifiers of one kind

  struct Options {
    Tunnel::TunnelTable::TunnelType type = Tunnel::TunnelTable::srTunnel;
    Stack stack = Stack::node;
    std::optional<U32> router{};  // none: all routers
  };
  Mesh(const Topology& topology, const Options& options);

  struct Counts {
    U64 tunnels = 0, nextHops = 0;
    U64 labels = 0;      // in all stacks
    U32 mostLabels = 0;  // in one
  };
  // Walks all tunnels as tell() does.
  Counts count() const;

  // Tells of every tunnel, by source, then destination, from the `from`-th pair of routers up
  // to `most` tunnels; where to go on, 0 at the end.
  U64 tell(Sink& sink, U64 from, U64 most) const;

  struct Change {
    U64 told = 0, deleted = 0;
  };
  // Takes a link out, or puts it in again, and tells of the tunnels that differ and no other;
  // with adjacencies also of those cut into runs whose links differ.
  Change linkIs(U32 link, bool up, Sink& sink);
  bool isUp(U32 link) const { return paths_.isUp(link); }

  const Topology& topology() const { return topology_; }

 private:
  void make(std::size_t row, U32 destination) const;
  void adjacencies(std::size_t row,
                   U32 destination,
                   U32 firstLink,
                   Vantor::MplsLabelOperation& labels) const;

  const Topology& topology_;
  Options options_;
  ShortestPaths paths_;
  std::vector<U32> rows_;  // by router, its place among the sources
  mutable Agent::Path path_;
  mutable std::vector<U32> nextHops_, links_;
};

}  // namespace Tunnelgen
