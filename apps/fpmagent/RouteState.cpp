#include "apps/fpmagent/RouteState.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <random>
#include <tuple>
#include <utility>

#include "Kop/Exception.h"
#include "apps/agent/Places.h"

namespace Fpm {
namespace {

using std::to_string;
using Tunnel::TunnelTable::TunnelType;
using Vantor::MplsLabelOperation;

struct Kind {
  U8 protocol;
  TunnelType type;
};
constexpr Kind kinds[] = {
    {187, Tunnel::TunnelTable::srTunnel        },
    {193, Tunnel::TunnelTable::ldpTunnel       },
    {196, Tunnel::TunnelTable::staticTunnel    },
    {198, Tunnel::TunnelTable::srTePolicyTunnel},
};

const Kind* kindOf(U8 protocol) {
  const auto* const found =
      std::find_if(std::begin(kinds), std::end(kinds),
                   [&](const Kind& kind) { return kind.protocol == protocol; });
  return found != std::end(kinds) ? found : nullptr;
}

Kop::String nameOf(const RouteMessage& route, U8 protocol) {
  std::string name = protocolText(protocol);
  if (route.switched) {
    name += "-label-" + to_string(route.label);
  } else {
    name += '-';
    name += route.prefix.stringValue();
    if (route.table != RouteMessage::mainTable) name += "-table" + to_string(route.table);
  }
  return Kop::String(name);
}

constexpr const char* verdictTexts[verdictCount] = {
    "",
    "without labels",
    "of no kind of tunnel",
    "for which the kind has no IPv6",
    "without next hops",
    "with too many next hops",
    "with too many labels",
    "beyond the limits",
    "refused",
};

// The finaliser of a 64-bit mixer: every input bit reaches every output bit.
std::size_t mixed(U64 word) {
  word = (word ^ word >> 31) * 0x7fb5d329728ea185;
  word = (word ^ word >> 27) * 0x81dadef4bc2dd44d;
  return word ^ word >> 33;
}

}  // namespace

std::size_t RouteState::Hash::operator()(const Key& key) const {
  U64 words[4] = {};
  std::memcpy(words, key.prefix.ipGenAddr().bytes(), Vantor::IpGenAddr::byteCount);
  words[2] = U64{key.number} << 32 | key.prefix.len();
  words[3] = key.prefix.af();
  std::size_t hash = seed;
  for (const U64 word : words)
    hash = mixed(hash ^ word);
  return hash;
}

std::size_t RouteState::Hash::operator()(U32 id) const {
  return mixed(seed ^ id);
}

RouteState::RouteState(PathSink& sink, Options options)
    : sink_(sink),
      options_(std::move(options)),
      routes_(0, Hash{std::random_device()()}),
      nextHops_(0, Hash{std::random_device()()}) {}

RouteState::Key RouteState::keyOf(const RouteMessage& route) {
  if (route.switched) return {{}, route.label};
  return {route.prefix, route.table};
}

void RouteState::frameIs(std::span<const Message> messages) {
  ++events_.frames;
  events_.messages += messages.size();
  for (const Message& message : messages) {
    if (const auto* route = std::get_if<RouteMessage>(&message))
      take(*route);
    else if (const auto* nextHop = std::get_if<NextHopMessage>(&message))
      take(*nextHop);
    else if (const auto* other = std::get_if<OtherMessage>(&message))
      ++events_.others[other->type];
    else
      ++events_.neighbours;
  }
  for (const U32 id : changedNextHops_) {
    NextHop& changedOne = *nextHop(id);
    usersChanged(changedOne);
    for (const U32 group : changedOne.groups)
      usersChanged(*nextHop(group));
  }
  for (Route* const route : changedRoutes_)
    settle(*route);
  changedRoutes_.clear();
  for (const U32 id : std::exchange(changedNextHops_, {})) {
    nextHop(id)->changed = false;
    dropUnused(id);
  }
}

void RouteState::take(const RouteMessage& message) {
  const Key key = keyOf(message);
  auto found = routes_.find(key);
  if (found == routes_.end()) {
    // A deletion of what this stream never told may mean a path of an earlier one.
    if (!message.isNew && !staleLeft_) return;
    if (routes_.size() >= options_.limits.routes) {
      ++events_.refusedRoutes;
      return;
    }
    found = routes_.try_emplace(key).first;
  }
  Route& route = found->second;
  if (!route.gone && message == route.told) {
    if (staleLeft_ || route.verdict == Verdict::refused) changed(route);
    return;
  }
  ++changeCount_;
  contentsAre(route, message);
  route.gone = !message.isNew;
  changed(route);
}

// Without hops in `message` the route lets go of what it holds.
void RouteState::contentsAre(Route& route, const RouteMessage& message) {
  const U32 idBefore = route.told.nextHopId;
  if (idBefore != 0) {
    NextHop& named = *nextHop(idBefore);
    (route.before ? route.before->after : named.users) = route.after;
    if (route.after) route.after->before = route.before;
    route.before = route.after = nullptr;
  }
  hops_ -= route.told.hops.size();

  route.told = message;
  route.overLimit = false;
  if (!message.isNew) {
    route.told.nextHopId = 0;
    route.told.hops.clear();
  }
  if (route.told.hops.size() > maxPathHops) route.told.hops.resize(maxPathHops + 1);
  if (hops_ + route.told.hops.size() > options_.limits.hops) {
    ++events_.refusedHops;
    route.overLimit = true;
    route.told.hops.clear();
  }
  route.told.hops.shrink_to_fit();
  hops_ += route.told.hops.size();
  if (const U32 id = route.told.nextHopId; id != 0) {
    if (NextHop* const named = nextHopIs(id)) {
      route.after = std::exchange(named->users, &route);
      if (route.after) route.after->before = &route;
    } else {
      route.overLimit = true;
      route.told.nextHopId = 0;
    }
  }
  if (idBefore != 0) dropUnused(idBefore);
}

void RouteState::take(const NextHopMessage& message) {
  if (!message.isNew) {
    NextHop* const known = nextHop(message.id);
    if (!known || !known->known) return;
    contentsAre(message.id, *known, {false, message.id, false, {}, {}});
    known->known = false;
    ++changeCount_;
    changed(message.id, *known);
    return;
  }
  NextHop* const object = nextHopIs(message.id);
  if (!object) return;
  if (object->known && object->told == message) return;
  contentsAre(message.id, *object, message);
  object->known = true;
  ++changeCount_;
  changed(message.id, *object);
}

void RouteState::contentsAre(U32 id, NextHop& object, const NextHopMessage& message) {
  const std::vector<U32> before = std::exchange(object.told.group, {});
  hops_ -= before.size();
  for (const U32 member : before)
    nextHop(member)->groups.erase(id);  // named twice, it is there once
  object.told = message;
  std::vector<U32>& group = object.told.group;
  if (group.size() > maxPathHops) group.resize(maxPathHops + 1);
  if (hops_ + group.size() > options_.limits.hops) {
    ++events_.refusedHops;
    group.clear();
  }
  std::erase_if(group, [&](U32 member) { return !nextHopIs(member); });
  group.shrink_to_fit();
  hops_ += group.size();
  for (const U32 member : group)
    nextHop(member)->groups.insert(id);
  for (const U32 member : before)
    if (member != id) dropUnused(member);
}

RouteState::NextHop* RouteState::nextHop(U32 id) {
  const auto found = nextHops_.find(id);
  return found != nextHops_.end() ? &found->second : nullptr;
}

const RouteState::NextHop* RouteState::nextHop(U32 id) const {
  const auto found = nextHops_.find(id);
  return found != nextHops_.end() ? &found->second : nullptr;
}

RouteState::NextHop* RouteState::nextHopIs(U32 id) {
  if (NextHop* const there = nextHop(id)) return there;
  if (nextHops_.size() >= options_.limits.nextHops) {
    ++events_.refusedNextHops;
    return nullptr;
  }
  return &nextHops_[id];
}

void RouteState::dropUnused(U32 id) {
  const auto found = nextHops_.find(id);
  if (found == nextHops_.end()) return;
  const NextHop& object = found->second;
  if (!object.known && !object.changed && !object.users && object.groups.empty())
    nextHops_.erase(found);
}

void RouteState::changed(Route& route) {
  if (!std::exchange(route.changed, true)) changedRoutes_.push_back(&route);
}

void RouteState::changed(U32 id, NextHop& object) {
  if (!std::exchange(object.changed, true)) changedNextHops_.push_back(id);
}

void RouteState::usersChanged(NextHop& object) {
  for (Route* user = object.users; user; user = user->after)
    changed(*user);
}

// Brings the sink to what the route is at the end of a frame.
void RouteState::settle(Route& route) {
  route.changed = false;
  Agent::Path path;
  route.verdict = route.gone ? Verdict::noHops : pathOf(route.told, path);
  if (route.overLimit) route.verdict = Verdict::overLimit;
  if (route.verdict == Verdict::tunnel) {
    if (route.pathProtocol != route.told.protocol)
      withdraw(route, route.pathProtocol == 0 ? route.told.protocol : U8{0});
    try {
      sink_.pathIs(path);
      route.pathProtocol = route.told.protocol;
    } catch (const Kop::RangeException& e) {
      route.verdict = Verdict::refused;
      if (options_.onRefused)
        options_.onRefused(std::string(path.name) + ": " + e.what());
      // What stood there is no longer so.
      route.pathProtocol = route.told.protocol;
      withdraw(route, 0);
    }
  } else {
    withdraw(route, 0);
  }
  if (route.gone) routes_.erase(keyOf(route.told));
}

// Deletes the path that was told. The first time also what an earlier stream may have left
// under any name of this route, but for the one of `except`.
void RouteState::withdraw(Route& route, U8 except) {
  const bool all = staleLeft_ && !route.alone;
  for (const Kind& kind : kinds)
    if (kind.protocol == route.pathProtocol || (all && kind.protocol != except))
      sink_.pathDel(kind.type, nameOf(route.told, kind.protocol));
  route.pathProtocol = 0;
  route.alone = true;
}

Verdict RouteState::pathOf(const RouteMessage& route, Agent::Path& path) const {
  Verdict verdict = Verdict::tunnel;
  bool hopsFit = true;
  if (route.nextHopId == 0) {
    hopsFit = appendHops(route.hops, route.switched, path, verdict);
  } else if (const NextHop* const object = nextHop(route.nextHopId)) {
    hopsFit = appendHops(object->told.hops, route.switched, path, verdict);
    for (const U32 member : object->told.group) {
      hopsFit = hopsFit &&
                appendHops(nextHop(member)->told.hops, route.switched, path, verdict);
    }
  }
  // Their order says nothing, so another order is no other path.
  std::sort(path.nextHops.begin(), path.nextHops.end(),
            [](const Agent::NextHop& a, const Agent::NextHop& b) {
              return std::tie(a.address, a.intf, a.labels) <
                     std::tie(b.address, b.intf, b.labels);
            });
  const bool labelled =
      std::any_of(path.nextHops.begin(), path.nextHops.end(),
                  [](const Agent::NextHop& hop) { return hop.labels.labelCount() != 0; });
  if (path.nextHops.empty() && hopsFit) return Verdict::noHops;
  if (hopsFit && !route.switched && !labelled) return Verdict::unlabelled;
  const Kind* const kind = kindOf(route.protocol);
  if (!kind) return Verdict::noKind;
  if (!hopsFit) return verdict;

  path.type = kind->type;
  path.name = nameOf(route, route.protocol);
  path.metric = route.metric;
  if (route.switched) {
    path.ipv6 =
        Agent::hasIpv6(kind->type) && path.nextHops.front().address.af() == Vantor::ipv6;
  } else {
    path.endpoint = route.prefix;
    path.ipv6 = route.prefix.af() == Vantor::ipv6;
    if (path.ipv6 && !Agent::hasIpv6(kind->type)) return Verdict::noIpv6Kind;
  }
  return Verdict::tunnel;
}

// False and a verdict when a tunnel cannot have them.
bool RouteState::appendHops(const std::vector<Hop>& hops,
                            bool switched,
                            Agent::Path& path,
                            Verdict& verdict) const {
  for (const Hop& hop : hops) {
    if (hop.labels.tooDeep()) {
      verdict = Verdict::tooDeep;
      return false;
    }
    if (path.nextHops.size() == maxPathHops) {
      verdict = Verdict::tooManyHops;
      return false;
    }
    const bool any = hop.labels.count != 0;
    const Vantor::MplsOperation operation = switched ? any ? Vantor::swap : Vantor::pop
                                            : any    ? Vantor::push
                                                     : Vantor::noOperation;
    path.nextHops.push_back({hop.address, interfaceOf(hop.interface),
                             MplsLabelOperation(operation, hop.labels.kept())});
  }
  return true;
}

// Indices of more digits than a short name holds are Generic63.<index>.0.
Vantor::IntfId RouteState::interfaceOf(U32 index) const {
  constexpr U32 largestInName = 99999, unnamedType = 63;
  if (index == 0) return {};
  if (const auto named = options_.interfaces.find(index);
      named != options_.interfaces.end())
    return named->second;
  if (index <= largestInName) return Vantor::IntfId(Kop::String("if" + to_string(index)));
  Vantor::IntfId unnamed;
  unnamed.typeIdIs(unnamedType);
  unnamed.partIs(1, index);
  return unnamed;
}

std::string RouteState::summary() const {
  U64 switched = 0, nextHops = 0;
  std::map<U8, std::array<U64, verdictCount>> byProtocol;
  for (const auto& [key, route] : routes_) {
    switched += route.told.switched;
    ++byProtocol[route.told.protocol][static_cast<std::size_t>(route.verdict)];
  }
  forEachNextHop([&](const NextHopMessage&) { ++nextHops; });

  std::string tunnels, none;
  U64 tunnelCount = 0;
  for (const auto& [protocol, counts] : byProtocol) {
    if (counts[0] != 0)
      tunnels += ", " + protocolText(protocol) + " " + to_string(counts[0]);
    tunnelCount += counts[0];
    for (std::size_t i = 1; i < verdictCount; ++i)
      if (counts[i] != 0)
        none += ", " + protocolText(protocol) + " " + to_string(counts[i]) + " " +
                verdictTexts[i];
  }
  std::string line = to_string(events_.frames) + " frames, " +
                     to_string(events_.messages) + " messages: " + to_string(switched) +
                     " switched paths, " + to_string(routes_.size() - switched) +
                     " routes, " + to_string(nextHops) + " next hops; " +
                     to_string(tunnelCount) + " tunnels";
  if (!tunnels.empty()) line += " (" + tunnels.substr(2) + ")";
  if (!none.empty()) line += "; no tunnels: " + none.substr(2);
  if (events_.neighbours != 0)
    line += "; " + to_string(events_.neighbours) + " neighbours";
  for (const auto& [type, count] : events_.others)
    line += "; " + to_string(count) + " messages of type " + to_string(type);
  const std::pair<U64, const char*> refused[] = {
      {events_.refusedRoutes,   " routes"       },
      {events_.refusedNextHops, " next hops"    },
      {events_.refusedHops,     " lists of hops"}
  };
  for (const auto& [count, what] : refused)
    if (count != 0) line += "; " + to_string(count) + what + " beyond the limits";
  return line;
}

}  // namespace Fpm
