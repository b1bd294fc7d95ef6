#include "Harness.h"
#include "tests/Support/Process.h"
#include "tests/Support/Testing.h"

namespace FpmTest {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

const Vantor::IpGenAddr gateway("10.0.0.2");

Hop pushing(U32 label) {
  return {
      gateway, 1, {1, {label}}
  };
}
RouteMessage routeVia(U32 id, U8 protocol = 187, const char* prefix = "10.1.0.0/16") {
  return {true, false, 0, Vantor::IpGenPrefix(Kop::String(prefix)), 254, protocol,
          0,    id,    {}};
}
RouteMessage switchedPath(U32 label, U8 protocol, std::vector<Hop> hops) {
  return {true, true, label, {}, 254, protocol, 0, 0, std::move(hops)};
}
NextHopMessage object(U32 id, std::vector<Hop> hops) {
  return {true, id, false, {}, std::move(hops)};
}
NextHopMessage group(U32 id, std::vector<U32> members) {
  return {true, id, true, std::move(members), {}};
}
template <class M>
M deleted(M message) {
  message.isNew = false;
  return message;
}

// What was told, and the paths of it all when it is told at once, without a past.
struct Model {
  std::map<std::string, Message> held;

  void take(const Message& message) {
    std::string key;
    bool isNew = false;
    if (const auto* const route = std::get_if<RouteMessage>(&message)) {
      key = route->switched ? "label " + std::to_string(route->label)
                            : std::string(route->prefix.stringValue()) + " " +
                                  std::to_string(route->table);
      isNew = route->isNew;
    } else if (const auto* const nextHop = std::get_if<NextHopMessage>(&message)) {
      key = "object " + std::to_string(nextHop->id);
      isNew = nextHop->isNew;
    }
    held.erase(key);
    if (isNew) held.emplace(key, message);
  }
  std::vector<std::string> lines() const {
    std::vector<Message> all;
    for (const auto& [key, message] : held)
      all.push_back(message);
    Memory sink;
    RouteState(sink, {}).frameIs(all);
    return sink.lines();
  }
};

Message randomMessage(std::minstd_rand& random) {
  const auto below = [&](U32 n) { return static_cast<U32>(random() / 7 % n); };
  const auto hop = [&] {
    Hop made{gateway, 1 + below(2), {}};
    if (below(3) != 0) made.labels = {1, {16 + below(4)}};
    return made;
  };
  const bool isNew = below(4) != 0;
  if (below(3) == 0) {
    const U32 id = 1 + below(6);
    if (!isNew) return deleted(object(id, {}));
    if (below(2) == 0) return object(id, {hop()});
    std::vector<U32> members;
    for (U32 i = below(4); i > 0; --i)
      members.push_back(1 + below(6));  // also itself, other groups, twice the same
    return group(id, members);
  }
  const U8 protocols[] = {186, 187, 193, 196, 198};
  const char* const prefixes[] = {"10.1.0.0/16", "10.1.0.0/24", "2001:db8::/32"};
  RouteMessage route = below(3) == 0
                           ? switchedPath(16 + below(3), protocols[below(5)], {})
                           : routeVia(0, protocols[below(5)], prefixes[below(3)]);
  if (!route.switched && below(4) == 0) route.table = 10;
  if (!isNew) return deleted(route);
  route.metric = below(2);
  if (below(2) == 0 && !route.switched)
    route.nextHopId = 1 + below(6);
  else
    for (U32 i = below(3); i > 0; --i)
      route.hops.push_back(hop());
  return route;
}

// Catches a path that is not told anew when what it is made of changes, in any order of
// objects, groups and routes, and a stale path that is left or lost between two streams.
TEST(FpmRouteState, followsAPlainModel) {
  for (U32 seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::minstd_rand random(seed);
    Memory sink;
    for (int stream = 0; stream < 3; ++stream) {
      sink.mark();
      RouteState state(sink, {});
      Model model;
      bool swept = false;
      for (int step = 0; step < 150; ++step) {
        std::vector<Message> messages(1 + random() % 3);
        for (Message& message : messages) {
          message = randomMessage(random);
          model.take(message);
        }
        const U64 changes = sink.changes, before = state.changeCount();
        state.frameIs(messages);
        if (state.changeCount() == before) {
          ASSERT_EQ(sink.changes, changes);
        }
        if (step == 70) {
          sink.sweep();
          state.swept();
          swept = true;
        }
        if (stream == 0 || swept) {
          ASSERT_EQ(sink.lines(), model.lines()) << step;
        }
      }
    }
  }
}

class FpmState : public testing::Test {
 protected:
  void tell(const std::vector<Message>& messages) { state->frameIs(messages); }
  void limit(U64 routes, U64 nextHops, U64 hops) {
    options.limits = {routes, nextHops, hops};
    state.emplace(sink, options);
  }
  Memory sink;
  RouteState::Options options;
  std::optional<RouteState> state{std::in_place, sink, RouteState::Options{}};
};

// Catches memory that grows with what a daemon sends, and an outdated path that stays because
// its update was refused.
TEST_F(FpmState, refusesAndCountsBeyondTheLimits) {
  limit(2, 3, 4);
  tell({object(1, {pushing(16)}), object(2, {pushing(17)}), group(3, {1, 2})});
  tell({object(4, {pushing(18)}), routeVia(4)});
  EXPECT_EQ(state->events().refusedNextHops, 2u);
  EXPECT_THAT(sink.lines(), IsEmpty());
  tell({routeVia(3), switchedPath(20, 187, {pushing(1), pushing(2)})});
  EXPECT_EQ(sink.paths.size(), 2u);
  tell({switchedPath(21, 187, {pushing(1)})});
  EXPECT_EQ(state->events().refusedRoutes, 1u);
  tell({switchedPath(20, 187, {pushing(1), pushing(2), pushing(3)})});
  EXPECT_EQ(state->events().refusedHops, 1u);
  EXPECT_EQ(sink.paths.size(), 1u) << "the old hops are no longer true";
  EXPECT_THAT(state->summary(), HasSubstr("isis 1 beyond the limits"));
  // Room that is given back is room again.
  tell({deleted(switchedPath(20, 0, {}))});
  tell({deleted(group(3, {}))});
  tell({routeVia(2), switchedPath(21, 187, {pushing(1), pushing(2)})});
  EXPECT_EQ(sink.paths.size(), 2u);
  tell({object(5, {pushing(16)})});
  EXPECT_EQ(state->events().refusedNextHops, 2u);
}

// Catches a path of an earlier stream that is used although its route is known to be gone,
// and one that is withdrawn by an update.
TEST_F(FpmState, whatAnEarlierStreamLeftGoesWhenItIsSeenToBeGone) {
  tell({switchedPath(20, 187, {pushing(1)}), switchedPath(21, 187, {pushing(1)}),
        switchedPath(22, 187, {pushing(1)})});
  sink.mark();
  state.emplace(sink, options);
  const U64 changes = sink.changes;
  tell({deleted(switchedPath(22, 0, {})), switchedPath(22, 187, {pushing(1)})});
  EXPECT_EQ(sink.changes, changes);
  tell({deleted(switchedPath(20, 0, {})), switchedPath(21, 196, {pushing(1)})});
  EXPECT_EQ(sink.paths.size(), 2u);
  EXPECT_TRUE(
      sink.paths.contains({Tunnel::TunnelTable::staticTunnel, "static-label-21"}));
}

// Catches a path that cannot be a tunnel and stops the stream, or is published in part.
TEST_F(FpmState, saysWhyARouteIsNoTunnel) {
  Hop deep = pushing(16);
  deep.labels.count = 17;
  Hop other{gateway, 1, {}, 5};
  options.onRefused = [&](const std::string& text) {
    EXPECT_THAT(text, HasSubstr("room"));
  };
  sink.refuses = "static-label-30";
  limit(100, 100, 10000);
  const auto ipv6 = [](U8 protocol) { return routeVia(1, protocol, "2001:db8::/32"); };
  tell({object(1, {pushing(16)}), object(2, {other}), object(3, {deep})});
  tell({ipv6(193), routeVia(2), routeVia(3, 196, "10.2.0.0/16"),
        routeVia(1, 186, "10.3.0.0/16"), routeVia(9, 187, "10.4.0.0/16"),
        switchedPath(29, 187, std::vector<Hop>(257, pushing(1))),
        switchedPath(28, 187, std::vector<Hop>(256, pushing(1))),
        switchedPath(30, 196, {pushing(1)})});
  EXPECT_THAT(state->summary(),
              HasSubstr("1 tunnels (isis 1); no tunnels: bgp 1 of no kind of tunnel, "
                        "isis 1 without labels, isis 1 without next hops, "
                        "isis 1 with too many next hops, "
                        "ldp 1 for which the kind has no IPv6, "
                        "static 1 with too many labels, static 1 refused"));
}

// Catches an interface that stands for another one, hops out of order or of a group in a
// group, and a family or a table that is left out.
TEST_F(FpmState, makesPathsOfRoutes) {
  options.interfaces[7] = Vantor::IntfId("Ethernet3");
  limit(20, 20, 90);
  std::vector<Hop> hops(4, pushing(16));
  hops[0].interface = 0, hops[1].interface = 7, hops[2].interface = 99999;
  hops[3].interface = 100000;
  hops[0].labels.labels[0] = 17;
  RouteMessage inTable = routeVia(3, 196);
  inTable.table = 10;
  inTable.metric = 5;
  Hop plain{gateway, 1, {}};
  tell({group(3, {1, 2, 3, 4, 5}), object(1, {pushing(18)}), object(2, {pushing(17)}),
        group(4, {1}), object(5, {plain}), inTable, routeVia(1, 187, "2001:db8::/32"),
        routeVia(2, 193), routeVia(5, 196, "10.2.0.0/16"), switchedPath(20, 187, hops),
        switchedPath(21, 198, {plain, pushing(18), pushing(17)})});
  std::string said;
  for (const std::string& line : sink.lines())
    said += line + "\n";
  EXPECT_EQ(said, Support::contents(HOUSE_SOURCE_DIR "/tests/fpmagent/paths.txt"));
}

}  // namespace
}  // namespace FpmTest
