#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Harness.h"
#include "Hivel/Exception.h"
#include "Hivel/Server.h"

namespace HivelTest {
namespace {

using namespace Hivel;

// A server in this process, with what it logged.
class HivelServer : public testing::Test {
 protected:
  void serve(ServerOptions options) {
    server = std::make_unique<Server>(database, std::move(options));
    server->onLog = [this](bool isWarning, const std::string& line) {
      if (isWarning) warnings.push_back(line);
    };
    loop.add(*server);
  }
  void serve() { serve(serverOptions(dir)); }
  // A client under the loop.
  Client& client(const std::string& name = "test") {
    loop.add(*clients.emplace_back(std::make_unique<Client>(clientOptions(dir, name))));
    return *clients.back();
  }
  void ends(Client& client) {
    loop.remove(&client);
    std::erase_if(clients, [&](const auto& each) { return each.get() == &client; });
  }
  static MountOptions all(const Ptr<Plot>& plot) { return {plot, {}, true}; }
  bool live(const Mount& mount) {
    return loop.until([&] { return mount.settled(); }) &&
           mount.state() == Mount::State::live;
  }
  std::string refusal(const Mount& mount) {
    loop.until([&] { return mount.settled(); });
    return mount.state() == Mount::State::refused ? mount.reason() : "not refused";
  }
  template <class A, class B>
  bool same(const A& a, const B& b) {
    return loop.until([&] { return dump(a) == dump(b); });
  }
  // The reason with which the server closes.
  std::string closes(Raw& raw) {
    loop.until([&] { return raw.receive(); });
    return raw.error();
  }

