#include <unistd.h>

#include <gtest/gtest.h>

#include "Harness.h"

namespace HivelTest {
namespace {

// Catches two writers at once, a refusal that does not say who is in the way, a replica that
// takes local writes, a path that stays locked when its writer is gone, and counters of
// something else.
TEST_F(HivelServer, hasOneWriterPerPathAndNamesIt) {
  serve();
  Client &first = client("first"), &second = client("second"), &reader = client("reader");
  const auto given = somePlot("g");
  ASSERT_TRUE(live(first.mount("garden/front", Mode::replace, all(given))));
  const Mount& in = reader.mount("garden/front", Mode::read);
  ASSERT_TRUE(live(in)) << in.reason();
  const U64 epoch = in.epoch();
  EXPECT_TRUE(follows(in, given));
  EXPECT_EQ(in.entity()->name(), "g");
  EXPECT_THROW(plotOf(in)->titleIs("mine"), Kop::WriteUpdateFromReadOnlyProxyException);
  const std::string whoFirst = "first (pid " + std::to_string(::getpid()) + ", uid " +
                               std::to_string(::getuid()) + ")";
  EXPECT_EQ(in.writer(), whoFirst);
  EXPECT_TRUE(warnings.empty());
  EXPECT_TRUE(loop.until([&] { return first.drained(); }));
  for (const Mode mode : {Mode::replace, Mode::adopt}) {
    EXPECT_EQ(refusal(second.mount("garden/front", mode, all(Plot::PlotIs("q")))),
              "it is written by " + whoFirst);
    second.unmount("garden/front");
  }
  reader.mount("missing", Mode::read);
  std::string told;
  reader.status([&](const ServerStatus& status) {
    for (const auto& each : status.connections)
      told += each.client + std::to_string(each.reads) + std::to_string(each.writes) +
              std::to_string(each.catchUps) + std::to_string(each.refusals) +
              (each.messagesIn > 10 ? " in " : " ") +
              (each.messagesOut > 10 ? "out " : "");
    for (const auto& path : status.paths)
      told += path.path + path.type + path.writer.substr(0, 7) +
              std::to_string(path.readers) + std::to_string(path.waiting) +
              std::to_string(path.refusals) + " ";
  });
  EXPECT_TRUE(loop.until([&] { return !told.empty(); }));
  EXPECT_EQ(told,
            "first0100 in second0002 reader2010 out "
            "garden/frontGarden::Plotfirst (102 missing010 ");
  ends(first);
  EXPECT_TRUE(loop.until([&] { return in.writer().empty(); }));
  EXPECT_EQ(dump(in.entity()), dump(given));  // what the writer left stays
  const auto plot = Plot::PlotIs("q");
  plot->bedIs("only");
  ASSERT_TRUE(live(second.mount("garden/front", Mode::replace, all(plot))));
  EXPECT_TRUE(follows(in, plot));
  EXPECT_GT(in.epoch(), epoch);
}

// Counts what a replica's observers are told of its beds.
struct BedWatch : Kop::Reactor<Plot> {
  using Reactor::Reactor;
  void bedReaction(const Kop::String&) override { ++told; }
  int told = 0;
};

// Catches an adopting writer that makes the children anew (every reader would see them go
// and come), that misses state, that may write before it has it, or that cannot make a path
// that is not there.
TEST_F(HivelServer, letsAWriterTakeOverWhatIsThere) {
  serve();
  Client &reader = client("reader"), &heir = client("heir"), &first = client("first");
  EXPECT_EQ(refusal(first.mount("a/b", Mode::adopt)),
            "nothing is mounted there and no type is given");
  first.unmount("a/b");
  const Mount& made = first.mount("a/b", Mode::adopt, {nullptr, "Garden::Plot", true});
  ASSERT_TRUE(live(made));
  EXPECT_EQ(made.entity()->name(), "b");
  std::minstd_rand random(3);
  for (int i = 0; i < 300; ++i)
    scribble(*plotOf(made), random);
  const EntityDump state = dump(made.entity());
  const Mount& in = reader.mount("a/b", Mode::read);
  ASSERT_TRUE(live(in));
  EXPECT_TRUE(follows(in, plotOf(made)));
  ends(first);
  BedWatch watch(plotOf(in));

  const auto given = Plot::PlotIs("mine");
  given->titleIs("of no importance");
  const Mount& out = heir.mount("a/b", Mode::adopt, all(given));
  EXPECT_THROW(given->titleIs("too early"), Kop::WriteUpdateFromReadOnlyProxyException);
  ASSERT_TRUE(live(out));
  EXPECT_EQ(out.entity(), given);
  EXPECT_EQ(dump(given), state);
  given->titleIs("by the heir");
  given->bedIs("bed1")->areaIs(77);
  EXPECT_TRUE(same(in.entity(), given));
  EXPECT_EQ(watch.told, 0);
}

// Catches a reader that is shown a path while its first writer is still bringing it, that
// misses its coming, or that keeps following what is gone.
TEST_F(HivelServer, letsReadersWaitForAPath) {
  serve();
  Client &writer = client(), &reader = client();
  const Mount& in = reader.mount("a", Mode::read);
  EXPECT_EQ(refusal(client().mount("a", Mode::read, {nullptr, {}, false})),
            "nothing is mounted there");
  EXPECT_TRUE(loop.until([&] { return in.state() == Mount::State::waiting; }));
  const auto plot = somePlot();
  writer.mount("a", Mode::replace, all(plot));
  ASSERT_TRUE(live(in));
  EXPECT_EQ(dump(in.entity()), dump(plot));
  const Ptr<Plot> replica = plotOf(in);
  writer.unmount("a", true);
  EXPECT_TRUE(loop.until([&] { return in.state() == Mount::State::waiting; }));
  EXPECT_EQ(database.count(), 0u);
  const auto other = Plot::PlotIs("other");
  writer.mount("a", Mode::replace, all(other));
  EXPECT_TRUE(follows(in, other));
  EXPECT_EQ(in.entity(), replica);
  // A replica that is let go may be written; one that follows may not.
  reader.unmount("a");
  EXPECT_TRUE(loop.until([&] { return !replica->readOnlyProxy(); }));
}

// Catches a client that overwrites what this process owns, and an entity that both write.
TEST_F(HivelServer, offersEntitiesOfItsOwnProcess) {
  serve();
  const auto own = somePlot("own"), shared = somePlot("shared");
  database.mount("own", own);
  database.mount("shared", shared, Database::Writers::remote);
  Client &writer = client(), &reader = client();
  const Mount& in = reader.mount("own", Mode::read);
  ASSERT_TRUE(live(in));
  own->titleIs("by its owner");
  EXPECT_TRUE(same(in.entity(), own));
  EXPECT_EQ(refusal(writer.mount("own", Mode::replace, all(Plot::PlotIs("x")))),
            "it is written by the server's own process");

  const Mount& out = writer.mount("shared", Mode::adopt);
  ASSERT_TRUE(live(out));
  plotOf(out)->titleIs("by the client");
  EXPECT_TRUE(loop.until([&] { return shared->title() == "by the client"; }));
  EXPECT_THROW(shared->titleIs("by its owner"),
               Kop::WriteUpdateFromReadOnlyProxyException);
  writer.unmount("shared");
  EXPECT_TRUE(loop.until([&] { return !shared->readOnlyProxy(); }));
  EXPECT_EQ(shared->title(), "by the client");
  // The owner takes a path from under a writer, which hears of it.
  const Mount& again = writer.mount("shared", Mode::adopt);
  ASSERT_TRUE(live(again));
  database.unmount("shared");
  EXPECT_TRUE(loop.until([&] { return again.state() == Mount::State::refused; }));
  EXPECT_EQ(again.reason(), "the server has unmounted it");
  EXPECT_TRUE(loop.until([&] { return !shared->readOnlyProxy(); }));
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
      listed += info.path + ":" + info.type + " ";
  });
  EXPECT_TRUE(loop.until([&] { return !listed.empty(); }));
  EXPECT_EQ(listed, "a/open:Garden::Plot b:Garden::Plot ");
  for (const char* bad : {"a", "a:*", "a:*:x", "a:b:r", "/a:*:r", "a:1 :r", "a:*:wr"})
    EXPECT_THROW(parseRule(bad), Kop::RangeException) << bad;
}

