#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Harness.h"

// The streams that real daemons sent, against what an independent decoder says is left.

namespace FpmTest {
namespace {

using testing::HasSubstr;
using Tunnelctl::Json;
using Tunnelctl::parseJson;
using Tunnelctl::writeJson;

Json expected(const std::string& name) {
  const Bytes text =
      contents(HOUSE_SOURCE_DIR "/examples/fpm/" + name + ".expected.json");
  return parseJson({reinterpret_cast<const char*>(text.data()), text.size()});
}

// Compares two objects member by member.
void expectMembers(const Json& wanted, const Json& found) {
  EXPECT_EQ(wanted.names.size(), found.names.size());
  for (std::size_t i = 0; i < wanted.names.size(); ++i) {
    const Json* const there = found.find(wanted.names[i]);
    EXPECT_EQ(there ? writeJson(*there, false) : "absent",
              writeJson(wanted.items[i], false))
        << wanted.names[i];
  }
}

struct Replayed {
  explicit Replayed(const std::string& name) : session(sink, options, {}) {
    feed(session, recording(name));
    session.finish();
  }
  Memory sink;
  Session::Options options;
  Session session;
};

// Catches a message that is read wrongly, an update or a deletion that is lost.
TEST(FpmRecording, endsInTheDescribedState) {
  for (const std::string& name : recordings) {
    SCOPED_TRACE(name);
    const Json wanted = expected(name);
    const Replayed replayed(name);
    const Json found = describe(replayed.session.state());
    for (const char* const count : {"fpm_frames", "netlink_messages"})
      EXPECT_EQ(found.find(count)->text, wanted.find(count)->text) << count;
    expectMembers(*wanted.find("final"), *found.find("final"));
    for (const char* const part : {"lsp", "labelled_nexthops"})
      if (const Json* const rows = wanted.find(part))
        expectMembers(*rows, *found.find(part));

    // What the sink got is the same.
    if (const Json* const rows = wanted.find("lsp"))
      expectMembers(*rows, describeSwitched(replayed.sink));
    EXPECT_EQ(replayed.sink.convergences, 1u);
  }
}

// Catches a path of the wrong kind, a label stack out of order, an endpoint that is not the
// prefix.
TEST(FpmRecording, pathsAreTunnelsOfTheirProtocol) {
  struct Row {
    const char *recording, *name, *line;
  };
  const Row rows[] = {
      {"pair-evpn-vxlan+srte",           "srte-label-5555",
       " type 14  metric 0 | 10.0.12.2 if2 swap[17001, 17002]"                      },
      {"pair-evpn-vxlan+srte",           "isis-label-16002",
       " type 7  metric 0 | 10.0.12.2 if2 pop[]"                                    },
      {"abilene-r1-sr-flap",             "isis-10.255.0.5/32",
       " type 7 10.255.0.5/32 metric 20 | 10.0.0.2 if2 push[16005]"
       " | 10.0.1.2 if3 push[16005]"                                                },
      {"ring4-isis-sr-flap+3000-static", "static-10.104.250.0/24",
       " type 5 10.104.250.0/24 metric 20 | 10.0.12.2 if2 push[40250, 50004, 60250]"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_THAT(Replayed(row.recording).sink.lines(),
                testing::Contains(std::string(row.name) + row.line));
  }
  EXPECT_THAT(
      Replayed("pair-evpn-vxlan+srte").session.state().summary(),
      HasSubstr("3 switched paths, 4 routes, 10 next hops; 3 tunnels (isis 2, srte 1);"
                " no tunnels: kernel 4 without labels; 1 neighbours"));
}

// Catches a frame that is read before it is whole.
TEST(FpmRecording, mayArriveInAnyPieces) {
  const Bytes stream = recording(recordings[0]);
  const auto whole = Replayed(recordings[0]).sink.lines();
  for (std::size_t cut = 1; cut < stream.size(); ++cut) {
    Memory sink;
    const Session::Options options;
    Session session(sink, options, {});
    FrameReader frames;
    const std::span<const U8> bytes(stream);
    for (const auto part : {bytes.first(cut), bytes.subspan(cut)}) {
      frames.feed(part);
      while (const auto frame = frames.next())
        session.frameIs(*frame, {});
    }
    ASSERT_EQ(sink.lines(), whole) << "cut at " << cut;
  }
  Memory sink;
  const Session::Options options;
  Session session(sink, options, {});
  feed(session, stream, 1);
  EXPECT_EQ(sink.lines(), whole);
}

// Catches a path that is written again although nothing changed, and identifiers that are
// lost because an update looks like a deletion.
TEST(FpmRecording, sentAgainChangesNothing) {
  Replayed replayed("ring4-isis-sr-flap+3000-static");
  Memory& sink = replayed.sink;
  // The end of the recording alone, without the flap.
  std::vector<Bytes> again;
  replayed.session.state().forEachNextHop(
      [&](const NextHopMessage& nextHop) { again.push_back(framed(nextHop)); });
  replayed.session.state().forEachRoute([&](const RouteMessage& route, Verdict) {
    RouteMessage gone = route;
    gone.isNew = false;
    again.push_back(frame({encoded(gone), encoded(route)}));
  });
  const U64 changes = sink.changes, tells = sink.tells;
  feed(replayed.session, join(again), 1000);
  EXPECT_EQ(sink.changes, changes) << "in the same session";

  Session second(sink, replayed.options, {});
  feed(second, join(again), 1000);
  EXPECT_EQ(sink.changes, changes) << "in another session";
  EXPECT_GT(sink.tells, tells);
  second.finish();
  EXPECT_EQ(sink.changes, changes);
  EXPECT_EQ(sink.convergences, 2u);
}

// Catches stale paths that stay, and live ones that are swept with them.
TEST(FpmRecording, whatANewSessionDoesNotTellIsSwept) {
  Replayed replayed("abilene-r1-sr-flap");
  Memory& sink = replayed.sink;
  const auto all = sink.lines();
  Session second(sink, replayed.options, {});
  replayed.session.state().forEachNextHop(
      [&](const NextHopMessage& nextHop) { feed(second, framed(nextHop)); });
  std::vector<std::string> kept;
  int count = 0;
  replayed.session.state().forEachRoute([&](const RouteMessage& route, Verdict verdict) {
    if (count++ % 2 == 0) return;
    feed(second, framed(route));
    Agent::Path path;
    if (verdict == Verdict::tunnel) {
      replayed.session.state().pathOf(route, path);
      kept.push_back(lineOf(path));
    }
  });
  EXPECT_EQ(sink.lines(), all) << "before the sweep";
  second.timeIs(Session::Time(milliseconds(29'999)));
  EXPECT_EQ(sink.lines(), all) << "before the quiet time is over";
  second.timeIs(Session::Time(milliseconds(30'000)));
  EXPECT_THAT(sink.lines(), testing::UnorderedElementsAreArray(kept));
  EXPECT_FALSE(second.due());
}

}  // namespace
}  // namespace FpmTest