  TempDir dir;
  std::vector<std::string> warnings;  // the server's end may add to them
  Database database;
  Loop loop;
  std::unique_ptr<Server> server;
  std::vector<std::unique_ptr<Client>> clients;
};

Ptr<Plot> somePlot(const char* name = "p") {
  const auto plot = Plot::PlotIs(name);
  std::minstd_rand random(3);
  for (int i = 0; i < 300; ++i)
    scribble(*plot, random);
  return plot;
}

// Catches two writers at once, a refusal that does not say who is in the way, a replica that
// takes local writes, and a path that stays locked when its writer is gone.
TEST_F(HivelServer, hasOneWriterPerPathAndNamesIt) {
  serve();
  Client &first = client("first"), &second = client("second"), &reader = client("reader");
  const auto given = somePlot();
  Mount& out = first.mount("garden/front", Mode::replace, all(given));
  Mount& in = reader.mount("garden/front", Mode::read);
  ASSERT_TRUE(live(out) && live(in)) << in.reason();
  const U64 epoch = in.epoch();
  const EntityDump state = dump(in.entity());
  EXPECT_EQ(state, dump(given));
  EXPECT_EQ(in.entity()->name(), given->name());
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
  ends(first);
  EXPECT_TRUE(loop.until([&] { return in.writer().empty(); }));
  EXPECT_EQ(dump(in.entity()), state);  // what the writer left stays
  const auto plot = Plot::PlotIs("q");
  plot->bedIs("only");
  ASSERT_TRUE(live(second.mount("garden/front", Mode::replace, all(plot))));
  EXPECT_TRUE(same(in.entity(), plot));
  EXPECT_TRUE(loop.until([&] { return in.state() == Mount::State::live; }));
  EXPECT_GT(in.epoch(), epoch);
  EXPECT_EQ(server->status().refusals, 2u);
  ASSERT_EQ(server->status().paths.size(), 1u);
  EXPECT_EQ(server->status().paths[0].refusals, 2u);
  for (const auto& each : server->status().connections)
    EXPECT_EQ(each.refusals, each.client == "second" ? 2u : 0u) << each.client;
}

// Counts what a replica's observers are told of its beds.
struct BedWatch : Kop::Reactor<Plot> {
  using Reactor::Reactor;
  void bedReaction(const Kop::String&) override { ++told; }
  int told = 0;
};

// Catches an adopting writer that makes the children anew (every reader would see them go
// and come), that misses state, or that may write before it has it.
TEST_F(HivelServer, letsAWriterTakeOverWhatIsThere) {
  serve();
  Client &reader = client("reader"), &heir = client("heir"), &first = client("first");
  ASSERT_TRUE(live(first.mount("a", Mode::replace, all(somePlot()))));
  ends(first);
  Mount& in = reader.mount("a", Mode::read);
  ASSERT_TRUE(live(in));
  const EntityDump state = dump(in.entity());
  BedWatch watch(plotOf(in));

  const auto given = Plot::PlotIs("mine");
  given->titleIs("of no importance");
  Mount& out = heir.mount("a", Mode::adopt, all(given));
  EXPECT_THROW(given->titleIs("too early"), Kop::WriteUpdateFromReadOnlyProxyException);
  ASSERT_TRUE(live(out));
  EXPECT_EQ(dump(given), state);
  const auto plot = plotOf(out);
  plot->titleIs("by the heir");
  plot->bedIs("bed1")->areaIs(77);
  EXPECT_TRUE(same(in.entity(), out.entity()));
  EXPECT_EQ(watch.told, 0);
}
TEST_F(HivelServer, makesAnAdoptedPathThatIsNotThere) {
  serve();
  Client &writer = client(), &reader = client();
  EXPECT_EQ(refusal(writer.mount("a/b", Mode::adopt)),
            "nothing is mounted there and no type is given");
  writer.unmount("a/b");
  Mount& out = writer.mount("a/b", Mode::adopt, {nullptr, "Garden::Plot", true});
  ASSERT_TRUE(live(out));
  EXPECT_EQ(out.entity()->name(), "b");
  plotOf(out)->titleIs("t");
  const Mount& in = reader.mount("a/b", Mode::read);
  ASSERT_TRUE(live(in));
  EXPECT_TRUE(same(in.entity(), out.entity()));
}

// Catches a reader that is shown a path while its first writer is still bringing it, that
// misses its coming, or that keeps following what is gone.
TEST_F(HivelServer, letsReadersWaitForAPath) {
  serve();
  Client &writer = client(), &reader = client(), &hasty = client();
  Mount& in = reader.mount("a", Mode::read);
  std::vector<U32> states;
  in.onState = [&](Mount& mount) { states.push_back(static_cast<U32>(mount.state())); };
  EXPECT_EQ(refusal(hasty.mount("a", Mode::read, {nullptr, {}, false})),
            "nothing is mounted there");
  EXPECT_TRUE(loop.until([&] { return in.state() == Mount::State::waiting; }));
  const auto plot = somePlot();
  Mount& out = writer.mount("a", Mode::replace, all(plot));
  ASSERT_TRUE(live(in));
  EXPECT_EQ(dump(in.entity()), dump(plot));
  const Ptr<Kop::Entity> replica = in.entity();
  writer.unmount(out.path(), true);
  EXPECT_TRUE(loop.until([&] { return in.state() == Mount::State::waiting; }));
  EXPECT_EQ(database.count(), 0u);
  const auto other = Plot::PlotIs("other");
  ASSERT_TRUE(live(writer.mount("a", Mode::replace, all(other))));
  EXPECT_TRUE(loop.until([&] { return in.state() == Mount::State::live; }));
  EXPECT_EQ(in.entity(), replica);
  EXPECT_EQ(dump(replica), dump(other));
  EXPECT_EQ(states.front(), static_cast<U32>(Mount::State::waiting));
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

  Mount& out = writer.mount("shared", Mode::adopt);
  ASSERT_TRUE(live(out));
  plotOf(out)->titleIs("by the client");
  EXPECT_TRUE(loop.until([&] { return shared->title() == "by the client"; }));
  EXPECT_THROW(shared->titleIs("by its owner"),
               Kop::WriteUpdateFromReadOnlyProxyException);
  writer.unmount("shared");
  EXPECT_TRUE(loop.until([&] { return !shared->readOnlyProxy(); }));
  EXPECT_EQ(shared->title(), "by the client");
  // The owner takes a path from under a writer, which hears of it.
  Mount& again = writer.mount("shared", Mode::adopt);
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
  for (const char* path : {"a/open", "a/secret", "b", "c"})
    database.mount(path, Plot::PlotIs("p"), Database::Writers::remote);
  const struct {
    const char* path;
    bool read, write;
  } rows[] = {
      {"a/open",   true,  true },
      {"a/secret", false, false},
      {"b",        true,  false},
      {"c",        false, false},
  };
  Client& writer = client();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    for (const bool writes : {false, true}) {
      const Mount& mount = writer.mount(row.path, writes ? Mode::adopt : Mode::read);
      EXPECT_EQ(live(mount), writes ? row.write : row.read) << mount.reason();
      if (mount.state() == Mount::State::refused) {
        EXPECT_EQ(mount.reason(),
                  "uid " + me + " may not " + (writes ? "write" : "read") + " this path");
      }
      writer.unmount(row.path);
    }
  }
  std::string listed;
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
  Client& writer = client();
  std::string told;
  const auto id = writer.watch("a", [&](const PathInfo& info, bool appeared) {
    told += (appeared ? "+" : "-") + info.path;
  });
  EXPECT_TRUE(loop.until([&] { return told == "+a/1"; })) << told;
  database.mount("b", Plot::PlotIs("p"));
  database.mount("a/2", Shed::ShedIs("s"));
  database.unmount("a/1");
  EXPECT_TRUE(loop.until([&] { return told == "+a/1+a/2-a/1"; })) << told;
  // A server that comes back is compared with what was told.
  loop.remove(server.get());
  server.reset();
  database.mount("a/3", Plot::PlotIs("p"));
  serve();
  EXPECT_TRUE(loop.until([&] { return told == "+a/1+a/2-a/1+a/3"; })) << told;
  writer.unwatch(id);
  loop.run(20ms);
  database.unmount("a/3");
  loop.run(20ms);
  EXPECT_EQ(told, "+a/1+a/2-a/1+a/3");
}

TEST_F(HivelServer, tellsItsStatus) {
  serve();
  Client &writer = client("w"), &reader = client("r");
  ASSERT_TRUE(live(writer.mount("a", Mode::replace, all(somePlot()))));
  ASSERT_TRUE(live(reader.mount("a", Mode::read)));
  reader.mount("missing", Mode::read);
  loop.run(20ms);
  std::optional<ServerStatus> got;
  reader.status([&](const ServerStatus& status) { got = status; });
  ASSERT_TRUE(loop.until([&] { return got.has_value(); }));
  ASSERT_EQ(got->connections.size(), 2u);
  ASSERT_EQ(got->paths.size(), 2u);
  const bool isFirst = got->connections[0].client == "w";
  const auto &w = got->connections[!isFirst], &r = got->connections[isFirst];
  EXPECT_EQ(w.writes, 1u);
  EXPECT_EQ(r.reads, 2u);
  EXPECT_EQ(w.pid, static_cast<U32>(::getpid()));
  EXPECT_GT(w.messagesIn, 10u);
  EXPECT_EQ(w.messagesIn, r.messagesOut);
  EXPECT_EQ(r.catchUps, 1u);
  EXPECT_EQ(got->paths[0].path, "a");
  EXPECT_EQ(got->paths[0].readers, 1u);
  EXPECT_EQ(got->paths[0].writer.substr(0, 3), "w (");
  EXPECT_EQ(got->paths[1].waiting, 1u);
}

Bytes bytesOf(std::string_view text) {
  return Bytes(text.begin(), text.end());
}
template <class Message>
Bytes frameOf(const Message& message) {
  Kop::NboAttrLog::Out out;
  encode(out, message);
  return Bytes(out.data(), out.data() + out.size());
}
Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
Bytes logFrame(U64 identity, U32 attribute, U8 kind = 1) {
  Kop::NboAttrLog::Out out;
  out.writeU32(17);
  out.writeU8(kind);
  out.writeU64(identity);
  out.writeU32(attribute);
  out.writeU32(0);
  return Bytes(out.data(), out.data() + out.size());
}

// Catches a peer that is not refused, a reason that does not say why, and a server that
// stops for the others.
TEST_F(HivelServer, closesOnWhatItMustNotBeSent) {
  serve();
  database.mount("a", somePlot());
  const Bytes hello = frameOf(helloOf("raw", 1));
  Frame::Hello version = helloOf("raw", 1), digest = version;
  version.version = 9;
  digest.modules.at(0).digest ^= 0xff;
  const auto& module = digest.modules[0].name;
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
      {"magic", frameOf(Frame::Hello{1, 1, "", 0, {}}), "magic 00000001, not 4849564c"},
      {"version", frameOf(version), "protocol version 9 on the other side, 1 here"},
      {"digest", frameOf(digest), "module " + module + ": digest "},
      {"second hello", hello + hello, "a client sends no hello frame now"},
      {"long frame", hello + bytesOf("\x7f\xff\xff\xff"), "frame of 2147483647 bytes"},
      {"unknown kind", hello + Bytes{0, 0, 0, 1, 200}, "unknown frame kind 200"},
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
      Raw raw(dir.path("hivel.sock"));
      raw.send(row.bytes);
      const std::string reason = closes(raw);
      EXPECT_NE(reason.find(row.reason), std::string::npos) << reason;
    }
    EXPECT_EQ(server->status().errors, ++errors);
    EXPECT_EQ(warnings.size(), errors);
    bool answered = false;
    good.sync([&](bool) { answered = true; });
    EXPECT_TRUE(loop.until([&] { return answered; }));
  }
}

