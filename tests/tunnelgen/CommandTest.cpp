#include "apps/tunnelgen/GraphMl.h"
#include "apps/tunnelgen/Mesh.h"
#include "tests/Support/Processes.h"
#include "tests/Support/PublishedPaths.h"
#include "tests/Support/Testing.h"

// The command against the daemon, in processes of their own.

namespace Tunnelgen {
namespace {

class CommandProcesses : public Support::WithDatabase {
 protected:
  auto generate(const std::string& arguments) {
    return start("tunnelgen $EXAMPLES/abilene.graphml --socket $HIVEL_SOCKET " +
                 arguments);
  }
  // What readers see of all tunnels, after their agent has gone or still at work.
  Support::Paths seen() {
    return Support::publishedBy("tunnelgen", clientOptions()).paths;
  }
  static Support::Paths computed(Mesh::Options options, Metric metric) {
    Topology topology = readGraphMl(HOUSE_SOURCE_DIR "/examples/abilene.graphml");
    topology.metricIs(metric, 100);
    if (options.router) options.router = topology.router("sttl");
    Support::HeldPaths<Sink> held;
    Mesh(topology, options).tell(held, 0, Mesh::maxTunnels);
    return held.paths;
  }
};

// Catches a wrong argument that is taken for another one, an error without its cause, counts
// of something else, and a run that does not end when it should.
TEST_F(CommandProcesses, answerWithStatusAndText) {
  play("tunnelgen/commands.txt");
}

// Catches tunnels that do not reach other processes as they were computed, those that a
// failure changed and a return did not restore, and old ones that stay.
TEST_F(CommandProcesses, othersReadWhatIsPublished) {
  auto first = generate("--stack explicit --metric hops --changes 30 --down 6");
  EXPECT_EQ(first->join(), 0);
  EXPECT_TRUE(first->says("published  110 tunnels in "));
  Mesh::Options options;
  options.stack = Stack::adjacencies;
  EXPECT_EQ(seen(), computed(options, Metric::hops));

  // Started again with less it takes the tunnels over, and goes when it is told to.
  auto second = generate("--router Seattle --hold");
  EXPECT_TRUE(second->says("holding"));
  EXPECT_TRUE(second->says("100 of an earlier run deleted"));
  options.stack = Stack::node;
  options.router = 0;
  EXPECT_EQ(seen(), computed(options, Metric::distance));
  EXPECT_EQ(second->end(SIGTERM), 0) << second->said();
  EXPECT_TRUE(second->says("ending on a signal"));

  EXPECT_EQ(generate("--withdraw")->join(), 0);
  EXPECT_TRUE(seen().empty());
}

// Catches tunnels that a signal in the midst of changes leaves without their next hops, a
// database that returns without them, and one that is waited for without end.
TEST_F(CommandProcesses, endsInTheMidstOfChanges) {
  auto failing = generate("--kind ldpTunnel --fail-rate 500/s");
  EXPECT_TRUE(failing->says("published"));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(failing->end(SIGINT), 0) << failing->said();
  EXPECT_TRUE(failing->says("ending on a signal"));
  EXPECT_FALSE(seen().empty());
  EXPECT_EQ(generate("--kind ldpTunnel --withdraw")->join(), 0);

  // One link at a time cuts nobody off here.
  auto survivor = generate("--fail-rate 50 --down 1");
  ASSERT_TRUE(survivor->says("published"));
  killDaemon();
  startDaemon();
  EXPECT_TRUE(survivor->says("the database is back"));
  EXPECT_EQ(survivor->end(SIGINT), 0) << survivor->said();
  EXPECT_EQ(seen().size(), 110u);

  auto orphan = generate("--fail-rate 50 --timeout 0.5");
  ASSERT_TRUE(orphan->says("published"));
  killDaemon();
  EXPECT_EQ(orphan->join(), 1);
  EXPECT_TRUE(orphan->says("the database is lost: "));
  EXPECT_TRUE(orphan->says("did not acknowledge"));
}

}  // namespace
}  // namespace Tunnelgen
