#include "apps/tunnelgen/ShortestPaths.h"

#include <algorithm>
#include <bit>

// A change is made in two steps. The first finds new costs. When a link fails, the routers
// behind it are visited by their old cost; one that has no parent left is cut off, and its
// children are visited as well. Those that were cut off get new costs from the others. When a
// link returns, lower costs spread from its far end.
//
// The second step visits the routers that were touched by their new cost, joins their next
// hops anew from their parents and goes on to the children of those that have changed. No
// metric is 0, so parents are always visited before their children.

namespace Tunnelgen {

ShortestPaths::ShortestPaths(const Topology& topology,
                             std::vector<U32> sources,
                             bool deep)
    : topology_(topology),
      deep_(deep),
      sources_(std::move(sources)),
      up_(topology.links.size(), 1),
      marks_(topology.routers.size()) {
  const std::size_t count = topology.routers.size();
  begins_.assign(count + 1, 0);
  for (const Link& link : topology.links)
    for (const U32 end : link.ends)
      ++begins_[end + 1];
  for (std::size_t i = 0; i < count; ++i)
    begins_[i + 1] += begins_[i];
  arcs_.resize(begins_[count]);
  for (U32 i = 0; i < topology.links.size(); ++i) {
    const Link& link = topology.links[i];
    for (int end = 0; end < 2; ++end)
      arcs_[begins_[link.ends[end]] + link.intfs[end] - 1] = {
          link.ends[1 - end], link.metric, i, link.intfs[1 - end] - 1};
  }

  std::size_t words = 0;
  for (const U32 source : sources_) {
    Row& row = rows_.emplace_back();
    row.source = source;
    row.words = static_cast<U32>((arcs(source).size() + 63) / 64);
    words = std::max<std::size_t>(words, row.words);
    compute(row);
  }
  scratch_.resize(words);
  if (deep_) moved_.resize(words * count);
}

bool ShortestPaths::touch(U32 router) {
  if (marks_[router] != untouched) return false;
  marks_[router] = touched;
  touched_.push_back(router);
  return true;
}

void ShortestPaths::push(U32 cost, U32 router) {
  heap_.push_back(U64{cost} << 32 | router);
  std::push_heap(heap_.begin(), heap_.end(), std::greater<>());
}

std::pair<U32, U32> ShortestPaths::pop() {
  std::pop_heap(heap_.begin(), heap_.end(), std::greater<>());
  const U64 top = heap_.back();
  heap_.pop_back();
  return {static_cast<U32>(top >> 32), static_cast<U32>(top)};
}

// The parent on the chosen path that begins with a link of the source. There is one.
const ShortestPaths::Arc& ShortestPaths::parent(const Row& row,
                                                U32 router,
                                                U32 place,
                                                U32 flipped) const {
  const auto all = arcs(router);
  for (const Arc& arc : all)
    if (isParent(row, row.cost[router], arc, flipped) &&
        (arc.to == row.source ? arc.toPlace == place
                              : (row.firstOf(arc.to)[place / 64] >> place % 64 & 1) != 0))
      return arc;
  return all.front();
}

void ShortestPaths::joinFirst(const Row& row, U32 router, std::span<U64> first) const {
  std::fill(first.begin(), first.end(), 0);
  const U32 cost = row.cost[router];
  if (cost == unreachable) return;
  for (const Arc& arc : arcs(router)) {
    if (!isParent(row, cost, arc)) continue;
    if (arc.to == row.source) {
      first[arc.toPlace / 64] |= U64{1} << arc.toPlace % 64;
      continue;
    }
    const auto other = row.firstOf(arc.to);
    for (std::size_t i = 0; i < first.size(); ++i)
      first[i] |= other[i];
  }
}

void ShortestPaths::compute(Row& row) {
  const std::size_t count = topology_.routers.size();
  row.cost.assign(count, unreachable);
  row.first.assign(count * row.words, 0);
  row.cost[row.source] = 0;
  push(0, row.source);
  while (!heap_.empty()) {
    const auto [cost, router] = pop();
    if (cost != row.cost[router]) continue;
    if (router != row.source) joinFirst(row, router, row.firstOf(router));
    for (const Arc& arc : arcs(router))
      if (up_[arc.link] && cost + arc.metric < row.cost[arc.to]) {
        row.cost[arc.to] = cost + arc.metric;
        push(cost + arc.metric, arc.to);
      }
  }
}

void ShortestPaths::linkIs(U32 link, bool up, const Changed& changed) {
  if (isUp(link) == up) return;
  up_[link] = up;
  const auto [a, b] = topology_.links[link].ends;
  const U32 metric = topology_.links[link].metric;
  for (Row& row : rows_) {
    for (const auto& [from, to] : {std::pair(a, b), std::pair(b, a)}) {
      if (row.cost[from] == unreachable) continue;
      const U32 cost = row.cost[from] + metric;
      if (up ? cost > row.cost[to] : cost != row.cost[to]) continue;
      before_ = row;
      if (up)
        lower(row, to, cost);
      else
        raise(row, to);
      settle(row, link);
      std::sort(changed_.begin(), changed_.end());
      for (const U32 router : changed_)
        changed(row.source, router);
      break;  // a link leads away from the source in one direction only
    }
  }
}

// A link to the router, from one of its parents, has failed.
void ShortestPaths::raise(Row& row, U32 router) {
  touch(router);
  push(row.cost[router], router);
  std::size_t cutCount = 0;
  while (!heap_.empty()) {
    const auto [cost, at] = pop();
    const auto all = arcs(at);
    if (std::any_of(all.begin(), all.end(), [&, cost = cost](const Arc& arc) {
          return marks_[arc.to] != cut && isParent(row, cost, arc);
        }))
      continue;
    marks_[at] = cut;
    ++cutCount;
    for (const Arc& arc : all)
      if (up_[arc.link] && cost + arc.metric == row.cost[arc.to] && touch(arc.to))
        push(row.cost[arc.to], arc.to);
  }
  if (cutCount == 0) return;

  for (const U32 at : touched_)
    if (marks_[at] == cut) row.cost[at] = unreachable;
  for (const U32 at : touched_) {
    if (marks_[at] != cut) continue;
    for (const Arc& arc : arcs(at))
      if (up_[arc.link] && marks_[arc.to] != cut && row.cost[arc.to] != unreachable)
        row.cost[at] = std::min(row.cost[at], row.cost[arc.to] + arc.metric);
    if (row.cost[at] != unreachable) push(row.cost[at], at);
  }
  while (!heap_.empty()) {
    const auto [cost, at] = pop();
    if (cost != row.cost[at]) continue;
    for (const Arc& arc : arcs(at))
      if (up_[arc.link] && cost + arc.metric < row.cost[arc.to]) {
        row.cost[arc.to] = cost + arc.metric;
        push(cost + arc.metric, arc.to);
      }
  }
}

// A path to the router that costs no more than those before has come.
void ShortestPaths::lower(Row& row, U32 router, U32 cost) {
  touch(router);
  if (cost == row.cost[router]) return;
  row.cost[router] = cost;
  push(cost, router);
  while (!heap_.empty()) {
    const auto [least, at] = pop();
    if (least != row.cost[at]) continue;
    for (const Arc& arc : arcs(at)) {
      if (!up_[arc.link] || least + arc.metric >= row.cost[arc.to]) continue;
      touch(arc.to);
      row.cost[arc.to] = least + arc.metric;
      push(least + arc.metric, arc.to);
    }
  }
}

// Whether one of the router's chosen paths is another one than before; notes which.
bool ShortestPaths::move(const Row& row, U32 router, U32 link) {
  const std::span<const U64> before = before_.firstOf(router), now = row.firstOf(router);
  U64* const moved = moved_.data() + std::size_t{router} * row.words;
  U64 any = 0;
  for (std::size_t word = 0; word < now.size(); ++word) {
    moved[word] = before[word] ^ now[word];
    for (U64 rest = before[word] & now[word]; rest != 0; rest &= rest - 1) {
      const auto bit = static_cast<U32>(std::countr_zero(rest));
      const U32 place = static_cast<U32>(64 * word) + bit;
      const Arc& arc = parent(row, router, place);
      if (arc.link != parent(before_, router, place, link).link ||
          (arc.to != row.source &&
           (moved_[std::size_t{arc.to} * row.words + word] >> bit & 1) != 0))
        moved[word] |= U64{1} << bit;
    }
    any |= moved[word];
  }
  return any != 0;
}

void ShortestPaths::settle(Row& row, U32 link) {
  changed_.clear();
  const std::span<U64> first(scratch_.data(), row.words);
  for (const U32 router : touched_)
    push(row.cost[router], router);
  while (!heap_.empty()) {
    const auto [cost, router] = pop();
    joinFirst(row, router, first);
    const auto held = row.firstOf(router);
    bool isChanged = cost != before_.cost[router] ||
                     !std::equal(held.begin(), held.end(), first.begin());
    if (isChanged) std::copy(first.begin(), first.end(), held.begin());
    if (deep_) isChanged |= move(row, router, link);
    if (!isChanged) continue;
    changed_.push_back(router);
    if (cost == unreachable) continue;
    for (const Arc& arc : arcs(router))
      if (up_[arc.link] && cost + arc.metric == row.cost[arc.to] && touch(arc.to))
        push(row.cost[arc.to], arc.to);
  }
  for (const U32 router : touched_) {
    marks_[router] = untouched;
    if (deep_)
      std::fill_n(moved_.begin() + std::size_t{router} * row.words, row.words, 0);
  }
  touched_.clear();
}

void ShortestPaths::nextHops(std::size_t row,
                             U32 destination,
                             std::vector<U32>& links) const {
  links.clear();
  const auto all = arcs(rows_[row].source);
  const auto first = rows_[row].firstOf(destination);
  for (std::size_t word = 0; word < first.size(); ++word)
    for (U64 rest = first[word]; rest != 0; rest &= rest - 1)
      links.push_back(all[64 * word + std::countr_zero(rest)].link);
}

void ShortestPaths::path(std::size_t row,
                         U32 destination,
                         U32 firstLink,
                         std::vector<U32>& links) const {
  links.clear();
  const Row& from = rows_[row];
  const Link& first = topology_.links[firstLink];
  const U32 place = first.intfs[first.endOf(from.source)] - 1;
  for (U32 router = destination; router != from.source;) {
    const Arc& arc = parent(from, router, place);
    links.push_back(arc.link);
    router = arc.to;
  }
  std::reverse(links.begin(), links.end());
}

}  // namespace Tunnelgen