// Catches a server that finds out by writing that a client has left, and drops what the
// client wrote before.
TEST_F(HivelServer, takesTheLastWordsOfAClient) {
  serve();
  const auto plot = Plot::PlotIs("p");
  database.mount("a", plot, Database::Writers::remote);
  Kop::NboAttrLog::Out log;
  log.writeU32(0);
  log.writeU8(1);  // a scalar is set
  log.writeU64(9);
  log.writeU32(258);
  log.writeString("last words");
  log.patchU32(0, static_cast<U32>(log.size() - 4));
  Raw(dir.path("hivel.sock"))
      .send(frameOf(helloOf("raw", 0)) +
            frameOf(Frame::Mount{1, Mode::replace, false, "a", "", "n", 9}) +
            Bytes(log.data(), log.data() + log.size()));
  EXPECT_TRUE(loop.until([&] { return server->status().accepted == 1; }));
  EXPECT_EQ(plot->title(), "last words");
  EXPECT_FALSE(plot->readOnlyProxy());
  // And while a client is about to adopt it, nobody else writes it.
  const Raw adopting(dir.path("hivel.sock"));
  adopting.send(frameOf(helloOf("raw", 0)) +
                frameOf(Frame::Mount{1, Mode::adopt, false, "a", "", "n", 9}));
  EXPECT_TRUE(loop.until([&] { return plot->readOnlyProxy(); }));
}

