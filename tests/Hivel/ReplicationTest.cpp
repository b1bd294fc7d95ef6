#include "Harness.h"
#include "Hivel/Exception.h"
#include "tests/Support/Testing.h"

namespace HivelTest {
namespace {

using HivelReplication = HivelServer;

// Catches a server that buffers changes for a reader that does not read, and one that holds
// up the others for its sake.
TEST_F(HivelReplication, aReaderThatDoesNotReadCostsOnlyItself) {
  ServerOptions options = serverOptions(dir);
  options.highWater = 32 << 10;
  serve(options);
  Client &idle = client("idle"), &reader = client("reader"), &writer = client("writer");
  const auto plot = Plot::PlotIs("p");
  writer.mount("a", Mode::replace, all(plot));
  const Mount& stuck = idle.mount("a", Mode::read);
  const Mount& in = reader.mount("a", Mode::read);
  ASSERT_TRUE(live(in) && live(stuck));
  loop.remove(&idle);
  const auto ofIdle = [&] {
    for (const auto& connection : server->status().connections)
      if (connection.client == "idle") return connection;
    return ConnectionStatus{};
  };
  U64 most = 0;
  for (U32 round = 0; round < 40; ++round) {
    for (U32 key = 0; key < 1000; ++key)
      plot->noteIs(key, Kop::String(std::to_string(round) + std::string(50, 'x')));
    ASSERT_TRUE(loop.until([&] {
      return plotOf(in.entity())->note(999u) == plot->note(999u);
    })) << "the other reader stopped at round "
        << round;
    most = std::max(most, ofIdle().bytesWaiting);
  }
  // 40000 changes of 80 bytes each: what does not fit into the socket became marks.
  EXPECT_LE(most, options.highWater + 200);
  EXPECT_GE(ofIdle().coalesced, 30000u);
  EXPECT_LT(ofIdle().messagesOut, 10000u);
  loop.add(idle);
  EXPECT_TRUE(follows(stuck, plot));
}

// Catches a replica that calls itself live while it is a mixture of two writers' states.
TEST_F(HivelReplication, aReaderIsLiveOnlyWithAWholeState) {
  serve();
  const auto plotOfMany = [](const std::string& text) {
    const auto plot = Plot::PlotIs("p");
    for (U32 key = 0; key < 6000; ++key)
      plot->noteIs(key, Kop::String(text + std::string(150, 'x')));
    return plot;
  };
  const Ptr<Plot> plots[] = {plotOfMany("a"), plotOfMany("b"), plotOfMany("c")};
  const Mount& in = client("reader").mount("a", Mode::read);
  bool dies = false, mixed = false;
  for (const auto& plot : plots) {
    Client& writer = client("writer");
    writer.mount("a", Mode::replace, all(plot));
    const auto isWhole = [&] {
      const EntityDump state = dump(in.entity());
      if (in.state() == Mount::State::catchingUp) mixed = true;
      if (!isLive(in)) return false;
      // Live: one of the three, the second only if its writer lived to tell it.
      EXPECT_TRUE(state == dump(plots[0]) || state == dump(plots[2]));
      return state == dump(plot);
    };
    if (plot == plots[1]) {  // dies half-way
      dies = loop.until([&] { return isWhole(), mixed; });
    } else {
      EXPECT_TRUE(loop.until(isWhole));
    }
    ends(writer);
    if (!dies) mixed = false;
  }
  EXPECT_TRUE(dies);
  EXPECT_TRUE(mixed);
}

// A server and clients on threads of their own, as processes have them. Catches state that
// they share by accident.
TEST(HivelThreads, partiesShareNothing) {
  TempDir dir;
  std::atomic<bool> ends = false;
  std::thread host([&] {
    Database database;
    Server server(database, serverOptions(dir));
    Loop loop;
    loop.add(server);
    loop.until([&] { return ends.load(); }, 60s);
  });
  const auto connected = [](Client& client) {
    return client.wait([&] { return client.state() == Client::State::connected; },
                       patience);
  };
  std::vector<std::thread> writers;
  for (int i = 0; i < 2; ++i)
    writers.emplace_back([&, i] {
      Client client(clientOptions(dir, "writer"));
      EXPECT_TRUE(connected(client));
      const auto plot = Plot::PlotIs("p");
      const std::string path = "p" + std::to_string(i);
      client.mount(path, Mode::replace, {plot, {}, true});
      std::minstd_rand random(static_cast<U32>(i) + 1);
      for (int step = 0; step < 2000; ++step) {
        scribble(*plot, random);
        if (step % 50 == 0) client.process();
      }
      EXPECT_TRUE(client.syncAndWait(patience));
      // Another connection sees what the barrier promised.
      Client reader(clientOptions(dir, "reader"));
      EXPECT_TRUE(connected(reader));
      const Mount& in = reader.mountAndWait(path, Mode::read, {}, patience);
      EXPECT_EQ(dump(in.entity()), dump(plot));
      EXPECT_EQ(reader.statusAndWait(patience).name, "hivel");
      EXPECT_EQ(reader.listAndWait(path, patience).at(0).type, "Garden::Plot");
    });
  for (auto& writer : writers)
    writer.join();
  ends = true;
  host.join();
}

// What a command line sees of errors: one reason each, and no waiting for what cannot come.
TEST(HivelThreads, waitingCallsGiveReasons) {
  TempDir dir;
  const auto refuses = [](const auto& call, const std::string& reason) {
    EXPECT_THAT(call, testing::ThrowsMessage<RefusedException>(reason));
  };
  Client client(clientOptions(dir));
  const std::string lost =
      "connect " + dir.path("hivel.sock") + ": No such file or directory";
  refuses([&] { client.listAndWait("", patience); }, lost);
  refuses([&] { client.statusAndWait(patience); }, lost);
  refuses([&] { client.mountAndWait("a", Mode::read, {}, patience); },
          "path 'a': " + lost);
}

}  // namespace
}  // namespace HivelTest
