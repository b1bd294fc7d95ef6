#include "apps/tunnelgen/Mesh.h"

#include <algorithm>
#include <numeric>
#include <string>

namespace Tunnelgen {

using Vantor::IpGenAddr;
using Vantor::MplsLabelOperation;

namespace {

std::vector<U32> sourcesOf(const Topology& topology, const Mesh::Options& options) {
  if (options.router) return {*options.router};
  const U64 count = topology.routers.size();
  if (count * (count - 1) > Mesh::maxTunnels)
    throw Failure("a full mesh of " + std::to_string(count) + " routers has " +
                  std::to_string(count * (count - 1)) + " tunnels: at most " +
                  std::to_string(Mesh::maxTunnels) + " have identifiers");
  std::vector<U32> all(count);
  std::iota(all.begin(), all.end(), 0);
  return all;
}

// "Ethernet<n>"
Vantor::IntfId ethernet(U32 n) {
  constexpr U32 typeId = 1, shift = 20;
  Vantor::IntfId intf;
  intf.typeIdIs(typeId);
  intf.partIs(1, n << shift);
  return intf;
}

}  // namespace

Mesh::Mesh(const Topology& topology, const Options& options)
    : topology_(topology),
      options_(options),
      paths_(topology, sourcesOf(topology, options), options.stack == Stack::adjacencies),
      rows_(topology.routers.size()) {
  for (std::size_t row = 0; row < paths_.sources().size(); ++row)
    rows_[paths_.sources()[row]] = static_cast<U32>(row);
  path_.type = options.type;
}

// Fills path_. The pair has a path.
void Mesh::make(std::size_t row, U32 destination) const {
  const U32 source = paths_.sources()[row];
  const std::string& from = topology_.routers[source].name;
  const std::string& to = topology_.routers[destination].name;
  char name[16];  // names have 7 bytes at most
  char* end = std::copy(from.begin(), from.end(), name);
  *end++ = '-';
  end = std::copy(to.begin(), to.end(), end);
  path_.name = Kop::String(name, static_cast<std::size_t>(end - name));
  path_.endpoint = {IpGenAddr::fromIpv4(Topology::loopback(destination)), 32};
  path_.metric = paths_.cost(row, destination);

  paths_.nextHops(row, destination, nextHops_);
  constexpr std::size_t most = 256;
  path_.nextHops.resize(std::min(nextHops_.size(), most));
  for (std::size_t i = 0; i < path_.nextHops.size(); ++i) {
    const Link& link = topology_.links[nextHops_[i]];
    const U32 near = link.endOf(source);
    Agent::NextHop& hop = path_.nextHops[i];
    hop.address = IpGenAddr::fromIpv4(Topology::address(nextHops_[i], 1 - near));
    hop.intf = ethernet(link.intfs[near]);
    hop.labels = MplsLabelOperation(Vantor::push);
    if (link.ends[1 - near] == destination) continue;
    if (options_.stack == Stack::node)
      hop.labels.labelPush(Topology::nodeLabel(destination));
    else
      adjacencies(row, destination, nextHops_[i], hop.labels);
  }
}

void Mesh::adjacencies(std::size_t row,
                       U32 destination,
                       U32 firstLink,
                       MplsLabelOperation& labels) const {
  paths_.path(row, destination, firstLink, links_);
  const std::size_t count = links_.size() - 1;
  const std::size_t runs = std::min<std::size_t>(count, MplsLabelOperation::maxLabels);
  U32 at = paths_.sources()[row];
  std::size_t done = 0;
  for (std::size_t run = 0; run <= runs; ++run) {
    // The link that the packet leaves over is no run; it has no label.
    const std::size_t end = 1 + run * count / runs;
    const bool isLong = end - done > 1;
    if (run > 0 && !isLong)
      labels.labelPush(Topology::adjacencyLabel(links_[done],
                                                topology_.links[links_[done]].endOf(at)));
    for (; done < end; ++done)
      at = topology_.links[links_[done]].otherEnd(at);
    if (run > 0 && isLong) labels.labelPush(Topology::nodeLabel(at));
  }
}

Mesh::Counts Mesh::count() const {
  struct Counter final : Sink {
    void pathIs(const Agent::Path& path) override {
      ++counts.tunnels;
      counts.nextHops += path.nextHops.size();
      for (const Agent::NextHop& hop : path.nextHops) {
        counts.labels += hop.labels.labelCount();
        counts.mostLabels = std::max(counts.mostLabels, hop.labels.labelCount());
      }
    }
    void pathDel(Tunnel::TunnelTable::TunnelType, const Kop::String&) override {}
    Counts counts;
  } counter;
  tell(counter, 0, maxTunnels);
  return counter.counts;
}

U64 Mesh::tell(Sink& sink, U64 from, U64 most) const {
  const U64 count = topology_.routers.size();
  const U64 end = count * paths_.sources().size();
  for (U64 told = 0; from < end; ++from) {
    const std::size_t row = from / count;
    const U32 destination = static_cast<U32>(from % count);
    if (destination == paths_.sources()[row] ||
        paths_.cost(row, destination) == ShortestPaths::unreachable)
      continue;
    if (told++ == most) return from;
    make(row, destination);
    sink.pathIs(path_);
  }
  return 0;
}

Mesh::Change Mesh::linkIs(U32 link, bool up, Sink& sink) {
  Change change;
  paths_.linkIs(link, up, [&](U32 source, U32 destination) {
    const std::size_t row = rows_[source];
    if (paths_.cost(row, destination) == ShortestPaths::unreachable) {
      const Kop::String name(
          (topology_.routers[source].name + "-" + topology_.routers[destination].name)
              .c_str());
      sink.pathDel(options_.type, name);
      ++change.deleted;
    } else {
      make(row, destination);
      sink.pathIs(path_);
      ++change.told;
    }
  });
  return change;
}

}  // namespace Tunnelgen
