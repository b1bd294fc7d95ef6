#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "Harness.h"
#include "Hivel/Exception.h"

namespace HivelTest {
namespace {

using namespace Hivel;

// Random writes, readers that come and go, and a barrier: then every copy is equal. Catches
// a change that is lost, doubled or out of order, also while a catch-up is under way.
TEST(HivelReplication, copiesAreEqualAfterABarrier) {
  for (U32 seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE(seed);
    std::minstd_rand random(seed);
    TempDir dir;
    Database database;
    ServerOptions options = serverOptions(dir);
    options.highWater =
        512;  // so that marks, bookmarks and catch-ups happen all the time
    Server server(database, options);
    Loop loop;
    loop.add(server);
    ClientOptions writerOptions = clientOptions(dir, "writer");
    writerOptions.highWater = 512;
    Client writer(writerOptions);
    loop.add(writer);
    const auto plot = Plot::PlotIs("p");
    writer.mount("a", Mode::replace, {plot, {}, true});
    std::vector<std::unique_ptr<Client>> readers(5);
    for (int step = 0; step < 4000; ++step) {
      scribble(*plot, random);
      auto& reader = readers[random() % readers.size()];
      switch (random() % 16) {
        case 0:
          if (reader) loop.remove(reader.get());
          reader.reset();
          break;
        case 1:
          if (reader) break;
          reader = std::make_unique<Client>(clientOptions(dir, "reader"));
          reader->mount("a", Mode::read);
          loop.add(*reader);
          break;
        case 2: writer.process(); break;
        case 3: server.process(); break;
        case 4:
          if (reader) reader->process();
          break;
        default: break;
      }
    }
    bool applied = false;
    writer.sync([&](bool yes) { applied = yes; });
    ASSERT_TRUE(loop.until([&] { return applied; }));
    EXPECT_EQ(dump(database.find("a")), dump(plot));
    for (auto& reader : readers) {
      if (!reader) continue;
      const Mount& in = *reader->find("a");
      EXPECT_TRUE(loop.until([&] {
        return in.state() == Mount::State::live && dump(in.entity()) == dump(plot);
      }));
    }
  }
}

// Catches a server that buffers changes for a reader that does not read, and one that holds
// up the others for its sake.
TEST(HivelReplication, aReaderThatDoesNotReadCostsOnlyItself) {
  TempDir dir;
  Database database;
  ServerOptions options = serverOptions(dir);
  options.highWater = 32 << 10;
  Server server(database, options);
  Client idle(clientOptions(dir, "idle")), reader(clientOptions(dir, "reader")),
      writer(clientOptions(dir, "writer"));
  Loop loop;
  loop.add(server);
  loop.add(idle);
  loop.add(reader);
  loop.add(writer);
  const auto plot = Plot::PlotIs("p");
  writer.mount("a", Mode::replace, {plot, {}, true});
  const Mount& stuck = idle.mount("a", Mode::read);
  const Mount& in = reader.mount("a", Mode::read);
  ASSERT_TRUE(loop.until([&] {
    return in.state() == Mount::State::live && stuck.state() == Mount::State::live;
  }));
  loop.remove(&idle);
  const auto find = [&](const char* name) {
    for (const auto& connection : server.status().connections)
      if (connection.client == name) return connection;
    return ConnectionStatus{};
  };
  U64 most = 0;
  for (U32 round = 0; round < 40; ++round) {
    for (U32 key = 0; key < 1000; ++key)
      plot->noteIs(key, Kop::String(std::to_string(round) + std::string(50, 'x')));
    ASSERT_TRUE(loop.until([&] {
      return dynamic_cast<Plot&>(*in.entity()).note(999u) == plot->note(999u);
    })) << "the other reader stopped at round "
        << round;
    most = std::max(most, find("idle").bytesWaiting);
  }
  // 40000 changes of 80 bytes each: what does not fit into the socket became marks.
  EXPECT_LE(most, options.highWater + 200);
  EXPECT_GE(find("idle").coalesced, 30000u);
  EXPECT_LT(find("idle").messagesOut, 10000u);
  loop.add(idle);
  EXPECT_TRUE(loop.until([&] {
    return stuck.state() == Mount::State::live && dump(stuck.entity()) == dump(plot);
  }));
}

// Catches a replica that calls itself live while it is a mixture of two writers' states.
TEST(HivelReplication, aReaderIsLiveOnlyWithAWholeState) {
  TempDir dir;
  Database database;
  Server server(database, serverOptions(dir));
  Client reader(clientOptions(dir, "reader"));
  Loop loop;
  loop.add(server);
  loop.add(reader);
  const auto plotOfMany = [](const std::string& text) {
    const auto plot = Plot::PlotIs("p");
    for (U32 key = 0; key < 6000; ++key)
      plot->noteIs(key, Kop::String(text + std::string(150, 'x')));
    return plot;
  };
  const Ptr<Plot> plots[] = {plotOfMany("a"), plotOfMany("b"), plotOfMany("c")};
  const Mount* in = &reader.mount("a", Mode::read);
  bool dies = false, mixed = false;
  for (const auto& plot : plots) {
    Client writer(clientOptions(dir, "writer"));
    writer.mount("a", Mode::replace, {plot, {}, true});
    loop.add(writer);
    const auto isWhole = [&] {
      const EntityDump state = dump(in->entity());
      if (in->state() == Mount::State::catchingUp) mixed = true;
      if (in->state() != Mount::State::live) return false;
      // Live: one of the three, the second only if its writer lived to tell it.
      EXPECT_TRUE(state == dump(plots[0]) || state == dump(plots[2]));
      return state == dump(plot);
    };
    if (plot == plots[1]) {  // dies half-way
      dies = loop.until([&] { return isWhole(), mixed; });
    } else {
      EXPECT_TRUE(loop.until(isWhole));
    }
    loop.remove(&writer);
    if (!dies) mixed = false;
  }
  EXPECT_TRUE(dies);
  EXPECT_TRUE(mixed);
}

// Catches a barrier that answers before its writes are in, or never when nothing can answer.
TEST(HivelReplication, aBarrierFailsWhenAPathIsRefused) {
  TempDir dir;
  Database database;
  database.mount("a", Plot::PlotIs("own"));
  Server server(database, serverOptions(dir));
  Client client(clientOptions(dir));
  Loop loop;
  loop.add(server);
  loop.add(client);
  client.mount("a", Mode::replace, {Plot::PlotIs("p"), {}, true});
  std::optional<bool> applied;
  client.sync([&](bool yes) { applied = yes; });
  ASSERT_TRUE(loop.until([&] { return applied.has_value(); }));
  EXPECT_FALSE(*applied);
  client.unmount("a");
  applied.reset();
  client.sync([&](bool yes) { applied = yes; });
  ASSERT_TRUE(loop.until([&] { return applied.has_value(); }));
  EXPECT_TRUE(*applied);
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
      client.mount("p" + std::to_string(i), Mode::replace, {plot, {}, true});
      std::minstd_rand random(static_cast<U32>(i) + 1);
      for (int step = 0; step < 2000; ++step) {
        scribble(*plot, random);
        if (step % 50 == 0) client.process();
      }
      plot->titleIs("the end");
      EXPECT_TRUE(client.syncAndWait(patience));
      // Another connection sees what the barrier promised.
      Client reader(clientOptions(dir, "reader"));
      EXPECT_TRUE(connected(reader));
      const Mount& in =
          reader.mountAndWait("p" + std::to_string(i), Mode::read, {}, patience);
      EXPECT_EQ(dump(in.entity()), dump(plot));
      EXPECT_EQ(reader.statusAndWait(patience).name, "hivel");
      EXPECT_EQ(reader.listAndWait("p" + std::to_string(i), patience).at(0).type,
                "Garden::Plot");
    });
  for (auto& writer : writers)
    writer.join();
  ends = true;
  host.join();
}

// What a command line sees of errors: one reason each, and no waiting for what cannot come.
TEST(HivelThreads, waitingCallsGiveReasons) {
  TempDir dir;
  const auto reason = [](const auto& call) -> std::string {
    try {
      call();
    } catch (const RefusedException& e) {
      return e.what();
    }
    return "none";
  };
  Client client(clientOptions(dir));
  const std::string lost =
      "connect " + dir.path("hivel.sock") + ": No such file or directory";
  EXPECT_EQ(reason([&] { client.listAndWait("", patience); }), lost);
  EXPECT_EQ(reason([&] { client.statusAndWait(patience); }), lost);
  EXPECT_EQ(reason([&] { client.mountAndWait("a", Mode::read, {}, patience); }),
            "path 'a': " + lost);
  EXPECT_FALSE(client.syncAndWait(50ms));
  EXPECT_THROW(client.mount("/a", Mode::read), Kop::RangeException);
  EXPECT_THROW(client.mount("a", Mode::replace), Kop::RangeException);
  EXPECT_THROW(client.mount("a", Mode::read, {nullptr, "No::Type", true}),
               Kop::RangeException);
}

}  // namespace
}  // namespace HivelTest
