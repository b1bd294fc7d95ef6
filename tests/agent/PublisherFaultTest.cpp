#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <optional>

#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Harness.h"
#include "Hivel/Exception.h"

// What agents do when something else fails, or holds what they need.

namespace AgentTest {
namespace {

template <class Error, class F>
std::string refusalOf(F&& f) {
  try {
    f();
  } catch (const Error& error) {
    return error.what();
  }
  return "taken";
}

// The server may still hold the paths for a process that has gone.
bool connects(std::optional<Publisher>& publisher, const Database& database) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!publisher && std::chrono::steady_clock::now() < end)
    if (refusalOf<Hivel::RefusedException>(
            [&] { publisher.emplace(database.options()); }) != "taken")
      ::usleep(1000);
  return publisher.has_value();
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Two agents that write one table, or one that cannot find out who is in its way.
TEST(PublisherRefused, namesThePathAndWhoHasIt) {
  Database database;
  std::optional<Publisher> first(database.options("one"));
  Publisher second(database.options("two"));
  const std::string pid = "pid " + std::to_string(::getpid());

  std::string text = refusalOf<Hivel::RefusedException>(
      [&] { Publisher again(database.options("one")); });
  EXPECT_TRUE(has(text, "tunnel/tableInfo/one") && has(text, pid)) << text;

  const Path path = pathOf(srTunnel, "a", 2);
  first->pathIs(path);
  for (int attempt = 0; attempt < 2; ++attempt) {
    text = refusalOf<Hivel::RefusedException>([&] { second.pathIs(path); });
    EXPECT_TRUE(has(text, "tunnel/table/srTunnelTable") && has(text, "one") &&
                has(text, pid))
        << text;
  }
  EXPECT_EQ(second.pathCount(), 0u);
  const Path own = pathOf(ldpTunnel, "b");
  second.pathIs(own);
  ASSERT_TRUE(second.finish(patience));
  ASSERT_TRUE(first->finish(patience));
  Reader reader(database);
  ASSERT_TRUE(reader.wait([&] { return reader.directory.tables().size() == 4; }));

  // The table passes to the second agent with the first one's rows, which are stale.
  first.reset();
  ASSERT_TRUE(second.client().wait(
      [&] {
        return refusalOf<Hivel::RefusedException>([&] { second.pathIs(path); }) ==
               "taken";
      },
      patience));
  EXPECT_EQ(second.pathCount(srTunnel), 1u);
}

// A table whose path is free but whose shared memory another process writes.
TEST(PublisherRefused, namesTheProcessThatWritesTheTable) {
  Database database;
  const Quarn::TableWriter<TunnelTableEntry> held(database.shm(srTunnel));
  Publisher publisher(database.options());
  const std::string text =
      refusalOf<Quarn::TableException>([&] { publisher.pathIs(pathOf(srTunnel, "a")); });
  EXPECT_TRUE(has(text, database.shm(srTunnel)) && has(text, std::to_string(::getpid())))
      << text;
  publisher.pathIs(pathOf(ldpTunnel, "a"));
  ASSERT_TRUE(publisher.finish(patience));
  const Path path = pathOf(ldpTunnel, "a");
  EXPECT_EQ(Reader(database).differenceTo({
                {keyOf(path), path}
  }),
            "");
}

TEST(PublisherRefused, saysThatNoServerAnswers) {
  Database database;
  database.kill();
  Publisher::Options options = database.options();
  options.patience = 200ms;
  const std::string text =
      refusalOf<Hivel::RefusedException>([&] { Publisher publisher(options); });
  EXPECT_TRUE(has(text, options.socketPath)) << text;
}

// A path that another agent took while the server was away: going on would split readers
// between two truths.
TEST(PublisherRefused, saysThatAPathWasLost) {
  Database database;
  Publisher first(database.options("one"));
  const Path path = pathOf(srTunnel, "a");
  first.pathIs(path);
  database.kill();
  first.client().process();
  database.start();
  Hivel::ClientOptions options;
  options.socketPath = database.socketPath();
  options.name = "intruder";
  Hivel::Client other(options);
  Hivel::MountOptions mount;
  mount.entity = tunnelTableBaseFactory("srTunnelTable");
  other.mountAndWait("tunnel/table/srTunnelTable", Hivel::Mode::replace, mount, patience);
  std::string text;
  EXPECT_TRUE(first.client().wait(
      [&] {
        text = refusalOf<Hivel::RefusedException>([&] { first.pathIs(path); });
        return text != "taken";
      },
      patience));
  EXPECT_TRUE(has(text, "tunnel/table/srTunnelTable") && has(text, "intruder")) << text;
}

// New kinds and paths while there is no server, which are to be there when it comes back.
TEST(PublisherFault, goesOnWithoutAServer) {
  Database database;
  Publisher publisher(database.options());
  Model model;
  const auto tell = [&](const Path& path) {
    publisher.pathIs(path);
    model[keyOf(path)] = path;
  };
  tell(pathOf(srTunnel, "before", 2));
  database.kill();
  publisher.client().wait(
      [&] { return publisher.client().state() == Hivel::Client::State::lost; }, patience);
  tell(pathOf(srTunnel, "before", 3, 1));
  tell(pathOf(ldpTunnel, "meanwhile", 1));
  EXPECT_FALSE(publisher.finish(50ms));
  database.start();
  ASSERT_TRUE(publisher.finish(patience));
  EXPECT_EQ(Reader(database).differenceTo(model), "");
}

// No room in the table: a name without a row, hops that nobody leads to, an index that is
// lost, or a path that is gone instead of unchanged.
TEST(PublisherFault, aFullTableChangesNothing) {
  Database database;
  Publisher publisher(database.options());
  Model model;
  const auto tell = [&](const Path& path) {
    publisher.pathIs(path);
    model[keyOf(path)] = path;
  };
  tell(pathOf(srTunnel, "first", 2));
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{}, limit{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  limit = before;
  limit.rlim_cur = 4096;  // shared memory grows no more
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  U32 count = 0;
  std::string text = "taken";
  for (; text == "taken" && count < 200'000; ++count) {
    const Path path = pathOf(srTunnel, "path " + std::to_string(count), 1, count);
    text = refusalOf<Quarn::TableException>([&] { tell(path); });
  }
  // Longer rows find no room either, in a while.
  std::string longer = "taken";
  for (U32 i = 0; longer == "taken" && i < 200'000; ++i) {
    const std::string name = std::string(100, 'x') + std::to_string(i);
    longer =
        refusalOf<Quarn::TableException>([&] { tell(pathOf(srTunnel, name, 2, i)); });
  }
  // Nor do changed ones, which are not written where they stand.
  std::string changed = "taken";
  for (U32 i = 2; changed == "taken" && i < 400 && i <= count; ++i) {
    const std::string name = "path " + std::to_string(count - i);
    changed =
        refusalOf<Quarn::TableException>([&] { tell(pathOf(srTunnel, name, 3, 7 + i)); });
  }
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_TRUE(has(changed, database.shm(srTunnel))) << changed;
  EXPECT_TRUE(has(text, database.shm(srTunnel))) << text << " after " << count;
  EXPECT_TRUE(has(longer, database.shm(srTunnel))) << longer;
  const Path last = pathOf(srTunnel, "path " + std::to_string(count - 1), 1, count - 1);
  EXPECT_EQ(publisher.idOf(srTunnel, last.name), TunnelId());
  ASSERT_TRUE(publisher.finish(patience));
  Reader reader(database);
  EXPECT_EQ(reader.differenceTo(model), "");
  tell(last);
  ASSERT_TRUE(publisher.finish(patience));
  EXPECT_EQ(reader.differenceTo(model), "");
}

// State that no agent leaves, or that two agents left: a row that nobody finds by its name,
// one identifier or group that two paths own, an assertion over what another process wrote.
TEST(PublisherFault, takesOverOnlyWhatAPathCanHave) {
  Database database;
  const Path good = pathOf(srTunnel, "good", 2), other = pathOf(srTunnel, "other", 0, 3);
  const Path twin = pathOf(srTunnel, "twin", 1, 1);
  using Rows = Quarn::TableWriter<TunnelTableEntry>;
  const auto idOf = [](U64 index) {
    return TunnelId(TunnelId::convertToTunnelValue(srTunnel, index));
  };
  const auto rowIs = [&](Rows& rows, TunnelId key, TunnelId id, const Path& path,
                         TunnelId hop = TunnelId()) {
    TunnelTableEntry row(
        id, TunnelEntryPref(TunnelEntryPref::getDefaultPrefForType(srTunnel)));
    row.nexthopTunnelIdIs(hop);
    row.entryMetricIs(path.metric);
    row.tepIs(path.endpoint);
    row.setName(path.name);
    rows.rowIs(key.value(), row);
  };
  {
    Rows rows(database.shm(srTunnel));
    rowIs(rows, idOf(3), idOf(3), good, Agent::nextHopId(7, 0));
    rowIs(rows, idOf(4), idOf(5), pathOf(srTunnel, "key"));
    rowIs(rows, idOf(6), TunnelId(TunnelId::convertToTunnelValue(ldpTunnel, 6)),
          pathOf(srTunnel, "type"));
    rowIs(rows, idOf(0), idOf(0), pathOf(srTunnel, "zero"));
    rowIs(rows, idOf(U64{1} << 42), idOf(U64{1} << 42), pathOf(srTunnel, "huge"));
    rowIs(rows, idOf(8), idOf(8), pathOf(srTunnel, ""));
    rowIs(rows, idOf(9), idOf(9), other, Agent::nextHopId(8, 1));  // not a first hop
    rowIs(rows, idOf(10), idOf(10), good);
  }
  {
    Hivel::ClientOptions options;
    options.socketPath = database.socketPath();
    Hivel::Client client(options);
    const auto mount = [&](const std::string& path, Kop::Ptr<Kop::Entity> entity) {
      Hivel::MountOptions given;
      given.entity = entity;
      client.mountAndWait(path, Hivel::Mode::replace, given, patience);
    };
    const auto info = tunnelTableInfoCollectionFactory("one");
    info->tableInfoIs(TunnelTableInfo("srTunnelTable", "srTunnel"));
    info->tableInfoIs(TunnelTableInfo("ldpTunnelTable", "srTunnel"));
    info->tableInfoIs(TunnelTableInfo("nonsense", "no type"));
    mount(Agent::tableInfoPath("one"), info);
    const auto names = protocolTunnelNameStatusFactory("one");
    const auto status = names->localTunnelNameStatusIs(srTunnel);
    status->tunnelNameToIdIs("good", idOf(3));
    status->tunnelNameToIdIs("ghost", idOf(77));
    status->tunnelIdToNameIs(idOf(10), "good");
    status->tunnelIdToNameIs(idOf(9), "another");
    status->tunnelIdNamePairIs(TunnelIdNamePair(idOf(3), "gone"));
    names->localTunnelNameStatusIs(static_cast<TunnelType>(29))
        ->addTunnelIdNamePair(idOf(1), "nobody's");
    mount(Agent::tunnelNamePath("one"), names);
    const auto hops = nexthopTunnelTableFactory("nexthopTunnelTable-one");
    hops->nextAvailableIndexIs(0xffffffff);
    const auto hopIs = [&](U32 group, U32 hop, const NextHop& of) {
      NexthopTunnelL3Info l3;
      l3.groupTypeIs(Tunnel::TunnelTable::mpls);
      l3.destinationIpIs(of.address);
      l3.l3IntfIs(of.intf);
      l3.mplsLabelStackIs(of.labels);
      hops->entryIs(Agent::nextHopId(group, hop), l3);
    };
    hopIs(7, 0, good.nextHops[0]);
    hopIs(7, 1, good.nextHops[1]);
    hopIs(7, 3, good.nextHops[1]);  // behind a gap
    hopIs(9, 0, good.nextHops[0]);  // of no row
    hopIs(0xffffffff, 255, good.nextHops[0]);
    hops->entryIs(TunnelId(), {});
    mount(Agent::nexthopTablePath("one"), hops);
    ASSERT_TRUE(client.syncAndWait(patience));
  }
  std::optional<Publisher> publisher;
  ASSERT_TRUE(connects(publisher, database));
  ASSERT_TRUE(publisher->finish(patience));
  Reader reader(database);
  EXPECT_EQ(reader.differenceTo({
                {keyOf(good),  good },
                {keyOf(other), other}
  }),
            "");
  EXPECT_EQ(publisher->idOf(srTunnel, "good"), idOf(3));

  publisher.reset();
  {
    Rows rows(database.shm(srTunnel));
    rowIs(rows, idOf(12), idOf(12), twin, Agent::nextHopId(7, 0));
  }
  ASSERT_TRUE(connects(publisher, database));
  EXPECT_EQ(publisher->pathIs(twin), idOf(12));
  EXPECT_EQ(publisher->pathIs(good), idOf(3));
  EXPECT_EQ(publisher->sweep(), 1u);
  EXPECT_EQ(publisher->pathIs(other), idOf(1));
  ASSERT_TRUE(publisher->finish(patience));
  EXPECT_EQ(reader.differenceTo({
                {keyOf(good),  good },
                {keyOf(other), other},
                {keyOf(twin),  twin }
  }),
            "");
}

// Waits until somebody has written to the table.
bool changesBeyond(const std::string& shm, U64 count) {
  const auto end = std::chrono::steady_clock::now() + patience;
  for (; std::chrono::steady_clock::now() < end; ::usleep(500)) {
    try {
      if (Agent::TableReader(shm).changeCount() > count) return true;
    } catch (const Quarn::TableException&) {
      // not made yet
    }
  }
  return false;
}

// What the next test runs anew: a copy of a process would draw the identities of its entities
// once more.
TEST(PublisherFault, DISABLED_publishesUntilItIsKilled) {
  Publisher::Options options;
  options.socketPath = std::getenv("AGENT_SOCKET");
  options.agent = "one";
  std::minstd_rand random(static_cast<U32>(std::stoul(std::getenv("AGENT_SEED"))));
  Publisher publisher(options);
  for (;;) {
    const Path path = randomPath(random);
    if (random() % 4 == 0)
      publisher.pathDel(path.type, path.name);
    else
      publisher.pathIs(path);
    if (random() % 8 == 0) publisher.client().process();
  }
}

// An agent that is killed at any point: rows are ahead of what the database has got of it.
// The next one goes on with their identifiers, and its sweep leaves what was told again.
TEST(PublisherFault, isTakenOverAfterAKill) {
  constexpr U32 seed = 7;
  SCOPED_TRACE(seed);
  std::minstd_rand random(seed);
  Database database;
  U64 changes = 0;
  for (U32 round = 0; round < 15; ++round) {
    SCOPED_TRACE(round);
    const std::string childSeed = std::to_string(random());
    const pid_t child = forkedRun([&] {
      ::setenv("AGENT_SOCKET", database.socketPath().c_str(), 1);
      ::setenv("AGENT_SEED", childSeed.c_str(), 1);
      ::execl("/proc/self/exe", "agent", "--gtest_also_run_disabled_tests",
              "--gtest_filter=*publishesUntilItIsKilled", "--gtest_brief=1", nullptr);
    });
    EXPECT_TRUE(changesBeyond(database.shm(srTunnel), changes));
    ::usleep(static_cast<useconds_t>(random() % 20'000));
    killAndWait(child);

    std::optional<Publisher> publisher;
    ASSERT_TRUE(connects(publisher, database));
    EXPECT_EQ(publisher->staleCount(), publisher->pathCount());
    std::map<Model::key_type, U64> adopted;
    for (U32 type = 0; type <= maxTunnelType; ++type) {
      if (!publisher->tableStats(static_cast<TunnelType>(type))) continue;
      Agent::TableReader(database.shm(static_cast<TunnelType>(type)))
          .forEachRow([&](U64, const TunnelTableEntry& row) {
            adopted[{row.tunnelId().tunnelType(), std::string(row.getName())}] =
                row.tunnelId().tunnelIndex();
          });
    }
    EXPECT_EQ(adopted.size(), publisher->pathCount());
    Model model;
    for (U32 i = 0; i < 20; ++i) {
      const Path path = randomPath(random);
      const TunnelId id = publisher->pathIs(path);
      if (const auto at = adopted.find(keyOf(path)); at != adopted.end()) {
        EXPECT_EQ(id.tunnelIndex(), at->second);
      }
      model[keyOf(path)] = path;
    }
    publisher->sweep();
    ASSERT_TRUE(publisher->finish(patience));
    Reader reader(database);
    ASSERT_EQ(reader.differenceTo(model), "");
    changes = Agent::TableReader(database.shm(srTunnel)).changeCount();
  }
}

}  // namespace
}  // namespace AgentTest
