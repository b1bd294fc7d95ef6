#include <algorithm>
#include <optional>

#include <gtest/gtest.h>

#include "Harness.h"
#include "Hivel/Exception.h"
#include "Kop/Exception.h"

namespace AgentTest {
namespace {

constexpr U32 seed = 20261121;

template <class T>
Kop::Ptr<T> entityOf(Publisher& publisher, const std::string& path) {
  return Kop::Ptr<T>(static_cast<T*>(publisher.client().find(path)->entity().get()));
}

// Looks into the tables whenever a next hop comes or goes: no row may name one that is not
// there.
struct NoRowWithoutHops : Kop::Reactor<NexthopTunnelTable> {
  NoRowWithoutHops(const Kop::Ptr<NexthopTunnelTable>& table, const Database& database)
      : Reactor(table), database(database) {}
  void entryReaction(const TunnelId&) override {
    ++told;
    for (const TunnelType type : {srTunnel, ldpTunnel, srTePolicyTunnel, rsvpLerTunnel}) {
      auto& reader = readers[type];
      try {
        if (!reader) reader.emplace(database.shm(type));
      } catch (const Quarn::TableException&) {
        continue;  // not made yet
      }
      reader->forEachRow([&](U64, const TunnelTableEntry& row) {
        const TunnelId first = row.nexthopTunnelId();
        EXPECT_TRUE(!first.isValid() || notifier()->entryHas(first));
      });
    }
  }
  const Database& database;
  std::map<TunnelType, std::optional<Agent::TableReader>> readers{};
  U32 told = 0;
};

// A source with its agent, and what the agent must have made of it.
struct Source {
  explicit Source(const Database& database) : database(database) { restart(); }
  void restart() {
    publisher.reset();
    publisher.emplace(database.options());
    fresh.clear();
  }

  void tell(const Path& path) {
    const auto key = keyOf(path);
    const TunnelId before = publisher->idOf(path.type, path.name);
    const TunnelId id = publisher->pathIs(path);
    const U32 index = static_cast<U32>(id.tunnelIndex());
    auto& used = indices[path.type];
    ASSERT_EQ(id.tunnelType(), path.type);
    if (model.contains(key)) {
      ASSERT_EQ(index, before.tunnelIndex());
    } else {
      ASSERT_EQ(before, TunnelId());
      U32 lowest = 1;
      while (used.contains(lowest))
        ++lowest;
      ASSERT_EQ(index, lowest);
      used.insert(index);
    }
    model[key] = path;
    fresh.insert(key);
  }
  void forget(const Path& path) {
    const auto key = keyOf(path);
    const TunnelId id = publisher->idOf(path.type, path.name);
    ASSERT_EQ(publisher->pathDel(path.type, path.name), model.erase(key) != 0);
    indices[path.type].erase(static_cast<U32>(id.tunnelIndex()));
    fresh.erase(key);
  }
  void mark() {
    publisher->mark();
    fresh.clear();
  }
  void sweep() {
    ASSERT_EQ(publisher->staleCount(), model.size() - fresh.size());
    const U64 stale = std::erase_if(model, [&](const auto& told) {
      if (fresh.contains(told.first)) return false;
      const TunnelId id = publisher->idOf(told.first.first, told.first.second);
      indices[told.first.first].erase(static_cast<U32>(id.tunnelIndex()));
      return true;
    });
    ASSERT_EQ(publisher->sweep(), stale);
  }

