#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>

#include <sys/resource.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "Harness.h"
#include "Hivel/Exception.h"

// What agents do when something else fails, or holds what they need.

namespace AgentTest {
namespace {

using Support::publishedBy;
using testing::AllOf;
using testing::HasSubstr;
using PublisherFault = Agents;
using Rows = Quarn::TableWriter<TunnelTableEntry>;

template <class Error = Hivel::RefusedException, class F>
std::string refusalOf(F&& f) {
  try {
    f();
  } catch (const Error& error) {
    return error.what();
  }
  return "taken";
}

// The server may still hold the paths for a process that has gone.
void connect(std::optional<Publisher>& publisher, const Publisher::Options& options) {
  ASSERT_TRUE(Support::eventually(
      [&] { return refusalOf([&] { publisher.emplace(options); }) == "taken"; }));
}

// Two agents that write one table, and one that cannot find out who is in its way.
TEST_F(PublisherFault, refusalsNameThePathAndWhoHasIt) {
  const std::string pid = "pid " + std::to_string(::getpid());
  std::optional<Publisher> first(options("one"));
  Publisher second(options("two"));
  const auto namesFirstAnd = [&](const char* path) {
    return AllOf(HasSubstr(path), HasSubstr("one"), HasSubstr(pid));
  };
  EXPECT_THAT(refusalOf([&] { Publisher again(options("one")); }),
              namesFirstAnd("tunnel/tableInfo/one"));
  const Path path = pathOf(srTunnel, "a", 2), other = pathOf(rsvpLerTunnel, "b");
  first->pathIs(path);
  for (int attempt = 0; attempt < 2; ++attempt)
    EXPECT_THAT(refusalOf([&] { second.pathIs(path); }),
                namesFirstAnd("tunnel/table/srTunnelTable"));
  {
    const Rows held(shm(ldpTunnel));  // under a path that is free
    EXPECT_THAT(
        refusalOf<Quarn::TableException>([&] { second.pathIs(pathOf(ldpTunnel, "a")); }),
        AllOf(HasSubstr(shm(ldpTunnel)), HasSubstr(std::to_string(::getpid()))));
  }
  EXPECT_EQ(second.pathCount(), 0u);
  second.pathIs(other);
  ASSERT_TRUE(second.finish(patience) && first->finish(patience));
  EXPECT_EQ(publishedBy("two", clientOptions()).paths, Model({
                                                           {keyOf(other), other}
  }));

  // The table passes to the second agent with the first one's rows, which are stale.
  first.reset();
  ASSERT_TRUE(second.client().wait(
      [&] { return refusalOf([&] { second.pathIs(path); }) == "taken"; }, patience));
  EXPECT_EQ(second.pathCount(srTunnel), 1u);

  Publisher::Options nowhere = options();
  nowhere.socketPath = directory_ + "/nowhere";
  nowhere.patience = 100ms;
  EXPECT_THAT(refusalOf([&] { Publisher publisher(nowhere); }),
              HasSubstr(nowhere.socketPath));
}

// A path that another agent took while the server was away: going on would split readers
// between two truths.
TEST_F(PublisherFault, saysThatAPathWasLost) {
  Publisher first(options());
  const Path path = pathOf(srTunnel, "a");
  first.pathIs(path);
  killDaemon();
  first.client().process();
  startDaemon();
  Hivel::Client other(clientOptions("intruder"));
  other.mountAndWait("tunnel/table/srTunnelTable", Hivel::Mode::replace,
                     {tunnelTableBaseFactory("srTunnelTable"), {}, true}, patience);
  std::string text = "taken";
  first.client().wait(
      [&] { return (text = refusalOf([&] { first.pathIs(path); })) != "taken"; },
      patience);
  EXPECT_THAT(text,
              AllOf(HasSubstr("tunnel/table/srTunnelTable"), HasSubstr("intruder")));
}

// No room in the table: a name without a row, hops that nobody leads to, an index that is
// lost, or a path that is gone instead of unchanged.
TEST_F(PublisherFault, aFullTableChangesNothing) {
  Publisher publisher(options());
  Model model;
  const auto tell = [&](const Path& path) {
    publisher.pathIs(path);
    model[keyOf(path)] = path;
  };
  tell(pathOf(srTunnel, "first", 2));
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  rlimit limit = before;
  limit.rlim_cur = 4096;  // shared memory grows no more
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  Path last;
  const auto tellUntilRefused = [&](const std::string& prefix, U32 hops, U32 salt) {
    std::string text = "taken";
    for (U32 i = 0; text == "taken" && i < 200'000; ++i) {
      last = pathOf(srTunnel, prefix + std::to_string(i), hops, i + salt);
      text = refusalOf<Quarn::TableException>([&] { tell(last); });
    }
    EXPECT_THAT(text, HasSubstr(shm(srTunnel)));
  };
  tellUntilRefused("path ", 1, 0);
  const Path refused = last;
  tellUntilRefused(std::string(100, 'x'), 2, 0);  // longer rows
  tellUntilRefused("path ", 3, 7);                // changed ones
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_EQ(publisher.idOf(srTunnel, refused.name), TunnelId());
  Reader reader(clientOptions());
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(publisher.finish(patience));
    EXPECT_EQ(reader.differenceTo(model), "");
    tell(refused);
  }
}

// Bytes that are no entry, in a table of entries.
struct Scrap {
  static constexpr std::string_view tableKind = Quarn::tableKind<TunnelTableEntry>();
  U32 serializeLen() const { return 3; }
  void serialize(void* to) const { std::memcpy(to, "\7\7\7", 3); }
  void deserialize(const void*, U32) {}
  U32 deserializeLen(const void*, U32) const { return 3; }
};

// State that no agent leaves, or that two agents left: a row that nobody finds by its name,
// one identifier or group that two paths own, an assertion over what another process wrote.
TEST_F(PublisherFault, takesOverOnlyWhatAPathCanHave) {
  const Path good = pathOf(srTunnel, "good", 2), other = pathOf(srTunnel, "other", 0, 3);
  const Path twin = pathOf(srTunnel, "twin", 1, 1);
  const auto idOf = [](U64 index, TunnelType type = srTunnel) {
    return TunnelId(TunnelId::convertToTunnelValue(type, index));
  };
  const auto rowIs = [&](Rows& rows, U64 key, TunnelId id, const Path& path,
                         TunnelId hop = TunnelId()) {
    rows.rowIs(idOf(key).value(), Support::rowOf(path, id, hop));
  };
  Quarn::TableWriter<Scrap>(shm(srTunnel)).rowIs(idOf(11).value(), Scrap());
  {
    Rows rows(shm(srTunnel));
    const auto walk = [&] { rows.forEachRow([](U64, const TunnelTableEntry&) {}); };
    EXPECT_THAT(refusalOf<Quarn::TableException>(walk), HasSubstr("it ends early"));
    const U64 huge = U64{1} << 42;
    rowIs(rows, 3, idOf(3), good, Agent::nextHopId(7, 0));
    rowIs(rows, 4, idOf(5), pathOf(srTunnel, "key"));
    rowIs(rows, 6, idOf(6, ldpTunnel), pathOf(srTunnel, "type"));
    rowIs(rows, 0, idOf(0), pathOf(srTunnel, "zero"));
    rowIs(rows, huge, idOf(huge), pathOf(srTunnel, "huge"));
    rowIs(rows, 8, idOf(8), pathOf(srTunnel, ""));
    rowIs(rows, 9, idOf(9), other, Agent::nextHopId(8, 1));  // not a first hop
    rowIs(rows, 10, idOf(10), good);
    Hivel::Client client(clientOptions());
    const auto mount = [&](const std::string& path, Kop::Ptr<Kop::Entity> entity) {
      client.mountAndWait(path, Hivel::Mode::replace, {entity, {}, true}, patience);
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
    const auto hopIs = [&](TunnelId id, U32 of) {
      NexthopTunnelL3Info l3;
      l3.groupTypeIs(Tunnel::TunnelTable::mpls);
      l3.destinationIpIs(good.nextHops[of].address);
      l3.l3IntfIs(good.nextHops[of].intf);
      l3.mplsLabelStackIs(good.nextHops[of].labels);
      hops->entryIs(id, l3);
    };
    hopIs(Agent::nextHopId(7, 0), 0);
    hopIs(Agent::nextHopId(7, 1), 1);
    hopIs(Agent::nextHopId(7, 3), 1);  // behind a gap
    hopIs(Agent::nextHopId(9, 0), 0);  // of no row
    hopIs(Agent::nextHopId(0xffffffff, 255), 0);
    hopIs(TunnelId(), 0);
    mount(Agent::nexthopTablePath("one"), hops);
    ASSERT_TRUE(client.syncAndWait(patience));
  }
  std::optional<Publisher> publisher;
  connect(publisher, options());
  ASSERT_TRUE(publisher->finish(patience));
  Reader reader(clientOptions());
  Model model = {
      {keyOf(good),  good },
      {keyOf(other), other}
  };
  EXPECT_EQ(reader.differenceTo(model), "");
  EXPECT_EQ(publisher->idOf(srTunnel, "good"), idOf(3));

  publisher.reset();
  {
    Rows rows(shm(srTunnel));
    rowIs(rows, 12, idOf(12), twin, Agent::nextHopId(7, 0));
  }
  connect(publisher, options());
  EXPECT_EQ(publisher->pathIs(twin), idOf(12));
  EXPECT_EQ(publisher->pathIs(good), idOf(3));
  EXPECT_EQ(publisher->sweep(), 1u);
  EXPECT_EQ(publisher->pathIs(other), idOf(1));
  ASSERT_TRUE(publisher->finish(patience));
  model[keyOf(twin)] = twin;
  EXPECT_EQ(reader.differenceTo(model), "");
}

// What the next test runs anew: a copy of a process would draw the identities of its entities
// once more.
TEST(PublisherChild, DISABLED_publishesUntilItIsKilled) {
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
TEST_F(PublisherFault, isTakenOverAfterAKill) {
  std::minstd_rand random(7);
  ::setenv("AGENT_SOCKET", socket_.c_str(), 1);
  const auto changeCount = [&] {
    try {
      return Agent::TableReader(shm(srTunnel)).changeCount();
    } catch (const Quarn::TableException&) {
      return U64{0};  // not made yet
    }
  };
  for (U32 round = 0; round < 15; ++round) {
    SCOPED_TRACE(round);
    const U64 changes = changeCount();
    ::setenv("AGENT_SEED", std::to_string(random()).c_str(), 1);
    const auto child = startCommand(
        "/proc/self/exe",
        {"--gtest_also_run_disabled_tests", "--gtest_filter=*publishesUntilItIsKilled"});
    EXPECT_TRUE(Support::eventually([&] { return changeCount() > changes; }));
    ::usleep(static_cast<useconds_t>(random() % 20'000));
    child->end(SIGKILL);

    std::optional<Publisher> publisher;
    connect(publisher, options());
    EXPECT_EQ(publisher->staleCount(), publisher->pathCount());
    std::map<PathKey, U64> adopted;
    for (U32 type = 0; type <= maxTunnelType; ++type) {
      if (!publisher->tableStats(static_cast<TunnelType>(type))) continue;
      Agent::TableReader(shm(static_cast<TunnelType>(type)))
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
    ASSERT_EQ(Reader(clientOptions()).differenceTo(model), "");
  }
}

}  // namespace
}  // namespace AgentTest