// A writer's messages that are cut anywhere, or damaged, change nothing but its connection.
TEST_F(HivelServer, survivesEveryCutOfAStream) {
  serve();
  Bytes stream =
      frameOf(helloOf("raw", 0)) +
      frameOf(Frame::Mount{1, Mode::replace, false, "a", "Garden::Plot", "n", 9}) +
      logFrame(9, 258) + frameOf(Frame::Sync{1}) + frameOf(Frame::Unmount{1, false});
  for (std::size_t size = 1; size < stream.size(); ++size) {
    Raw raw(dir.path("hivel.sock"));
    raw.send(Bytes(stream.begin(), stream.begin() + static_cast<long>(size)));
    loop.run(0ms);
  }
  std::minstd_rand random(11);
  for (int i = 0; i < 500; ++i) {
    Bytes damaged = stream;
    for (U32 n = 1 + random() % 3; n > 0; --n)
      damaged[random() % damaged.size()] = static_cast<U8>(random());
    Raw raw(dir.path("hivel.sock"));
    raw.send(damaged);
    loop.run(0ms);
  }
  EXPECT_TRUE(loop.until([&] { return server->status().connections.empty(); }));
  Client& writer = client();
  EXPECT_TRUE(live(writer.mount("a", Mode::replace, all(somePlot()))));
}

