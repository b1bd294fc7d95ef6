#include "Harness.h"
#include "Hivel/Exception.h"
#include "Kop/Exception.h"
#include "tests/Support/Testing.h"

namespace AgentTest {
namespace {

using PublisherModel = Agents;

// Looks into the tables whenever a next hop comes or goes: no row may name one that is not
// there.
struct NoRowWithoutHops : Kop::Reactor<NexthopTunnelTable> {
  NoRowWithoutHops(Publisher& publisher, const Agents& agents)
      : Reactor(Kop::Ptr(static_cast<NexthopTunnelTable*>(
            publisher.client().find(Agent::nexthopTablePath("one"))->entity().get()))),
        publisher(publisher),
        agents(agents) {}
  void entryReaction(const TunnelId&) override {
    ++told;
    for (const TunnelType type : typesOfPaths) {
      auto& reader = readers[type];
      if (!publisher.tableStats(type)) continue;
      if (!reader) reader.emplace(agents.shm(type));
      reader->forEachRow([&](U64, const TunnelTableEntry& row) {
        const TunnelId first = row.nexthopTunnelId();
        EXPECT_TRUE(!first.isValid() || notifier()->entryHas(first));
      });
    }
  }
  Publisher& publisher;
  const Agents& agents;
  std::map<TunnelType, std::optional<Agent::TableReader>> readers{};
  U32 told = 0;
};

// A source with its agent, and what the agent must have made of it.
struct Source {
  explicit Source(const Agents& agents) : agents(agents) { restart(); }
  void restart() {
    watch.reset();
    publisher.reset();
    publisher.emplace(agents.options());
    watch.emplace(*publisher, agents);
    fresh.clear();
  }
  void tell(const Path& path) {
    const PathKey key = keyOf(path);
    const TunnelId before = publisher->idOf(path.type, path.name);
    const TunnelId id = publisher->pathIs(path);
    auto& used = indices[path.type];
    U64 index = 1;  // the lowest that is free
    while (used.contains(index))
      ++index;
    ASSERT_EQ(id.tunnelType(), path.type);
    ASSERT_EQ(before.isValid(), model.contains(key));
    ASSERT_EQ(id.tunnelIndex(), before.isValid() ? before.tunnelIndex() : index);
    used.insert(id.tunnelIndex());
    model[key] = path;
    fresh.insert(key);
  }
  void forget(const PathKey& key) {
    const TunnelId id = publisher->idOf(key.first, key.second.c_str());
    ASSERT_EQ(publisher->pathDel(key.first, key.second.c_str()), model.erase(key) != 0);
    indices[key.first].erase(id.tunnelIndex());
    fresh.erase(key);
  }
  void mark() {
    publisher->mark();
    fresh.clear();
  }
  void sweep() {
    ASSERT_EQ(publisher->staleCount(), model.size() - fresh.size());
    const U64 stale = std::erase_if(model, [&](const auto& told) {
      const auto& [type, name] = told.first;
      if (fresh.contains(told.first)) return false;
      indices[type].erase(publisher->idOf(type, name.c_str()).tunnelIndex());
      return true;
    });
    ASSERT_EQ(publisher->sweep(), stale);
  }

