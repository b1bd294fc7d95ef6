#include "Harness.h"
#include "apps/tunnelctl/Json.h"
#include "tests/Support/Processes.h"
#include "tests/Support/Testing.h"

// The streams that real daemons sent, against what an independent decoder says is left.

namespace FpmTest {
namespace {

using Tunnelctl::Json;

// Catches a message that is read wrongly, an update or a deletion that is lost.
TEST(FpmRecording, endsInTheDescribedState) {
  for (const std::string& name : recordings) {
    SCOPED_TRACE(name);
    const Json wanted = Tunnelctl::parseJson(
        Support::contents(HOUSE_SOURCE_DIR "/examples/fpm/" + name + ".expected.json"));
    Memory sink;
    Stream stream(sink);
    stream.feed(recording(name));
    stream.session.finish();
    EXPECT_EQ(sink.convergences, 1u);

    const RouteState& state = stream.session.state();
    std::map<std::string, U64> counts;
    state.forEachRoute([&](const RouteMessage& route, Verdict) {
      ++counts[route.switched ? "lsps" : "routes"];
    });
    state.forEachNextHop([&](const NextHopMessage& nextHop) {
      ++counts["nexthops"];
      counts["nexthop_groups"] += nextHop.isGroup;
      counts["nexthops_with_label_push"] +=
          !nextHop.hops.empty() && nextHop.hops[0].labels.count != 0;
    });
    for (const auto& [what, count] : counts)
      EXPECT_EQ(wanted.find("final")->find(what)->text, std::to_string(count)) << what;
    EXPECT_EQ(wanted.find("fpm_frames")->text, std::to_string(state.events().frames));
    EXPECT_EQ(wanted.find("netlink_messages")->text,
              std::to_string(state.events().messages));

    if (!wanted.find("lsp")) continue;
    std::vector<std::string> found, lines;
    for (const auto& [key, path] : sink.paths)
      if (key.second.find("-label-") != std::string::npos)
        found.push_back(Support::lineOf(path));
    const Json& switched = *wanted.find("lsp");
    for (std::size_t i = 0; i < switched.items.size(); ++i) {
      const std::string& protocol = switched.items[i].find("proto")->text;
      std::string& line = lines.emplace_back(protocol + "-label-" + switched.names[i]);
      line += protocol == "srte" ? " type 14  metric 0" : " type 7  metric 0";
      for (const Json& hop : switched.items[i].find("nexthops")->items) {
        line += " | " + hop.find("via")->text + " if" + hop.find("oif")->text;
        std::string labels;
        for (const Json& label : hop.find("out")->items)
          labels += (labels.empty() ? "" : ", ") + label.text;
        line += (labels.empty() ? " pop[" : " swap[") + labels + "]";
      }
    }
    EXPECT_THAT(found, testing::UnorderedElementsAreArray(lines));
  }
}

// Catches a path of the wrong kind, a label stack out of order, an endpoint that is not the
// prefix, and what is no tunnel told as another thing.
TEST(FpmRecording, labelledRoutesAreTunnelsOfTheirProtocol) {
  EXPECT_THAT(linesOf(recording(recordings[0])),
              testing::Contains("isis-10.255.0.5/32 type 7 10.255.0.5/32 metric 20 | "
                                "10.0.0.2 if2 push[16005] | 10.0.1.2 if3 push[16005]"));
  EXPECT_THAT(linesOf(recording(recordings[2])),
              testing::Contains("static-10.104.250.0/24 type 5 10.104.250.0/24 metric 20 "
                                "| 10.0.12.2 if2 push[40250, 50004, 60250]"));
}

// Catches a frame that is read before it is whole.
TEST(FpmRecording, mayArriveInAnyPieces) {
  const Bytes bytes = recording(recordings[0]);
  const auto whole = linesOf(bytes);
  for (std::size_t cut = 1; cut < bytes.size(); cut += Support::stride) {
    Memory sink;
    Stream stream(sink);
    stream.feed(head(bytes, cut));
    stream.feed(std::span(bytes).subspan(cut), cut % 100 == 0 ? 1 : bytes.size());
    ASSERT_EQ(sink.lines(), whole) << "cut at " << cut;
  }
}

// Catches a path that is written again although nothing changed, stale paths that stay, and
// live ones that are swept with them, or too early.
TEST(FpmRecording, isFoundAgainByTheNextSession) {
  Memory sink;
  const Bytes bytes = recording(recordings[1]), part = head(bytes, 120);
  Stream first(sink);
  first.feed(bytes);
  first.session.finish();
  const U64 changes = sink.changes;
  first.feed(bytes);
  EXPECT_EQ(sink.changes, changes);
  EXPECT_FALSE(first.session.due());
  const auto all = sink.lines();

  Stream second(sink);
  second.feed(part);
  EXPECT_EQ(sink.changes, changes);
  second.session.timeIs(Session::Time(milliseconds(29'999)));
  EXPECT_EQ(sink.lines(), all) << "before the quiet time is over";
  second.session.timeIs(Session::Time(milliseconds(30'000)));
  EXPECT_EQ(sink.lines(), linesOf(part));
  EXPECT_LT(sink.paths.size(), all.size());
  EXPECT_EQ(sink.convergences, 2u);
  EXPECT_FALSE(second.session.due());
}

}  // namespace
}  // namespace FpmTest