// Catches a watcher that misses a path, hears of one it did not ask for, or keeps one that
// is gone.
TEST_F(HivelServer, tellsWatchersOfPaths) {
  serve();
  database.mount("a/1", Plot::PlotIs("p"));
  Client& watcher = client();
  std::string told;
  const auto id = watcher.watch("a", [&](const PathInfo& info, bool appeared) {
    told += (appeared ? "+" : "-") + info.path;
  });
  const auto isTold = [&](const std::string& all) {
    return loop.until([&] { return told == all; });
  };
  EXPECT_TRUE(isTold("+a/1")) << told;
  database.mount("b", Plot::PlotIs("p"));
  database.mount("a/2", Plot::PlotIs("s"));
  database.unmount("a/1");
  EXPECT_TRUE(isTold("+a/1+a/2-a/1")) << told;
  // A server that comes back is compared with what was told.
  loop.remove(server.get());
  server.reset();
  database.mount("a/3", Plot::PlotIs("p"));
  serve();
  EXPECT_TRUE(isTold("+a/1+a/2-a/1+a/3")) << told;
  watcher.unwatch(id);
  loop.run(20ms);
  database.unmount("a/3");
  loop.run(20ms);
  EXPECT_EQ(told, "+a/1+a/2-a/1+a/3");
}

