#include "Trace/Trace.h"
#include "Tunnel/TunnelRibId.h"
#include "Tunnel/TunnelTableHivelTypes.h"
#include "tests/Kop/EntityDump.h"
#include "tests/Support/Testing.h"
#include "tests/Tunnel/Samples.h"

namespace Tunnel::TunnelTable {
namespace {

using Samples::Random;

// Takes the lines of a level of the default handle while it lives.
class Lines {
 public:
  explicit Lines(int level) : level_(Trace::defaultHandle().level()) {
    Trace::defaultHandle().levelIs(level);
    before_ = Trace::sinkIs([this](const Trace::Handle&, int at, std::string_view text) {
      lines_.push_back(std::to_string(at) + ' ' + std::string(text));
    });
  }
  ~Lines() {
    Trace::sinkIs(before_);
    Trace::defaultHandle().levelIs(level_);
  }
  Log taken() { return std::exchange(lines_, {}); }

 private:
  int level_;
  Trace::Sink before_;
  Log lines_;
};

TunnelId id(U64 index) {
  return TunnelId(TunnelId::convertToTunnelValue(ldpTunnel, index));
}

// Catches a number that is given twice, one that is taken for nothing, a line that log
// readers no longer match, and an order of notifications that shows a name before its number
// is taken.
TEST(TunnelRibNames, numbersLinesAndObservers) {
  Log told;
  Recorder watch(told, "", *Kop::findType("Tunnel::TunnelTable::TunnelRibNameIdMap"));
  const auto map = tunnelRibNameIdMapFactory("ribs");
  map->currentIdInc(4);
  map->notifieeAdd(&watch);
  Lines lines(8);
  const std::string of =
      "8 Tunnel::TunnelTable::TunnelRibId Tunnel::TunnelTable::TunnelRibNameIdMap::";
  EXPECT_EQ(map->tunnelRibNameIs("red").value(), 4u);
  EXPECT_EQ(lines.taken(),
            (Log{of + "getFreeId()",
                 of + "tunnelRibNameIs(Kop::String) - tunnel-rib: red, currId: 4"}));
  EXPECT_EQ(std::exchange(told, {}), (Log{"currentId", "nameToId/'red'"}));
  EXPECT_EQ(map->tunnelRibNameIs("red").value(), 4u);
  EXPECT_EQ(lines.taken(), Log{});
  EXPECT_EQ(map->tunnelRibNameDel("red").value(), 4u);
  EXPECT_EQ(lines.taken(), Log{of + "tunnelRibNameDel(Kop::String) - tunnel-rib: red"});
  EXPECT_EQ(told, Log{"nameToId/'red'"});
  map->nameToIdIs("none", TunnelRibId(TunnelRibId::null));
  Trace::defaultHandle().levelIs(7);
  EXPECT_EQ(map->tunnelRibNameIs("none").value(), 5u);
  EXPECT_EQ(lines.taken(), Log{});
  map->currentIdIs(TunnelRibId(4294967294));
  EXPECT_EQ(map->getFreeId().value(), 4294967294u);
  map->currentIdInc(2);  // past the end
  EXPECT_EQ(map->currentId().value(), 1u);
}

// Catches a map that strays from what was done to it, and a sweep that skips the neighbour of
// a name that it removes.
TEST(TunnelRibNames, followAPlainModel) {
  Random random(Samples::seed);
  const auto map = tunnelRibNameIdMapFactory("ribs");
  EXPECT_EQ(map->tunnelRibNameIs("first").value(), 0u);  // nothing is reserved
  map->nameToIdDelAll();
  std::map<std::string, U32> model;
  U32 next = 0;
  for (const auto name :
       {TunnelRibId::systemTunnelRibName, TunnelRibId::systemColoredTunnelRibName,
        TunnelRibId::systemTunnelingLdpTunnelRibName,
        TunnelRibId::systemIgpShortcutTunnelRibName}) {
    map->nameToIdIs(name, TunnelRibId(next));
    model[std::string(name)] = next++;
  }
  const auto system = model;
  map->currentIdIs(TunnelRibId(next));
  for (int i = 0; i < 5000; ++i) {
    const std::string name = i % 99 ? "rib" + std::to_string(random() % 40) : "";
    if (random() % 500 == 0) {
      map->removeNonSystemTunnelRibs();
      model = system;
    } else if (random() % 3 == 0 && model.count(name) != 0) {
      ASSERT_EQ(map->tunnelRibNameDel(name).value(), model[name]);
      model.erase(name);
    } else {
      const auto [row, isNew] = model.try_emplace(name, next);
      next += isNew;
      ASSERT_EQ(map->tunnelRibNameIs(name).value(), row->second);
    }
    ASSERT_EQ(map->currentId().value(), next);
    ASSERT_EQ(map->nameToIdCount(), model.size());
  }
  for (const auto& [name, number] : model) {
    EXPECT_EQ(map->nameToId(name).value(), number);
    EXPECT_EQ(map->tunnelName(TunnelRibId(number)), name);
  }
  EXPECT_EQ(map->tunnelName(TunnelRibId(TunnelRibId::null)), "");
  EXPECT_FALSE(TunnelRibId(TunnelRibId::null).isValid());
  EXPECT_TRUE(TunnelRibId().isValid() && TunnelRibId(1).isSystemColoredRibId());
}

TEST(TunnelTablesDeathTest, brokenPromises) {
  const auto map = tunnelRibNameIdMapFactory("ribs");
  map->nameToIdIs("system-tunnel-rib", TunnelRibId(0));
  map->nameToIdIs("igp", TunnelRibId(3));
  map->nameToIdIs("none", TunnelRibId(TunnelRibId::null));
  map->currentIdIs(TunnelRibId(TunnelRibId::null));
  const std::string of = "Tunnel/TunnelRibId: .*Assertion ";
  for (const char* name : {"red", "none"})
    EXPECT_DEATH(map->tunnelRibNameDel(name), of + "\"id != nullId\"");
  for (const char* name : {"system-tunnel-rib", "igp"})
    EXPECT_DEATH(map->tunnelRibNameDel(name),
                 of + "\"id > TunnelRibId::maxSystemTunnelRibId\\(\\)\"");
  Trace::defaultHandle().levelIs(8);
  EXPECT_DEATH(map->tunnelRibNameIs("red"),
               "getFreeId\\(\\)\n.*Ran out of id space\n" + of + "\"false\"");
  Trace::defaultHandle().levelIs(Trace::Handle::off);

  const auto names =
      protocolTunnelNameStatusFactory("ldp")->localTunnelNameStatusIs(ldpTunnel);
  names->addTunnelIdNamePair(id(7), "a");
  EXPECT_DEATH(
      names->addTunnelIdNamePair(id(8), "a"),
      "Tunnel/TunnelTableHivelTypes: .*\"!tunnelNameToIdHas\\( tunnelName \\)\"");
  EXPECT_DEATH(names->addTunnelIdNamePair(id(7), "b"),
               "\"!tunnelIdToNameHas\\( tunnelId \\)\"");
}

// Catches collections that no longer say the same, observers that hear in another order, and
// an argument that goes with the entry it stands in.
TEST(TunnelNames, followAPlainModel) {
  Random random(Samples::seed + 1);
  Log told;
  Recorder watch(told, "", *Kop::findType("Tunnel::TunnelTable::TunnelNameStatus"));
  const auto all = protocolTunnelNameStatusFactory("ldp");
  const auto names = all->localTunnelNameStatusIs(ldpTunnel);
  EXPECT_EQ(all->localTunnelNameStatusIs(ldpTunnel), names);
  EXPECT_EQ(names->tunnelType(), ldpTunnel);
  EXPECT_EQ(names->name(), "ldpTunnel");
  names->notifieeAdd(&watch);
  const auto inOrder = [](U64 index, const Kop::String& name) {
    const std::string pair(valueToStrep(TunnelIdNamePair(id(index), name)).c_str());
    return Log{"tunnelNameToId/" + std::string(Kop::strepOf(name).c_str()),
               "tunnelIdToName/" + std::to_string(id(index).value()),
               "tunnelIdNamePair/" + pair};
  };
  std::map<U64, std::string> model;
  std::map<std::string, U64> back;
  for (int i = 0; i < 5000; ++i) {
    const U64 index = random() % 30;
    const std::string name = std::string(random() % 2 * 20, 'n') +
                             (random() % 20 == 0 ? "" : std::to_string(random() % 30));
    const bool known = model.count(index) != 0;
    const bool same = known && model[index] == name;
    if (random() % 2 == 0) {
      const auto* const stored = names->tunnelIdToName().find(id(index));
      names->delTunnelIdNamePair(stored ? stored->key() : id(index));
      ASSERT_EQ(told, known ? inOrder(index, model[index]) : Log{});
      if (known) back.erase(model[index]);
      model.erase(index);
    } else if (same || (!known && back.count(name) == 0)) {
      names->addTunnelIdNamePair(id(index), name);
      ASSERT_EQ(told, same ? Log{} : inOrder(index, name));
      model[index] = name;
      back[name] = index;
    }
    told.clear();
    ASSERT_EQ(names->tunnelNameToIdCount(), model.size());
    ASSERT_EQ(names->tunnelIdToNameCount(), model.size());
    ASSERT_EQ(names->tunnelIdNamePairCount(), model.size());
    for (const auto& [number, text] : model) {
      ASSERT_EQ(names->tunnelNameToId(text), id(number));
      ASSERT_EQ(names->tunnelIdToName(id(number)), text);
      ASSERT_TRUE(names->tunnelIdNamePairHas(TunnelIdNamePair(id(number), text)));
    }
  }
  EXPECT_EQ(names->tunnelIdToName(id(99)), "");
  for (U64 index = 0; index < 30; ++index)
    names->delTunnelIdNamePair(id(index));
  names->addTunnelIdNamePair(id(1), "");
  names->delTunnelIdNamePair(id(2));  // has no name, which is not the empty one
  EXPECT_EQ(names->tunnelNameToIdCount(), 1u);
}

// Catches a type on the wrong side, and a number beyond the types that is taken for one.
TEST(TunnelTables, contributionToTheTunnelRib) {
  const auto table = tunnelTableBaseFactory("t");
  EXPECT_FALSE(table->contributeToTunnelRib());
  for (U32 type = 0; type < 70; ++type) {
    const auto number = static_cast<TunnelType>(type);
    const bool wanted = type < 32 && (0x6168acu >> type & 1) != 0;
    EXPECT_EQ(contributeToTunnelRib(number), wanted) << type;
    table->tableTypeIs(number);
    EXPECT_EQ(table->contributeToTunnelRib(), wanted) << type;
  }
}

// Catches a look-up that answers for the invalid chip or for another chip's key.
TEST(NexthopHwTunnels, byThePlatformsKey) {
  const auto table = nexthopHwTunnelTableFactory("hw");
  for (const U8 chip : {0, 5, 128})
    table->hwKeyToTunnelIdIs(HwTunnelKey(77, Brel::ChipId(chip)), id(chip + 1));
  EXPECT_EQ(table->tunnelIdFromPlatformKey(77, Brel::ChipId(0)), id(1));
  EXPECT_EQ(table->tunnelIdFromPlatformKey(77, Brel::ChipId(5)), id(6));
  EXPECT_EQ(table->tunnelIdFromPlatformKey(77, Brel::ChipId(128)), TunnelId());
  EXPECT_EQ(table->tunnelIdFromPlatformKey(77, Brel::ChipId(6)), TunnelId());
  EXPECT_EQ(table->tunnelIdFromPlatformKey(78, Brel::ChipId(5)), TunnelId());
  EXPECT_EQ(table->entryCount(), 0u);
}

}  // namespace
}  // namespace Tunnel::TunnelTable