  const Database& database;
  std::optional<Publisher> publisher;
  Model model;
  std::set<Model::key_type> fresh;
  std::map<TunnelType, std::set<U32>> indices;
};

// Any way in which rows, hops, names, directory, identifiers and the RIB part from what the
// source told: through changes, sweeps, restarts of the agent and a lost database.
TEST(PublisherModel, agreesWithWhatWasTold) {
  SCOPED_TRACE(seed);
  std::minstd_rand random(seed);
  Database database;
  Source source(database);
  Reader reader(database);
  for (U32 batch = 0; batch < 40; ++batch) {
    SCOPED_TRACE(batch);
    if (batch % 10 == 9) {
      source.restart();
    } else if (batch % 20 == 14) {
      database.kill();
      database.start();
    }
    NoRowWithoutHops watch(
        entityOf<NexthopTunnelTable>(*source.publisher, Agent::nexthopTablePath("one")),
        database);
    for (U32 step = 0; step < 50; ++step) {
      const U32 choice = static_cast<U32>(random()) % 100;
      if (choice < 70)
        source.tell(randomPath(random));
      else if (choice < 96)
        source.forget(randomPath(random));
      else if (choice < 98)
        source.mark();
      else
        source.sweep();
      if (testing::Test::HasFatalFailure()) return;
    }
    ASSERT_TRUE(source.publisher->finish(patience));
    ASSERT_EQ(reader.differenceTo(source.model), "");
    ASSERT_EQ(source.publisher->pathCount(), source.model.size());
    EXPECT_GT(watch.told, 0u);
  }
}

struct Counter : Kop::Notifiee {
  void onAttribute(Kop::AttributeId) override { ++told; }
  void onAttribute(Kop::AttributeId, const void*) override { ++told; }
  U32 told = 0;
};

// A refresh of the source that costs every reader a change per path.
TEST(Publisher, equalPathsAreSilent) {
  Database database;
  Publisher publisher(database.options());
  const auto tell = [&](U32 salt) {
    for (U32 i = 0; i < 50; ++i)
      publisher.pathIs(pathOf(srTunnel, "path " + std::to_string(i), i % 4, i + salt));
  };
  tell(0);
  const auto hops =
      entityOf<NexthopTunnelTable>(publisher, Agent::nexthopTablePath("one"));
  const auto names =
      entityOf<ProtocolTunnelNameStatus>(publisher, Agent::tunnelNamePath("one"));
  const auto info =
      entityOf<TunnelTableInfoCollection>(publisher, Agent::tableInfoPath("one"));
  const Agent::TableReader rows(database.shm(srTunnel));
  Counter counter;
  const std::vector<Kop::Entity*> watched = {
      hops.get(), names.get(), names->localTunnelNameStatus(srTunnel).get(), info.get()};
  for (Kop::Entity* entity : watched)
    entity->notifieeAdd(&counter);
  const U64 changes = rows.changeCount();
  for (U32 round = 0; round < 3; ++round) {
    publisher.mark();
    tell(0);
    EXPECT_EQ(publisher.sweep(), 0u);
  }
  EXPECT_EQ(counter.told, 0u);
  EXPECT_EQ(rows.changeCount(), changes);
  tell(1);
  EXPECT_GT(counter.told, 0u);
  EXPECT_GT(rows.changeCount(), changes);
  for (Kop::Entity* entity : watched)
    entity->notifieeDel(&counter);
}

// A path that is half told, or told in a form in which nobody finds it again.
TEST(Publisher, refusesWhatIsNoPath) {
  Database database;
  Publisher publisher(database.options());
  publisher.pathIs(pathOf(srTunnel, "there", 2));
  Reader reader(database);
  Path v6 = pathOf(ldpTunnel, "v6");
  v6.ipv6 = true;
  const struct {
    const char* what;
    Path path;
  } rows[] = {
      {"needs a name", pathOf(srTunnel, "")                                  },
      {"129 bytes",    pathOf(srTunnel, std::string(129,                       'x'))},
      {"257 next hops",              pathOf(srTunnel,               "there",                        257)},
      {"IPv4 alone",          v6                        },
      {"rsvpTunnel",              pathOf(rsvpTunnel,"a")                           },
      {"nexthopTunnel",              pathOf(nexthopTunnel,               "a")},
      {"25",              pathOf(static_cast<TunnelType>(25),                          "a")},
      {"4294967295",              pathOf(static_cast<TunnelType>(0xffffffff),                  "a")               },
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    try {
      publisher.pathIs(row.path);
      ADD_FAILURE() << "taken";
    } catch (const Kop::RangeException& error) {
      EXPECT_NE(std::string(error.what()).find(row.what), std::string::npos)
          << error.what();
    }
    EXPECT_FALSE(publisher.pathDel(row.path.type, "a"));
  }
  const Path there = pathOf(srTunnel, "there", 2);
  ASSERT_TRUE(publisher.finish(patience));
  EXPECT_EQ(reader.differenceTo({
                {keyOf(there), there}
  }),
            "");
}

// Convergence that is told before the database has what it is about, is not taken back, or
// starts from nothing again.
TEST(Publisher, raisesConvergenceBehindWhatWasTold) {
  Database database;
  std::optional<Publisher> publisher(database.options());
  Reader reader(database);
  const TunnelRibId system(TunnelRibId::systemTunnelRibId);
  const TunnelRibId coloured(TunnelRibId::systemColoredTunnelRibId);
  const auto arrives = [&](bool isConverged, U64 ofSystem, U64 ofColoured) {
    return reader.wait([&] {
      const auto rib = reader.directory.tunnelConvergence("one");
      const auto lu = reader.directory.bgpLuConvergence("one");
      return rib && lu && lu->bgpLuConverged() == isConverged &&
             lu->bgpLuConvergenceSeqno() == ofSystem &&
             rib->tunnelRibConvergenceSeqno(system) == ofSystem &&
             rib->tunnelRibConvergenceSeqno(coloured) == ofColoured;
    });
  };
  publisher->pathIs(pathOf(srTunnel, "a"));
  publisher->converged();
  const auto lu =
      entityOf<BgpLuConvergence>(*publisher, Agent::bgpLuConvergencePath("one"));
  EXPECT_FALSE(lu->bgpLuConverged());  // the server knows nothing of the path yet
  EXPECT_FALSE(publisher->drained());
  ASSERT_TRUE(publisher->finish(patience));
  EXPECT_TRUE(publisher->drained());
  EXPECT_TRUE(arrives(true, 1, 0));

  publisher->converged();
  publisher->mark();  // before the server answers
  ASSERT_TRUE(publisher->finish(patience));
  EXPECT_TRUE(arrives(false, 1, 0));

  publisher->pathIs(pathOf(srTePolicyTunnel, "policy"));
  publisher->converged();
  ASSERT_TRUE(publisher->finish(patience));
  EXPECT_TRUE(arrives(true, 2, 2));

  publisher.reset();
  publisher.emplace(database.options());
  ASSERT_TRUE(publisher->finish(patience));
  EXPECT_TRUE(arrives(false, 2, 2));
  publisher->converged();
  ASSERT_TRUE(publisher->finish(patience));
  EXPECT_TRUE(arrives(true, 3, 3));
}

// What an agent leaves behind that was to leave nothing.
TEST(Publisher, withdrawLeavesNothing) {
  Database database;
  Publisher publisher(database.options());
  publisher.pathIs(pathOf(srTunnel, "a"));
  publisher.pathIs(pathOf(ldpTunnel, "b"));
  ASSERT_TRUE(publisher.finish(patience));
  Reader reader(database);
  ASSERT_TRUE(reader.wait([&] { return reader.directory.tables().size() == 3; }));
  ASSERT_TRUE(publisher.withdraw(patience));
  EXPECT_THROW(publisher.pathIs(pathOf(srTunnel, "a")), Kop::InternalException);
  EXPECT_TRUE(publisher.client().listAndWait("tunnel", patience).empty());
  EXPECT_THROW(Agent::TableReader(database.shm(srTunnel)), Quarn::TableException);
  EXPECT_TRUE(reader.wait([&] { return reader.directory.agents().empty(); }));
  EXPECT_FALSE(reader.rib.update().size() + reader.rib.rowCount() > 0);
  Publisher again(database.options());
  EXPECT_EQ(again.pathCount(), 0u);
}

}  // namespace
}  // namespace AgentTest