Bytes bytesOf(std::string_view text) {
  return Bytes(text.begin(), text.end());
}
Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
// A scalar of text is set.
Bytes logFrame(U64 identity, U32 attribute, const Kop::String& text = {}) {
  Kop::NboAttrLog::Out out;
  out.writeU32(static_cast<U32>(17 + text.size()));
  out.writeU8(1);
  out.writeU64(identity);
  out.writeU32(attribute);
  out.writeString(text);
  return Bytes(out.data(), out.data() + out.size());
}
Bytes helloFrame(U64 instance = 0) {
  return frameOf(helloOf("raw", instance));
}

// Catches a peer that is not refused, a reason that does not say why, and a server that
// stops for the others.
TEST_F(HivelServer, closesOnWhatItMustNotBeSent) {
  serve();
  database.mount("a", somePlot());
  const Bytes hello = helloFrame();
  Frame::Hello stranger = helloOf("raw", 1), digest = stranger;
  stranger.modules.push_back({"of another build", 1});
  digest.modules.at(0).digest ^= 0xff;
  const auto hex = [](unsigned long long number) {
    return std::string(Kop::stringPrintf("%016llx", number));
  };
  const std::string ours = hex(digest.modules[0].digest ^ 0xff);
  const Frame::Mount read{1, Mode::read, true, "a", "", "", 77};
  // clang-format off
  const struct {
    std::string name;
    Bytes bytes;
    std::string reason;
  } rows[] = {
      {"foreign", bytesOf("GET / HTTP/1.1\r\n\r\n"), "frame of 1195725856 bytes"},
      {"zeros", Bytes(64, 0), "frame of 0 bytes"},
      {"no hello", frameOf(Frame::Sync{1}), "the first frame has kind 78, not 64"},
      {"long hello", bytesOf(std::string("\0\1\0\1", 4)), "frame of 65537 bytes"},
      {"magic", frameOf(Frame::Hello{1, 1, "", 0, {}}),
       "not a peer of this protocol: magic 00000001, not 4849564c"},
      {"version", bytesOf({"\0\0\0\x0a\x40HIVL\0\0\0\x09?", 14}),
       "protocol version 9 on the other side, 1 here"},
      {"digest", frameOf(digest), "module " + digest.modules[0].name + ": digest " + hex(digest.modules[0].digest) +
       " on the other side, " + ours + " here"},
      {"second hello", hello + hello, "a client sends no hello frame now"},
      {"long frame", hello + bytesOf("\x7f\xff\xff\xff"), "frame of 2147483647 bytes"},
      {"unknown kind", frameOf(stranger) + Bytes{0, 0, 0, 1, 200}, "unknown frame kind 200"},
      {"short body", hello + Bytes{0, 0, 0, 2, 78, 0}, "bad sync frame"},
      {"server's frame", hello + frameOf(Frame::Waiting{1}), "sends no waiting frame"},
      {"unknown entity", hello + logFrame(5, 258), "unknown entity"},
      {"short log", hello + Bytes{0, 0, 0, 2, 1, 0}, "bytes"},
      {"mounted twice", hello + frameOf(read) + frameOf(read), "mounted twice"},
      {"bad prefix", hello + frameOf(Frame::List{1, true, "/"}), "begins with '/'"},
      {"adopts nothing", hello + frameOf(Frame::Adopted{4, 1}), "unknown mount 4"},
      {"unmounted", hello + frameOf(read) + frameOf(Frame::Unmount{1, false}) + logFrame(77, 258),
       "unknown entity"},
      {"reader writes", hello + frameOf(read) + logFrame(77, 258), "may only read"},
  };
  // clang-format on
  Client& good = client();
  U64 errors = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    {
      Raw raw(dir, row.bytes);
      loop.until([&] { return raw.receive(); });
      const std::string reason = raw.error();
      EXPECT_NE(reason.find(row.reason), std::string::npos) << reason;
    }
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
  Raw(dir, helloFrame() + frameOf(mount) + logFrame(9, 258, "last words"));
  EXPECT_TRUE(loop.until([&] { return server->status().accepted == 1; }));
  EXPECT_EQ(plot->title(), "last words");
  EXPECT_FALSE(plot->readOnlyProxy());
  // And while a client is about to adopt it, nobody else writes it.
  mount.mode = Mode::adopt;
  const Raw adopting(dir, helloFrame() + frameOf(mount));
  EXPECT_TRUE(loop.until([&] { return plot->readOnlyProxy(); }));
}

