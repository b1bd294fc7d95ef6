#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Kop/Types.h"

// A network of routers and links of two directions, and the numbers that follow from it.
//
//   router i       loopback 10.a.b.c/32 with abc = i + 1, node label 16000 + i
//   link l         100.64.0.0/10: address 2l at its end 0, 2l + 1 at its end 1
//                  adjacency labels 100000 + 2l out of end 0, 100000 + 2l + 1 out of end 1
//   interface n    Ethernet<n> on each router, from 1 in the order of the links

namespace Tunnelgen {

// What a graph, or an argument, has that cannot be used. One line.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Place {
  double latitude = 0;   // degrees, -90 to 90
  double longitude = 0;  // degrees, -180 to 180
};

// Great-circle distance in kilometres.
double distance(const Place& a, const Place& b);

struct Router {
  std::string id;     // in the file; unique
  std::string label;  // for people; may be empty, or that of another router too
  std::string name;   // short, of letters and digits; unique
  std::optional<Place> place{};
};

struct Link {
  U32 ends[2] = {};   // two different routers
  U32 metric = 1;     // the same in both directions, from 1 up
  U32 intfs[2] = {};  // number of the interface at each end

  U32 endOf(U32 router) const { return ends[1] == router; }
  U32 otherEnd(U32 router) const { return ends[ends[0] == router]; }
};

enum class Metric : U8 { distance, hops };

struct Topology {
  static constexpr U32 maxRouters = 65'536;
  static constexpr U32 maxLinks = 400'000;
  static constexpr U32 maxInterfaces = 4'095;  // of one router
  static constexpr U32 maxMetric = 65'535;  // so that 32 bits hold the cost of any path
  static constexpr U32 firstNodeLabel = 16'000;
  static constexpr U32 firstAdjacencyLabel = 100'000;

  std::vector<Router> routers;
  std::vector<Link> links;  // without those below
  U32 selfLinkCount = 0;    // edges from a router to itself: left out

  // Gives routers their names and links the numbers of their interfaces; `file` is for the
  // error. A name is the identifier, with an 'n' before digits; when any name has more
  // than 7 bytes or others than letters and digits, or two are equal, all routers are n1, n2,
  // ... in their order.
  // Errors   Failure when there are no routers or more than the numbers above reach.
  void finish(const std::string& file);
  // Kilometres between ends that have both a place, at least 1; `otherwise` for other links.
  // Hops: 1.
  void metricIs(Metric metric, U32 otherwise);
  // By name, identifier or label.
  // Errors   Failure when there is none, or several have the label.
  U32 router(std::string_view text) const;

  U32 parallelCount() const;  // links beyond the first between the same two routers
  U32 placelessCount() const;

  static U32 nodeLabel(U32 router) { return firstNodeLabel + router; }
  static U32 adjacencyLabel(U32 link, U32 end) {
    return firstAdjacencyLabel + 2 * link + end;
  }
  static U32 loopback(U32 router) { return 0x0a000001 + router; }                // IPv4
  static U32 address(U32 link, U32 end) { return 0x64400000 + 2 * link + end; }  // IPv4
};

}  // namespace Tunnelgen
