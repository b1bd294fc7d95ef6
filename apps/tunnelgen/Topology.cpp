#include "apps/tunnelgen/Topology.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <set>

namespace Tunnelgen {

double distance(const Place& a, const Place& b) {
  constexpr double earthRadius = 6371.0, radian = std::numbers::pi / 180;
  const double latitude = (b.latitude - a.latitude) * radian;
  const double longitude = (b.longitude - a.longitude) * radian;
  const double h = std::pow(std::sin(latitude / 2), 2) +
                   std::cos(a.latitude * radian) * std::cos(b.latitude * radian) *
                       std::pow(std::sin(longitude / 2), 2);
  return 2 * earthRadius * std::asin(std::min(1.0, std::sqrt(h)));
}

namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
bool isShort(const std::string& name) {
  return name.size() <= 7 && std::all_of(name.begin(), name.end(), [](char c) {
           return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
         });
}

void need(const std::string& file, const char* what, std::size_t count, U32 limit) {
  if (count > limit)
    throw Failure(file + ": " + std::to_string(count) + " " + what + ": at most " +
                  std::to_string(limit) + " can be numbered");
}

}  // namespace

void Topology::finish(const std::string& file) {
  if (routers.empty()) throw Failure(file + ": no node in the graph");
  need(file, "nodes", routers.size(), maxRouters);
  need(file, "edges", links.size(), maxLinks);

  std::set<std::string> names;
  bool isUsable = true;
  for (Router& router : routers) {
    router.name = (isDigit(router.id.front()) ? "n" : "") + router.id;
    isUsable &= isShort(router.name) && names.insert(router.name).second;
  }
  if (!isUsable)
    for (std::size_t i = 0; i < routers.size(); ++i)
      routers[i].name = "n" + std::to_string(i + 1);

  std::vector<U32> interfaces(routers.size());
  for (Link& link : links)
    for (int end = 0; end < 2; ++end)
      link.intfs[end] = ++interfaces[link.ends[end]];
  const auto most = std::max_element(interfaces.begin(), interfaces.end());
  need(file + ": node '" +
           routers[static_cast<std::size_t>(most - interfaces.begin())].id + "'",
       "edges", *most, maxInterfaces);
}

void Topology::metricIs(Metric metric, U32 otherwise) {
  for (Link& link : links) {
    const auto& a = routers[link.ends[0]].place;
    const auto& b = routers[link.ends[1]].place;
    if (metric == Metric::hops)
      link.metric = 1;
    else if (a && b)
      link.metric = std::max(1u, static_cast<U32>(std::lround(distance(*a, *b))));
    else
      link.metric = otherwise;
  }
}

U32 Topology::router(std::string_view text) const {
  const auto find = [&](std::string Router::*member) {
    std::vector<U32> found;
    for (U32 i = 0; i < routers.size(); ++i)
      if (routers[i].*member == text) found.push_back(i);
    return found;
  };
  const std::string quoted = "router '" + std::string(text) + "'";
  for (const auto member : {&Router::name, &Router::id})
    if (const auto found = find(member); !found.empty()) return found.front();
  const auto found = find(&Router::label);
  if (found.size() == 1) return found.front();
  if (found.empty())
    throw Failure(quoted + ": no name, identifier or label in the graph is that");
  std::string names;
  for (const U32 i : found)
    names += (names.empty() ? "" : ", ") + routers[i].name;
  throw Failure(quoted + ": the label of " + std::to_string(found.size()) +
                " routers; say which: " + names);
}

U32 Topology::parallelCount() const {
  std::set<std::pair<U32, U32>> pairs;
  for (const Link& link : links)
    pairs.insert(std::minmax(link.ends[0], link.ends[1]));
  return static_cast<U32>(links.size() - pairs.size());
}

U32 Topology::placelessCount() const {
  return static_cast<U32>(std::count_if(routers.begin(), routers.end(),
                                        [](const Router& r) { return !r.place; }));
}

}  // namespace Tunnelgen
