#pragma once

#include <array>
#include <compare>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "Vantor/IntfId.h"
#include "apps/fpmagent/Messages.h"
#include "apps/fpmagent/PathSink.h"

namespace Fpm {

// Why a route or switched path is a tunnel or none.
enum class Verdict : U8 {
  tunnel,
  unlabelled,   // no hop pushes labels
  noKind,       // of a protocol whose paths are no kind of tunnel
  noIpv6Kind,   // an IPv6 prefix, and identifiers of the kind have no family
  noHops,       // none, or the object that has them was not told
  tooManyHops,  // for one tunnel
  tooDeep,      // more labels than an entry keeps
  overLimit,    // its hops are more than StateLimits allow
  refused,      // by the sink
};
inline constexpr std::size_t verdictCount = 9;

// Beyond these a stream is not believed: what is new is refused and counted.
struct StateLimits {
  U64 routes = 1'000'000;    // and switched paths, together
  U64 nextHops = 1'000'000;  // identifiers told or named
  U64 hops = 4'000'000;      // hops of routes and members of groups, together
};

// What a daemon has told since it connected, and the paths that follow from it.
//
// A switched path is a tunnel of its protocol's kind, called "isis-label-16004", without an
// endpoint; hops swap, or pop when they have no labels. A route is one when a hop pushes
// labels, called "isis-10.0.0.0/8" with its prefix as endpoint; in another table than the
// main one "-table7" follows. Its hops without labels do nothing to the stack. Hops are
// ordered by address.
//
// Next hops are objects of their own, which outlive the routes that name them; a change of
// one tells every path anew that reaches it, also through a group. A route may name an object
// before it is told.
//
// A frame counts as one step: a path that is deleted and made in it is never withdrawn. What
// is told again as it stands is no change; while paths of an earlier stream may be left, the
// sink is told it all the same.
// What the sink holds from an earlier stream stays until it is told anew, seen to be gone or
// swept. One object belongs to one stream, because identifiers mean nothing to the next.
//
// Memory   bounded by the limits.
// Owner    refers to the sink.
class RouteState {
 public:
  static constexpr U32 maxPathHops = 256;

  struct Options {
    StateLimits limits;
    std::map<U32, Vantor::IntfId> interfaces;           // by the kernel's index
    std::function<void(const std::string&)> onRefused;  // a path and what the sink said
  };

  RouteState(PathSink& sink, Options options);
  RouteState(const RouteState&) = delete;
  RouteState& operator=(const RouteState&) = delete;

  void frameIs(std::span<const Message> messages);
  void swept() {
    staleLeft_ = false;
  }  // the sink has nothing of an earlier stream any more

  // f(const RouteMessage&, Verdict), in no order.
  template <class F>
  void forEachRoute(F&& f) const {
    for (const auto& [key, route] : routes_)
      f(route.told, route.verdict);
  }
  // f(const NextHopMessage&), in no order.
  template <class F>
  void forEachNextHop(F&& f) const {
    for (const auto& [id, nextHop] : nextHops_)
      if (nextHop.known) f(nextHop.told);
  }
  // The path of a route as it is now; whether it is one to tell is the verdict.
  Verdict pathOf(const RouteMessage& route, Agent::Path& path) const;

  struct Events {
    U64 frames = 0, messages = 0, neighbours = 0;
    U64 refusedRoutes = 0, refusedNextHops = 0, refusedHops = 0;  // by the limits
    std::map<U16, U64> others;  // by the kernel's number
  };
  const Events& events() const { return events_; }
  // How often something was told that is not what already stood.
  U64 changeCount() const { return changeCount_; }
  // "3 switched paths, 26 routes, 20 next hops; 21 tunnels: 21 isis; ...". Walks everything.
  std::string summary() const;

 private:
  // No family: a switched path, and the number is its label; otherwise its table.
  struct Key {
    Vantor::IpGenPrefix prefix;
    U32 number = 0;
    friend bool operator==(const Key&, const Key&) = default;
  };
  struct Hash {
    std::size_t seed;  // so that nobody can choose keys that collide
    std::size_t operator()(const Key& key) const;
    std::size_t operator()(U32 id) const;
  };
  struct Route {
    RouteMessage told;
    Verdict verdict = Verdict::noHops;
    bool gone = false;       // deleted in this frame
    bool changed = false;    // in this frame; stands in changedRoutes_
    bool overLimit = false;  // the verdict, whatever hops there are
    bool alone = false;      // no path of an earlier stream under another name is left
    U8 pathProtocol = 0;     // of the path that was told; 0 when none is
    Route *before = nullptr, *after = nullptr;  // of those that name the same next hop
  };
  struct NextHop {
    NextHopMessage told;
    bool known = false;    // otherwise somebody names it
    bool changed = false;  // in this frame; stands in changedNextHops_
    Route* users = nullptr;
    std::set<U32> groups;  // that name it
  };

  static Key keyOf(const RouteMessage& route);
  void take(const RouteMessage& message);
  void take(const NextHopMessage& message);
  void contentsAre(Route& route, const RouteMessage& message);
  void contentsAre(U32 id, NextHop& nextHop, const NextHopMessage& message);
  NextHop* nextHopIs(U32 id);  // null when there is no room
  NextHop* nextHop(U32 id);
  const NextHop* nextHop(U32 id) const;
  void dropUnused(U32 id);
  void changed(Route& route);
  void changed(U32 id, NextHop& nextHop);
  void usersChanged(NextHop& nextHop);
  void settle(Route& route);
  void withdraw(Route& route, U8 except);
  bool appendHops(const std::vector<Hop>& hops,
                  bool switched,
                  Agent::Path& path,
                  Verdict& verdict) const;
  Vantor::IntfId interfaceOf(U32 index) const;

  PathSink& sink_;
  Options options_;
  std::unordered_map<Key, Route, Hash> routes_;
  std::unordered_map<U32, NextHop, Hash> nextHops_;
  U64 hops_ = 0;  // as StateLimits counts them
  bool staleLeft_ = true;
  std::vector<Route*> changedRoutes_;
  std::vector<U32> changedNextHops_;
  Events events_;
  U64 changeCount_ = 0;
};

}  // namespace Fpm