  const Agents& agents;
  std::optional<Publisher> publisher;
  std::optional<NoRowWithoutHops> watch;
  Model model{};
  std::set<PathKey> fresh{};
  std::map<TunnelType, std::set<U64>> indices{};
};

// A path that is half told, or told in a form in which nobody finds it again.
void expectRefusals(Publisher& publisher) {
  Path v6 = pathOf(ldpTunnel, "v6");
  v6.ipv6 = true;
  const auto odd = [](U32 type) { return pathOf(static_cast<TunnelType>(type), "a"); };
  const struct {
    const char* what;
    Path path;
  } rows[] = {
      {"needs a name",      pathOf(srTunnel, "")},
      {"129 bytes",                   pathOf(srTunnel,                        std::string(129, 'x'))},
      {"257 next hops",    pathOf(srTunnel,"path x", 257)},
      {"IPv4 alone",     v6 },
      {"rsvpTunnel",               odd(rsvpTunnel)                             },
      {"nexthopTunnel",             odd(nexthopTunnel)                          },
      {"25",odd(25)},
      {"4294967295",odd(0xffffffff)},
  };
  for (const auto& row : rows) {
    EXPECT_THAT(
        [&] { publisher.pathIs(row.path); },
        testing::ThrowsMessage<Kop::RangeException>(testing::HasSubstr(row.what)));
    EXPECT_FALSE(publisher.pathDel(row.path.type, "a"));
  }
}

// Any way in which rows, hops, names, directory, identifiers and the RIB part from what the
// source told: through changes, refusals, sweeps, restarts of the agent, and while there is no
// database, which is also when the first path of a kind is told.
TEST_F(PublisherModel, agreesWithWhatWasTold) {
  std::minstd_rand random(20261121);
  Source source(*this);
  Reader reader(clientOptions());
  for (U32 batch = 0; batch < 40; ++batch) {
    SCOPED_TRACE(batch);
    Hivel::Client& client = source.publisher->client();
    const bool isLost = batch % 13 == 0;
    if (isLost) {
      killDaemon();
      ASSERT_TRUE(client.wait(
          [&] { return client.state() == Hivel::Client::State::lost; }, patience));
    } else if (batch % 10 == 9) {
      source.restart();
    }
    for (U32 step = 0; step < 50; ++step) {
      const U32 choice = static_cast<U32>(random()) % 100;
      if (choice < 70)
        source.tell(randomPath(random));
      else if (choice < 96)
        source.forget(keyOf(randomPath(random)));
      else if (choice < 98)
        source.mark();
      else
        source.sweep();
      if (HasFatalFailure()) return;
    }
    expectRefusals(*source.publisher);
    if (isLost) {
      EXPECT_FALSE(source.publisher->finish(20ms));
      startDaemon();
    }
    ASSERT_TRUE(source.publisher->finish(patience));
    ASSERT_EQ(reader.differenceTo(source.model), "");
    ASSERT_EQ(source.publisher->pathCount(), source.model.size());
    EXPECT_GT(source.watch->told, 0u);
    // A source that tells everything again costs no reader a change of an entity or a row.
    const auto changes = [&] {
      EXPECT_TRUE(source.publisher->finish(patience));
      U64 count = 0;
      for (const auto& each :
           source.publisher->client().statusAndWait(patience).connections)
        count += each.messagesIn;
      for (const TunnelType type : typesOfPaths)
        if (source.publisher->tableStats(type))
          count += Agent::TableReader(shm(type)).changeCount();
      return count;
    };
    const U64 before = changes();
    EXPECT_GT(before, 0u);
    source.mark();
    for (const auto& [key, path] : Model(source.model))
      source.tell(path);
    source.sweep();
    EXPECT_EQ(changes(), before);
  }

  // What is to leave nothing.
  source.tell(pathOf(srTunnel, "a"));
  ASSERT_TRUE(source.publisher->withdraw(patience));
  EXPECT_THROW(source.publisher->pathIs(pathOf(srTunnel, "a")), Kop::InternalException);
  EXPECT_TRUE(source.publisher->client().listAndWait("tunnel", patience).empty());
  EXPECT_THROW(Agent::TableReader(shm(srTunnel)), Quarn::TableException);
  EXPECT_TRUE(reader.wait([&] { return reader.directory.agents().empty(); }));
  reader.rib.update();
  EXPECT_EQ(reader.rib.rowCount(), 0u);
  source.restart();
  EXPECT_EQ(source.publisher->pathCount(), 0u);
}

// Convergence that is told before the database has what it is about, is not taken back, or
// starts from nothing again.
TEST_F(PublisherModel, raisesConvergenceBehindWhatWasTold) {
  std::optional<Publisher> publisher(options());
  Reader reader(clientOptions());
  const auto finishedAs = [&](bool isConverged, U64 system, U64 coloured) {
    return publisher->finish(patience) && reader.wait([&] {
      const auto rib = reader.directory.tunnelConvergence("one");
      const auto lu = reader.directory.bgpLuConvergence("one");
      const auto of = [&](auto id) {
        return rib->tunnelRibConvergenceSeqno(TunnelRibId(id));
      };
      return rib && lu && lu->bgpLuConverged() == isConverged &&
             lu->bgpLuConvergenceSeqno() == system &&
             of(TunnelRibId::systemTunnelRibId) == system &&
             of(TunnelRibId::systemColoredTunnelRibId) == coloured;
    });
  };
  publisher->pathIs(pathOf(srTunnel, "a"));
  publisher->converged();
  EXPECT_FALSE(publisher->drained());  // the server knows nothing of the path yet
  EXPECT_TRUE(finishedAs(true, 1, 0));
  EXPECT_TRUE(publisher->drained());

  publisher->converged();
  publisher->mark();  // before the server answers
  EXPECT_TRUE(finishedAs(false, 1, 0));

  publisher->pathIs(pathOf(srTePolicyTunnel, "policy"));
  publisher->converged();
  EXPECT_TRUE(finishedAs(true, 2, 2));

  publisher.reset();
  publisher.emplace(options());
  EXPECT_TRUE(finishedAs(false, 2, 2));
  publisher->converged();
  EXPECT_TRUE(finishedAs(true, 3, 3));
}

}  // namespace
}  // namespace AgentTest