// A writer's messages that are cut anywhere, or damaged, change nothing but its connection.
TEST_F(HivelServer, survivesEveryCutOfAStream) {
  serve();
  const Bytes stream =
      helloFrame() +
      frameOf(Frame::Mount{1, Mode::replace, false, "a", "Garden::Plot", "n", 9}) +
      logFrame(9, 258) + frameOf(Frame::Sync{1}) + frameOf(Frame::Unmount{1, false});
  std::minstd_rand random(11);
  for (std::size_t i = 1; i < stream.size() + 500; ++i) {
    Bytes damaged(stream.begin(),
                  stream.begin() + static_cast<long>(std::min(i, stream.size())));
    for (U32 n = i < stream.size() ? 0 : 1 + random() % 3; n > 0; --n)
      damaged[random() % damaged.size()] = static_cast<U8>(random());
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
  const auto closes = [&](Raw& raw) {
    loop.until([&] { return raw.receive(); });
    return raw.error();
  };
  const Bytes bytes = helloFrame(5) + frameOf(Frame::Mount{1, Mode::replace, true, "a",
                                                           "Garden::Plot", "n", 9});
  Raw before(dir, bytes);
  loop.run(20ms);
  Raw after(dir, bytes), third(dir);
  EXPECT_EQ(closes(third), "the server has its 2 connections");
  EXPECT_EQ(server->status().turnedAway, 1u);
  EXPECT_EQ(closes(before), "the client has come back on another connection");
  EXPECT_FALSE(after.receive());
  bool isMounted = false;
  while (const auto frame = after.next())
    isMounted = isMounted || frame->front() == static_cast<U8>(FrameKind::mounted);
  EXPECT_TRUE(isMounted);
}

}  // namespace
}  // namespace HivelTest
