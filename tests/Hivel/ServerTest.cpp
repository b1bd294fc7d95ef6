#include <unistd.h>

#include "Harness.h"
#include "tests/Support/Testing.h"

namespace HivelTest {
namespace {

// What clients and the server's own process do with paths, in any order, and what everybody
// must then see. Catches two writers of a path and one that stays locked when its writer is
// gone, a refusal that does not say who is in the way, a replica that takes local writes, a
// writer that misses what it takes over, makes it anew or may write too early, a reader or a
// watcher that misses a path's coming and going or a server's, a change that is lost, doubled
// or out of order, a barrier that holds with writes that are refused.
TEST_F(HivelServer, agreesWithAModelOfItsPaths) {
  struct Known {
    bool isThere = false, isOwn = false;  // isOwn: only this process may write it
    int writer = -1;
    EntityDump state{};
  };
  const std::string names[] = {"a", "a/b", "c"};
  std::map<std::string, Known> paths;
  Client* parties[4];
  const std::string me =
      " (pid " + std::to_string(::getpid()) + ", uid " + std::to_string(::getuid()) + ")";
  const auto textOf = [&](int who) {
    return who < 0 ? std::string() : "client" + std::to_string(who) + me;
  };
  const auto comes = [&](int who) {
    parties[who] = &client("client" + std::to_string(who));
  };
  // So that marks, bookmarks and catch-ups happen all the time.
  ServerOptions narrow = serverOptions(dir);
  narrow.highWater = highWater = 512;
  for (int who = 0; who < 4; ++who)
    comes(who);
  std::string told, expected;
  client("watcher").watch("a", [&](const PathInfo& info, bool appeared) {
    told += (appeared ? "+" : "-") + info.path;
  });
  const auto tells = [&](const char* sign, const std::string& path) {
    if (path != "c") expected += sign + path;
  };
  // What differs from what is known, or nothing.
  const auto difference = [&]() -> std::string {
    const ServerStatus status = server->status();
    if (status.connections.size() != clients.size()) return "connections";
    for (const PathStatus& path : status.paths)
      if (path.writer != textOf(paths[path.path].writer)) return "writer " + path.writer;
    for (const auto& [path, known] : paths) {
      const auto entity = database.find(path);
      if (dump(entity) != known.state) return "database's " + path;
      if (entity && entity->readOnlyProxy() != (known.writer >= 0)) return "the lock";
      for (const Client* const party : parties) {
        const Mount* const mount = party->find(path);
        if (!mount || mount->mode() != Mode::read) continue;
        if (!known.isThere && mount->state() == Mount::State::waiting) continue;
        if (!isLive(*mount) || mount->writer() != textOf(known.writer) ||
            !mount->entity()->readOnlyProxy() || dump(mount->entity()) != known.state)
          return "replica of " + path;
      }
    }
    return told == expected ? "" : "told " + told;
  };
  serve(narrow);
  U64 epoch = 0, refusals = 0;
  const U32 seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::minstd_rand random(seed);
  const auto below = [&](U32 n) { return static_cast<int>((random() >> 8) % n); };
  for (int step = 0; step < 2000 && !HasFailure(); ++step) {
    const int who = below(4), what = below(10);
    Client& party = *parties[who];
    const std::string& path = names[below(3)];
    Known& known = paths[path];
    Mount* const mount = party.find(path);
    if (what == 0 && known.isThere) {
      database.unmount(path);
      if (known.writer >= 0) {
        Client& writer = *parties[known.writer];
        EXPECT_EQ(refusal(*writer.find(path)), "the server has unmounted it");
        writer.unmount(path);
      }
      known = {};
      tells("-", path);
    } else if (what == 0) {
      // Sometimes while no server serves it.
      if (below(2) == 0) {
        loop.remove(server.get());
        server.reset();
      }
      const auto own = Plot::PlotIs("own");
      const auto writers =
          below(2) ? Database::Writers::owner : Database::Writers::remote;
      database.mount(path, own, writers);
      known = {true, writers == Database::Writers::owner, -1, dump(own)};
      tells("+", path);
      if (!server) {
        serve(narrow);
        epoch = 0;
      }
    } else if (what == 1) {
      for (auto& [name, each] : paths)
        if (each.writer == who) each.writer = -1;
      EXPECT_TRUE(synced(party));
      ends(party);
      comes(who);
    } else if (what == 2 && mount) {
      const auto entity = mount->entity();
      const bool removes = below(2) == 0;
      party.unmount(path, removes);
      EXPECT_TRUE(loop.until([&] { return !entity || !entity->readOnlyProxy(); }));
      if (known.writer == who) {
        known.writer = -1;
        if (removes) {
          known = {};
          tells("-", path);
        }
      }
    } else if (mount ? known.writer == who : known.isOwn && below(2) == 0) {
      const auto plot = mount ? plotOf(mount->entity()) : plotOf(database.find(path));
      for (int i = 0; i < 40; ++i) {
        scribble(*plot, random);
        if (below(4) == 0) parties[below(4)]->process();
        if (below(8) == 0) server->process();
      }
      known.state = dump(plot);
      if (below(4)) continue;
    } else if (!mount) {
      const auto mode = static_cast<Mode>(below(3));
      MountOptions options{nullptr, {}, known.isThere || below(2) == 0};
      if (mode == Mode::replace || (mode == Mode::adopt && below(2) == 0))
        options.entity = somePlot("given");
      else if (below(2) == 0)
        options.type = "Garden::Plot";
      std::string reason;
      if (mode == Mode::read)
        reason = options.waits ? "" : "nothing is mounted there";
      else if (known.isOwn)
        reason = "it is written by the server's own process";
      else if (known.writer >= 0)
        reason = "it is written by " + textOf(known.writer);
      else if (!known.isThere && !options.entity && options.type.empty())
        reason = "nothing is mounted there and no type is given";
      Mount& made = party.mount(path, mode, options);
      if (!reason.empty()) {
        EXPECT_EQ(refusal(made), reason);
        EXPECT_EQ(warnings.size(), ++refusals);
        EXPECT_EQ(synced(party), mode == Mode::read);
        party.unmount(path);
        EXPECT_TRUE(synced(party));
      } else if (mode != Mode::read) {
        EXPECT_EQ(made.entity() && made.entity()->readOnlyProxy(),
                  mode == Mode::adopt && made.entity());
        ASSERT_TRUE(live(made)) << made.reason();
        EXPECT_GT(made.epoch(), std::exchange(epoch, made.epoch()));
        const EntityDump state = dump(made.entity());
        EXPECT_TRUE(state == known.state || mode == Mode::replace || !known.isThere);
        if (!known.isThere) tells("+", path);
        known = {true, false, who, state};
      }
    }
    std::string last;
    EXPECT_TRUE(loop.until([&] { return (last = difference()).empty(); }))
        << step << ": " << last << " after " << what;
  }
  EXPECT_GT(refusals, 50u);
}

// Catches a rule that fits too much or too little, and a list that shows what may not be
// read.
TEST_F(HivelServer, keepsToItsRules) {
  ServerOptions options = serverOptions(dir);
  const std::string me = std::to_string(::getuid()),
                    other = std::to_string(::getuid() + 1);
  for (const std::string& rule : std::vector<std::string>{
           "a/secret:*:-", "a:" + me + ":rw", "b:" + other + ":rw", "b:*:r"})
    options.rules.push_back(parseRule(rule));
  serve(std::move(options));
  std::string allowed, listed;
  Client& writer = client();
  for (const char* path : {"a/open", "a/secret", "b", "c"}) {
    database.mount(path, Plot::PlotIs("p"), Database::Writers::remote);
    allowed += path;
    for (const bool writes : {false, true}) {
      const Mount& mount = writer.mount(path, writes ? Mode::adopt : Mode::read);
      if (live(mount)) {
        allowed += writes ? ":w" : ":r";
      } else {
        EXPECT_EQ(mount.reason(),
                  "uid " + me + " may not " + (writes ? "write" : "read") + " this path");
      }
      writer.unmount(path);
    }
  }
  EXPECT_EQ(allowed, "a/open:r:wa/secretb:rc");
  writer.list("", [&](const std::vector<PathInfo>& paths) {
    for (const auto& info : paths)
      listed += info.path + " ";
  });
  EXPECT_TRUE(synced(writer));
  EXPECT_EQ(listed, "a/open b ");
  for (const char* bad : {"a", "a:*", "a:*:x", "a:b:r", "/a:*:r", "a:1 :r", "a:*:wr"})
    EXPECT_THROW(parseRule(bad), Kop::RangeException) << bad;
}

template <class Message>
std::string sent(const Message& message) {
  const Bytes frame = frameOf(message);
  return {frame.begin(), frame.end()};
}
// A scalar of text is set.
std::string logFrame(U64 identity, const Kop::String& text = {}) {
  Kop::NboAttrLog::Out out;
  out.writeU32(static_cast<U32>(17 + text.size()));
  out.writeU8(1);
  out.writeU64(identity);
  out.writeU32(258);
  out.writeString(text);
  return std::string(out.data(), out.data() + out.size());
}
std::string helloFrame(U64 instance = 0) {
  return sent(helloOf("raw", instance));
}

// Catches a peer that is not refused, a reason that does not say why, and a server that
// stops for the others.
TEST_F(HivelServer, closesOnWhatItMustNotBeSent) {
  serve();
  database.mount("a", somePlot());
  const std::string hello = helloFrame();
  Frame::Hello stranger = helloOf("raw", 1), digest = stranger;
  stranger.modules.push_back({"of another build", 1});
  digest.modules.at(0).digest ^= 0xff;
  const Frame::Mount read{1, Mode::read, true, "a", "", "", 77};
  // clang-format off
  const struct {
    std::string bytes, reason;
  } rows[] = {
      {"GET / HTTP/1.1\r\n\r\n", "frame of 1195725856 bytes"},
      {std::string(64, 0), "frame of 0 bytes"},
      {sent(Frame::Sync{1}), "the first frame has kind 78, not 64"},
      {"\0\1\0\1"s, "frame of 65537 bytes"},
      {sent(Frame::Hello{1, 1, "", 0, {}}),
       "not a peer of this protocol: magic 00000001, not 4849564c"},
      {"\0\0\0\x0a\x40HIVL\0\0\0\x09?"s, "protocol version 9 on the other side, 1 here"},
      {sent(digest), "module " + digest.modules[0].name + ": digest "},
      {hello + hello, "a client sends no hello frame now"},
      {hello + "\x7f\xff\xff\xff", "frame of 2147483647 bytes"},
      {sent(stranger) + "\0\0\0\1\xc8"s, "unknown frame kind 200"},
      {hello + "\0\0\0\2\x4e\0"s, "bad sync frame"},
      {hello + sent(Frame::Waiting{1}), "sends no waiting frame"},
      {hello + logFrame(5), "unknown entity"},
      {hello + "\0\0\0\2\1\0"s, "bytes"},
      {hello + sent(read) + sent(read), "mounted twice"},
      {hello + sent(Frame::List{1, true, "/"}), "begins with '/'"},
      {hello + sent(Frame::Adopted{4, 1}), "unknown mount 4"},
      {hello + sent(read) + sent(Frame::Unmount{1, false}) + logFrame(77), "unknown entity"},
      {hello + sent(read) + logFrame(77), "may only read"},
  };
  // clang-format on
  Client& good = client();
  U64 errors = 0;
  for (const auto& row : rows) {
    Raw raw(dir, row.bytes);
    EXPECT_THAT(errorOf(raw), testing::HasSubstr(row.reason));
    EXPECT_EQ(server->status().errors, ++errors);
    EXPECT_EQ(warnings.size(), errors);
    EXPECT_TRUE(synced(good));
  }
}

// Catches a server that finds out by writing that a client has left, and drops what the
// client wrote before.
TEST_F(HivelServer, takesTheLastWordsOfAClient) {
  serve();
  const auto plot = Plot::PlotIs("p");
  database.mount("a", plot, Database::Writers::remote);
  Frame::Mount mount{1, Mode::replace, false, "a", "", "n", 9};
  Raw(dir, helloFrame() + sent(mount) + logFrame(9, "last words"));
  EXPECT_TRUE(loop.until([&] { return server->status().accepted == 1; }));
  EXPECT_EQ(plot->title(), "last words");
  EXPECT_FALSE(plot->readOnlyProxy());
  // And while a client is about to adopt it, nobody else writes it.
  mount.mode = Mode::adopt;
  const Raw adopting(dir, helloFrame() + sent(mount));
  EXPECT_TRUE(loop.until([&] { return plot->readOnlyProxy(); }));
}

// A writer's messages that are cut anywhere, or damaged, change nothing but its connection.
TEST_F(HivelServer, survivesEveryCutOfAStream) {
  serve();
  const std::string stream =
      helloFrame() +
      sent(Frame::Mount{1, Mode::replace, false, "a", "Garden::Plot", "n", 9}) +
      logFrame(9) + sent(Frame::Sync{1}) + sent(Frame::Unmount{1, false});
  std::minstd_rand random(11);
  for (std::size_t i = 1; i < stream.size() + 500; ++i) {
    std::string damaged(stream.begin(),
                        stream.begin() + static_cast<long>(std::min(i, stream.size())));
    for (U32 n = i < stream.size() ? 0 : 1 + random() % 3; n > 0; --n)
      damaged[random() % damaged.size()] = static_cast<char>(random());
    const Raw raw(dir, damaged);
    loop.run(0ms);
  }
  EXPECT_TRUE(loop.until([&] { return server->status().connections.empty(); }));
  EXPECT_TRUE(live(client().mount("a", Mode::replace, all(somePlot()))));
}

// Catches one client too many, and a client that is locked out by its own connection, of
// which the server has not yet noticed the end.
TEST_F(HivelServer, letsAClientComeBackOverItselfButNotInAnyNumber) {
  ServerOptions options = serverOptions(dir);
  options.maxConnections = 2;
  serve(std::move(options));
  const std::string bytes = helloFrame(5) + sent(Frame::Mount{1, Mode::replace, true, "a",
                                                              "Garden::Plot", "n", 9});
  Raw before(dir, bytes);
  loop.run(20ms);
  Raw after(dir, bytes), third(dir);
  EXPECT_EQ(errorOf(third), "the server has its 2 connections");
  EXPECT_EQ(server->status().turnedAway, 1u);
  EXPECT_EQ(errorOf(before), "the client has come back on another connection");
  EXPECT_FALSE(after.receive());
  EXPECT_EQ(server->status().connections.at(0).writes, 1u);
}

}  // namespace
}  // namespace HivelTest
