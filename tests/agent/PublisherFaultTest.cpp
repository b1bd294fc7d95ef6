#include <csignal>

#include <sys/resource.h>
#include <unistd.h>

#include "Harness.h"
#include "Hivel/Exception.h"
#include "tests/Support/Testing.h"

// What agents do when something else fails, or holds what they need.

namespace AgentTest {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using Rows = Quarn::TableWriter<TunnelTableEntry>;

template <class F>
std::string refusalOf(F&& f) {
  try {
    f();
  } catch (const Kop::Exception& error) {
    return error.what();
  }
  return "taken";
}

// Bytes that are no entry, in a table of entries.
struct Scrap {
  static constexpr std::string_view tableKind = Quarn::tableKind<TunnelTableEntry>();
  U32 serializeLen() const { return 3; }
  void serialize(void* to) const { std::memcpy(to, "\7\7\7", 3); }
  void deserialize(const void*, U32) {}
  U32 deserializeLen(const void*, U32) const { return 3; }
};

class PublisherFault : public Agents {
 protected:
  void tamper(std::minstd_rand& random);
  // What stands in the tables, whoever wrote it.
  std::map<PathKey, U64> indicesFound() const {
    std::map<PathKey, U64> found;
    for (const TunnelType type : typesOfPaths)
      try {
        Agent::TableReader(shm(type)).forEachRow([&](U64, const TunnelTableEntry& row) {
          EXPECT_FALSE(row.getName().empty());
          found[{type, std::string(row.getName())}] = row.tunnelId().tunnelIndex();
        });
      } catch (const Quarn::TableException&) {
        // Not made yet.
      }
    return found;
  }
};

// Leaves what no agent leaves, or what two agents do: rows under other keys, of other types,
// twice by name or by group, without a name or readable bytes, hops and names that are not
// those of the rows.
void PublisherFault::tamper(std::minstd_rand& random) {
  const auto below = [&](U32 n) { return static_cast<U32>(random() >> 8) % n; };
  Hivel::Client client(clientOptions());
  const auto taken = [&](const std::string& path, const auto& entity) {
    client.mountAndWait(path, Hivel::Mode::adopt, {entity, {}, true}, patience);
    return entity;
  };
  const auto info =
      taken(Agent::tableInfoPath("one"), tunnelTableInfoCollectionFactory("one"));
  const auto names =
      taken(Agent::tunnelNamePath("one"), protocolTunnelNameStatusFactory("one"));
  const auto hops = taken(Agent::nexthopTablePath("one"),
                          nexthopTunnelTableFactory("nexthopTunnelTable-one"));
  info->tableInfoIs(TunnelTableInfo("nonsense", "no type"));
  info->tableInfoIs(TunnelTableInfo("otherTable", "srTunnel"));
  names->localTunnelNameStatusIs(static_cast<TunnelType>(29))
      ->tunnelNameToIdIs("nobody's", TunnelId());
  for (const TunnelType type : typesOfPaths)
    info->tableInfoIs(
        TunnelTableInfo(Agent::tableNameOf(type), Agent::tableTypeOf(type)));
  for (int i = 0; i < 60; ++i) {
    Path path = randomPath(random);
    const TunnelType type = below(4) == 0 ? typesOfPaths[0] : path.type;
    const auto anyId = [&] {
      return TunnelId(TunnelId::convertToTunnelValue(
          path.type, below(20) == 0 ? U64{1} << 42 : below(16)));
    };
    const TunnelId id = anyId();
    const TunnelId hop = Agent::nextHopId(below(20) == 0 ? ~0u : below(16), below(4));
    const auto status = names->localTunnelNameStatusIs(type);
    switch (below(8)) {
      case 0: status->tunnelNameToIdIs(path.name, id); break;
      case 1: status->tunnelIdToNameIs(id, path.name); break;
      case 2: status->tunnelIdNamePairIs(TunnelIdNamePair(id, path.name)); break;
      case 3: hops->entryDel(hop); break;
      case 4: hops->entryIs(hop, NexthopTunnelL3Info()); break;
      case 5: Quarn::TableWriter<Scrap>(shm(type)).rowIs(anyId().value(), {}); break;
      default:
        if (below(8) == 0) path.name = "";
        Rows(shm(type)).rowIs((below(4) == 0 ? anyId() : id).value(),
                              Support::rowOf(path, id, below(4) ? hop : TunnelId()));
    }
  }
  hops->nextAvailableIndexIs(below(2) == 0 ? ~0u : below(8));
  ASSERT_TRUE(client.syncAndWait(patience));
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
  const auto tellSecond = [&] { second.pathIs(path); };
  first->pathIs(path);
  EXPECT_THAT(refusalOf(tellSecond), namesFirstAnd("tunnel/table/srTunnelTable"));
  {
    const Rows held(shm(ldpTunnel));  // under a path that is free
    EXPECT_THAT(refusalOf([&] { second.pathIs(pathOf(ldpTunnel, "a")); }),
                AllOf(HasSubstr(shm(ldpTunnel)), HasSubstr(std::to_string(::getpid()))));
  }
  EXPECT_EQ(second.pathCount(), 0u);
  second.pathIs(other);
  ASSERT_TRUE(second.finish(patience) && first->finish(patience));
  const Model seconds = Support::publishedBy("two", clientOptions()).paths;
  EXPECT_TRUE(seconds.size() == 1 && seconds.begin()->second == other);

  // The table passes to the second agent with the first one's rows, which are stale.
  first.reset();
  ASSERT_TRUE(
      second.client().wait([&] { return refusalOf(tellSecond) == "taken"; }, patience));
  EXPECT_EQ(second.pathCount(srTunnel), 1u);

  // What another takes while the server is away is lost: going on would split readers
  // between two truths.
  killDaemon();
  second.client().process();
  startDaemon();
  Hivel::Client intruder(clientOptions("intruder"));
  intruder.mountAndWait("tunnel/table/srTunnelTable", Hivel::Mode::replace,
                        {tunnelTableBaseFactory("srTunnelTable"), {}, true}, patience);
  std::string text = "taken";
  second.client().wait([&] { return (text = refusalOf(tellSecond)) != "taken"; },
                       patience);
  EXPECT_THAT(text,
              AllOf(HasSubstr("tunnel/table/srTunnelTable"), HasSubstr("intruder")));
  killDaemon();
  Publisher::Options nowhere = options();
  nowhere.patience = 100ms;
  EXPECT_THAT(refusalOf([&] { Publisher publisher(nowhere); }), HasSubstr(socket_));
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
  const rlimit narrow{4096, RLIM_INFINITY}, wide{RLIM_INFINITY, RLIM_INFINITY};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &narrow), 0);  // shared memory grows no more
  Path last;
  const auto tellUntilRefused = [&](const std::string& prefix, U32 hops, U32 salt) {
    std::string text = "taken";
    for (U32 i = 0; text == "taken" && i < 200'000; ++i) {
      last = pathOf(srTunnel, prefix + std::to_string(i), hops, i + salt);
      text = refusalOf([&] { tell(last); });
    }
    EXPECT_THAT(text, HasSubstr(shm(srTunnel)));
  };
  tellUntilRefused("path ", 1, 0);
  const Path refused = last;
  tellUntilRefused(std::string(100, 'x'), 2, 0);  // longer rows
  tellUntilRefused("path ", 3, 7);                // changed ones
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &wide), 0);
  EXPECT_EQ(publisher.idOf(srTunnel, refused.name), TunnelId());
  Reader reader(clientOptions());
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(publisher.finish(patience));
    EXPECT_EQ(reader.differenceTo(model), "");
    tell(refused);
  }
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
// The next one goes on with their identifiers, and its sweep leaves what was told again; also
// when somebody else wrote in between.
TEST_F(PublisherFault, isTakenOverAfterAKill) {
  std::minstd_rand random(7);
  ::setenv("AGENT_SOCKET", socket_.c_str(), 1);
  for (U32 round = 0; round < 30; ++round) {
    SCOPED_TRACE(round);
    auto left = indicesFound();
    ::setenv("AGENT_SEED", std::to_string(random()).c_str(), 1);
    const auto child = start("/proc/" + std::to_string(::getpid()) +
                             "/exe --gtest_also_run_disabled_tests "
                             "--gtest_filter='*publishesUntilItIsKilled'");
    EXPECT_TRUE(Support::eventually([&] { return indicesFound() != left; }));
    ::usleep(static_cast<useconds_t>(random() % 20'000));
    child->end(SIGKILL);

    // The server may still hold the paths for the process that has gone.
    std::optional<Publisher> publisher;
    if (round % 2 == 0) {
      left = indicesFound();
    } else {
      ASSERT_TRUE(Support::eventually(
          [&] { return refusalOf([&] { tamper(random); }) == "taken"; }));
    }
    ASSERT_TRUE(Support::eventually(
        [&] { return refusalOf([&] { publisher.emplace(options()); }) == "taken"; }));
    const auto adopted = indicesFound();
    if (round % 2 == 0) {
      EXPECT_EQ(adopted, left);
    }
    EXPECT_EQ(adopted.size(), publisher->pathCount());
    EXPECT_EQ(publisher->staleCount(), publisher->pathCount());
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