TEST_F(HivelServer, turnsAwayWhatIsTooMuch) {
  ServerOptions options = serverOptions(dir);
  options.maxConnections = 2;
  serve(std::move(options));
  Raw a(dir.path("hivel.sock")), b(dir.path("hivel.sock")), c(dir.path("hivel.sock"));
  EXPECT_EQ(closes(c), "the server has its 2 connections");
  EXPECT_EQ(server->status().turnedAway, 1u);
  EXPECT_FALSE(a.receive());
}

// Catches a client that is locked out by its own connection, of which the server has not
// yet noticed the end.
TEST_F(HivelServer, letsAClientComeBackOverItself) {
  serve();
  const Frame::Mount mount{1, Mode::replace, true, "a", "Garden::Plot", "n", 9};
  Raw before(dir.path("hivel.sock"));
  before.send(frameOf(helloOf("raw", 5)) + frameOf(mount));
  loop.run(20ms);
  Raw after(dir.path("hivel.sock"));
  after.send(frameOf(helloOf("raw", 5)) + frameOf(mount));
  EXPECT_EQ(closes(before), "the client has come back on another connection");
  EXPECT_FALSE(after.receive());
  bool isMounted = false;
  while (const auto frame = after.next())
    isMounted = isMounted || frame->front() == static_cast<U8>(FrameKind::mounted);
  EXPECT_TRUE(isMounted);
}

// Catches a socket that is taken over while somebody listens, one that is never taken over,
// and files that stay behind.
TEST_F(HivelServer, listensOnceOnASocket) {
  const auto reason = [&](const std::string& path) -> std::string {
    ServerOptions options;
    options.socketPath = path;
    options.mode = 0600;
    Database other;
    try {
      const Server second(other, options);
      struct stat made;
      EXPECT_EQ(::stat(path.c_str(), &made), 0);
      EXPECT_EQ(made.st_mode & 0777, 0600u);
    } catch (const SocketException& e) {
      return e.what();
    }
    return "listens";
  };
  const std::string path = dir.path("hivel.sock");
  serve();
  EXPECT_EQ(reason(path), "another server listens on " + path);
  // Also one that has lost its lock file, or never had one.
  ::unlink((path + ".lock").c_str());
  EXPECT_EQ(reason(path), "another server listens on " + path);
  loop.remove(server.get());
  server.reset();
  EXPECT_TRUE(dir.names().empty());

  const int stale = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(stale);
  EXPECT_EQ(reason(path), "listens");
  EXPECT_EQ(reason(dir.path("new/deep/x.sock")), "listens");
  EXPECT_EQ(reason("/proc/none/x.sock"), "mkdir /proc/none: No such file or directory");
  EXPECT_EQ(reason(dir.path("new")),
            "bind " + dir.path("new") + ": it exists and is not a socket");
  EXPECT_NE(reason(dir.path(std::string(200, 'x'))).find("at most 107"),
            std::string::npos);
  EXPECT_EQ(dir.names(), std::vector<std::string>{"new"});
}

}  // namespace
}  // namespace HivelTest
