#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Kop/EntityImpl.h"
#include "TestTypes.h"
#include "TreeModel.h"

namespace Sample {
namespace {

using Kop::AttributeId;
using Kop::EntityOp;
using Kop::Ptr;
using Log = std::vector<std::string>;

std::string keyText(AttributeId attribute, const void* key) {
  Kop::TextOut out;
  const auto* member = Kop::findType("Sample::TallTree")->member(attribute);
  member->ops->collection->key->text(out, key);
  return std::string(out.view());
}

// Writes down what it hears of a TallTree, and what of any other entity.
struct Recorder : Kop::Notifiee {
  explicit Recorder(Log& log, std::string name = "") : log(log), name(std::move(name)) {}
  void onAttribute(AttributeId attribute) override {
    log.push_back(name + std::to_string(attribute));
  }
  void onAttribute(AttributeId attribute, const void* key) override {
    log.push_back(name + std::to_string(attribute) + " " + keyText(attribute, key));
  }
  void onParent() override { log.push_back(name + "parent"); }
  void onDetached() override { log.push_back(name + "detached"); }
  Log& log;
  std::string name;
};

// Does something when it is told of anything.
struct Doer : Kop::Notifiee {
  explicit Doer(std::function<void()> action) : action(std::move(action)) {}
  void onAttribute(AttributeId) override { ++told, action(); }
  void onAttribute(AttributeId, const void*) override { ++told, action(); }
  void onParent() override { ++told, action(); }
  std::function<void()> action;
  int told = 0;
};

// Catches a notification for nothing, none for a change, two for one, or another key; and
// reflection that does not do what the typed call does.
TEST(EntityNotify, tellsEachChangeOnceAndReflectionTellsTheSame) {
  const Colour colours[] = {red, redder};
  const bool yes = true, no = false;
  const U32 one = 1;
  const Kop::String a("a"), b("b");
  const Port port(1, U8{2});
  const Place place = placeOf(5), other = placeOf(6);
  const Stop stops[] = {Stop("a", 1u), Stop("a", 2u)};
  const Crowd crowds[] = {crowdOf(3), crowdOf(3), crowdOf(4)};
  const U16 two = 2;
  const Shape shape = area;
  struct Row {
    const char* told;  // "" for nothing
    std::function<void(TallTree&)> typed;
    AttributeId attribute;
    EntityOp op;
    const void* key;
    const void* value;
  };
  const auto set = EntityOp::set, del = EntityOp::del;
  const Row rows[] = {
      {"",                                                      [&](auto& t) { t.colourIs(red); },                   264, set, {},     &colours[0]},
      {"264",                                                   [&](auto& t) { t.colourIs(redder); },                264, set, {},     &colours[1]},
      {"386",                                                   [&](auto& t) { t.heightIs(2); },                     386, set, {},     &two       },
      {"258 1",                                                 [&](auto& t) { t.markIs(1); },                       258, set, &one,   &yes       },
      {"",                                                      [&](auto& t) { t.markIs(1, false); },                258, set, &one,   &no        },
      {"259 'a'",                                               [&](auto& t) { t.flagIs(a, false); },                259, set, &a,     &no        },
      {"",                                                      [&](auto& t) { t.flagIs(a, false); },                259, set, &a,     &no        },
      {"259 'a'",                                               [&](auto& t) { t.flagIs(a, true); },                 259, set, &a,     &yes       },
      {"",                                                      [&](auto& t) { EXPECT_FALSE(t.flagDel(b)); },        259, del, &b,     {}         },
      {"259 'a'",                                               [&](auto& t) { EXPECT_TRUE(t.flagDel(a)); },         259, del, &a,     {}         },
      {"260 Value('Sample::Port', ** {'index': 1, 'chip': 2})",
       [&](auto& t) { t.placeIs(port, place); },                                                                     260, set, &port,  &place     },
      {"",                                                      [&](auto& t) { t.placeIs(port, placeOf(5)); },       260, set, &port,  &place     },
      {"260 Value('Sample::Port', ** {'index': 1, 'chip': 2})",
       [&](auto& t) { t.placeIs(port, other); },                                                                     260, set, &port,  &other     },
      {"261 'a'",                                               [&](auto& t) { t.stopIs(stops[0]); },                261, set, &a,     &stops[0]  },
      {"",                                                      [&](auto& t) { t.stopIs(stops[0]); },                261, set, &a,     &stops[0]  },
      {"261 'a'",                                               [&](auto& t) { t.stopIs(stops[1]); },                261, set, &a,     &stops[1]  },
      {"387 2",                                                 [&](auto& t) { t.crowdIs(2, crowds[0]); },           387, set, &two,   &crowds[0] },
      {"",                                                      [&](auto& t) { t.crowdIs(2, crowds[1]); },           387, set, &two,   &crowds[1] },
      {"387 2",                                                 [&](auto& t) { t.crowdIs(2, crowds[2]); },           387, set, &two,   &crowds[2] },
      {"262 'b'",                                               [&](auto& t) { t.branchIs(b); },                     262, set, &b,     {}         },
      {"",                                                      [&](auto& t) { t.branchIs(b); },                     262, set, &b,     {}         },
      {"263 area",                                              [&](auto& t) { t.slotIs(area); },                    263, set, &shape, {}         },
      {"",                                                      [&](auto& t) { EXPECT_FALSE(t.branchDel(a)); },      262, del, &a,     {}         },
      {"262 'b'",                                               [&](auto& t) { EXPECT_TRUE(t.branchDel(b)); },       262, del, &b,     {}         },
      {"263 area",                                              [&](auto& t) { t.slotDelAll(); },                    263, del, {},     {}         },
      {"387 2",
       [&](auto& t) { EXPECT_EQ(t.crowdDel(2), crowds[2]); },
       387,                                                                                                               del,
       &two,
       {}                                                                                                                                         },
      {"",                                                      [&](auto& t) { EXPECT_EQ(t.crowdDel(2), Crowd()); }, 387, del, &two,   {}         },
      {"258 1",                                                 [&](auto& t) { t.markDelAll(); },                    258, del, {},     {}         },
  };
  const auto tree = TallTree::TallTreeIs("t"), generic = TallTree::TallTreeIs("g");
  Log log;
  Recorder recorder(log);
  tree->notifieeAdd(&recorder);
  generic->notifieeAdd(&recorder);
  for (const Row& row : rows) {
    SCOPED_TRACE(&row - rows);
    const Log wanted = *row.told ? Log{row.told} : Log{};
    log.clear();
    row.typed(*tree);
    EXPECT_EQ(log, wanted);
    log.clear();
    entityAttributeOp({tree->fwkType(), row.attribute}, row.op, *generic, row.key,
                      row.value, nullptr);
    EXPECT_EQ(log, wanted);
    EXPECT_EQ(modelOf(*tree), modelOf(*generic));
  }
  tree->notifieeDel(&recorder);
  generic->notifieeDel(&recorder);
}

// Catches reflection that reads other than the typed calls, or takes one kind for another.
TEST(EntityReflection, readsWalksAndDeletes) {
  const auto tree = TallTree::TallTreeIs("t");
  const Kop::FwkType type = tree->fwkType();
  const auto get = [&](AttributeId id, const void* key, void* result) {
    return entityAttributeOp({type, id}, EntityOp::get, *tree, key, nullptr, result);
  };
  for (U32 n = 0; n < 40; ++n)
    tree->stopIs(Stop(Kop::String(std::to_string(n)), n));
  const auto branch = tree->branchIs("b");
  const Kop::String key("7"), absent("x"), b("b");
  Stop stop;
  EXPECT_TRUE(get(261, &key, &stop));
  EXPECT_EQ(stop.zone(), 7u);
  EXPECT_FALSE(get(261, &absent, &stop));
  U16 height = 0;
  EXPECT_TRUE(get(386, nullptr, &height));
  EXPECT_EQ(height, 100);
  Ptr<Kop::Entity> child;
  EXPECT_TRUE(get(262, &b, &child));
  EXPECT_EQ(child.get(), branch.get());
  EXPECT_FALSE(get(300, nullptr, &height));
  bool has = false;
  EXPECT_TRUE(entityAttributeOp({type, 262}, EntityOp::has, *tree, &b, nullptr, &has) &&
              has);
  EXPECT_TRUE(entityAttributeOp({type, 262}, EntityOp::has, *tree, &key, nullptr, &has) &&
              !has);
  U32 zones = 0, met = 0;
  for (const auto it = entityIterator({type, 261}, *tree); it->iterNonnull();
       it->iterInc(), ++met) {
    zones += static_cast<const Stop*>(it->iterValue())->zone();
    if (met % 2 == 0) it->iterDel();
  }
  EXPECT_EQ(met, 40u);
  EXPECT_EQ(zones, 39u * 20);
  EXPECT_EQ(tree->stopCount(), 20u);
  const auto children = entityIterator({type, 262}, *tree);
  EXPECT_EQ(children->iterObj().get(), branch.get());
  EXPECT_EQ(*static_cast<const Kop::String*>(children->iterKey()), "b");
  EXPECT_FALSE(entityIterator({type, 264}, *tree));

  const Kop::FwkType value{type.module, 7};
  EXPECT_DEATH(get(0, entityIterator({value, 2}, *tree).get(), nullptr),
               "GenericIfImpl: .*\"type.isPolymorphic\\(\\)\"");
  EXPECT_DEATH(Kop::valueAttributeOp({type, 264}, Kop::AttributeOp::get, nullptr, nullptr,
                                     nullptr),
               "GenericIfImpl: .*\"!t.isPolymorphic\\(\\)\"");
}

// Catches an emptied collection that some observer still believes in, and children that
// keep their parent.
TEST(EntityDelAll, tellsEveryKeyInOrderAndDetachesChildren) {
  const auto tree = TallTree::TallTreeIs("t");
  Log log, wanted;
  Recorder recorder(log), childRecorder(log, "child ");
  for (U32 n = 0; n < 30; ++n)
    tree->markIs(n), tree->branchIs(Kop::String(std::to_string(n)));
  tree->notifieeAdd(&recorder);
  for (const auto& node : tree->mark())
    wanted.push_back(keyText(258, &node.key()).insert(0, "258 "));
  for (const auto& node : tree->branch())
    wanted.push_back("child parent"),
        wanted.push_back(keyText(262, &node.key()).insert(0, "262 "));
  std::vector<Ptr<Branch>> children;
  for (const auto& node : tree->branch())
    children.push_back(node.value), node.value->notifieeAdd(&childRecorder);
  tree->markDelAll();
  tree->branchDelAll();
  EXPECT_EQ(log, wanted);
  for (const auto& child : children) {
    EXPECT_EQ(child->parent(), nullptr);
    EXPECT_EQ(child->references(), 1u);
    child->notifieeDel(&childRecorder);
  }
  tree->notifieeDel(&recorder);
  tree->markIs(1);
  const U32 version = tree->mark().version();
  tree->markDelAll();
  EXPECT_EQ(tree->mark().version(), version + 1) << "unobserved, it goes in one step";
}

// Catches children or observers that outlive their entity unawares, also those of a base.
TEST(EntityDestruction, detachesChildrenThenObserversThenDropsTheMaps) {
  Log log;
  Recorder recorder(log), childRecorder(log, "child ");
  const U64 before = TallTree::kopAllocTrack().live(),
            branches = Branch::kopAllocTrack().live();
  {
    auto tree = TallTree::TallTreeIs("t");
    EXPECT_EQ(TallTree::kopAllocTrack().live(), before + 1);
    EXPECT_EQ(Branch::kopAllocTrack().live(), branches);
    tree->markIs(1);
    tree->crowdIs(1, crowdOf(3));
    tree->slotIs(area);
    const auto kept = tree->branchIs("b");
    kept->leafIs("deep")->spotIs(1, true);
    kept->notifieeAdd(&childRecorder);
    tree->notifieeAdd(&recorder);
    EXPECT_GE(TallTree::kopAllocTrack().bytes(), sizeof(TallTree));
    tree = nullptr;
    EXPECT_EQ(log, (Log{"child parent", "262 'b'", "263 area", "detached"}));
    EXPECT_EQ(kept->parent(), nullptr);
    EXPECT_EQ(Branch::kopAllocTrack().live(), branches + 1);
  }
  EXPECT_EQ(log.back(), "child detached");
  for (const auto* track = Kop::AllocTrackTypeInfo::first(); track; track = track->next())
    EXPECT_EQ(track->live() + track->bytes(), 0u) << track->typeName();
}

// Catches keys and values that are read after the change moved or freed them.
TEST(EntityArguments, mayReferIntoTheCollectionItself) {
  const auto tree = TallTree::TallTreeIs("t");
  Log log;
  Recorder recorder(log);
  tree->notifieeAdd(&recorder);
  const Kop::String first("a name that is longer than fifteen bytes");
  tree->flagIs(first, true);
  tree->placeIs(Port(0, U8{0}), placeOf(77));
  tree->stopIs(Stop(first, 1u));
  for (U32 n = 1; n < 200; ++n) {
    tree->flagIs(Kop::String(std::string(20, 'x') + std::to_string(n)),
                 tree->flag().find(first)->value);
    tree->placeIs(Port(n, U8{0}), tree->place().find(Port(0, U8{0}))->value);
  }
  EXPECT_EQ(tree->place(Port(199, U8{0})), placeOf(77));
  log.clear();
  tree->flagDel(tree->flag().find(first)->key());
  tree->stopDel(tree->stop().find(first)->value.name());
  tree->branchDel(tree->branchIs(first)->name());
  const std::string key = "'" + std::string(std::string_view(first)) + "'";
  EXPECT_EQ(log, (Log{"259 " + key, "261 " + key, "262 " + key, "262 " + key}));
  for (auto it = tree->flagIterator(); it; it.advance())
    tree->flagDel(it.currNodeMaybeStale()->key());
  EXPECT_EQ(tree->flagCount(), 0u);
  tree->notifieeDel(&recorder);
}

// Catches a visit that skips, repeats, or calls who is gone.
TEST(EntityObservers, mayRegisterLeaveAndWriteWhileTheyAreTold) {
  const auto tree = TallTree::TallTreeIs("t");
  Log log;
  Recorder late(log, "late "), early(log, "early "), last(log, "last ");
  Doer* self = nullptr;
  std::vector<std::unique_ptr<Recorder>> many;
  Doer doer([&] {
    tree->notifieeDel(self);
    tree->notifieeDel(&late);
    tree->notifieeAddFirst(&early);
    for (int i = 0; i < 5; ++i) {  // makes the list grow under the visit
      many.push_back(std::make_unique<Recorder>(log, "many "));
      tree->notifieeAdd(many.back().get());
    }
    tree->ratioIs(9);  // nested: the new ones hear of this one already
  });
  self = &doer;
  tree->notifieeAdd(&doer);
  tree->notifieeAdd(&late);
  tree->notifieeAdd(&last);
  tree->notifieeAdd(&last);  // once is enough
  tree->colourIs(none);
  Log wanted{"early 265", "last 265"};
  wanted.insert(wanted.end(), 5, "many 265");
  wanted.push_back("last 264");
  EXPECT_EQ(log, wanted);
  EXPECT_EQ(tree->notifieeCount(), 7u);
  log.clear();
  tree->colourIs(red);
  EXPECT_EQ(log.size(), 7u);
  EXPECT_EQ(log.front(), "early 264");
  EXPECT_EQ(doer.told, 1);
  tree->notifieeDel(&early);
  tree->notifieeDel(&last);
  for (const auto& each : many)
    tree->notifieeDel(each.get());
}

// Catches a visit that an exception leaves behind in the list.
TEST(EntityObservers, mayThrow) {
  for (const bool alone : {true, false}) {
    Log log;
    auto tree = TallTree::TallTreeIs("t");
    Doer thrower([] { throw std::runtime_error("observer"); });
    Recorder other(log);
    tree->notifieeAdd(&thrower);
    if (!alone) tree->notifieeAdd(&other);
    EXPECT_THROW(tree->colourIs(none), std::runtime_error);
    EXPECT_EQ(tree->colour(), none);
    tree->notifieeDel(&thrower);
    tree->notifieeAdd(&other);
    tree->colourIs(red);
    EXPECT_EQ(log, Log{"264"});
    EXPECT_EQ(tree->notifieeCount(), 1u);
    tree = nullptr;
    EXPECT_EQ(log.back(), "detached");
  }
}

// Catches an entity that is touched after an observer let go of it. Most of this only shows
// under the address sanitizer.
TEST(EntityObservers, mayDropTheLastReference) {
  const std::function<void(TallTree&)> writes[] = {
      [](TallTree& t) { t.colourIs(none); },
      [](TallTree& t) { t.markIs(100); },
      [](TallTree& t) { t.markDel(1); },
      [](TallTree& t) { t.markDelAll(); },
      [](TallTree& t) { t.placeIs(Port(), placeOf(1)); },
      [](TallTree& t) { t.stopIs(Stop("x", 1u)); },
      [](TallTree& t) { EXPECT_EQ(t.stopDel("3").zone(), 3u); },
      [](TallTree& t) { EXPECT_TRUE(t.branchIs("new")); },
      [](TallTree& t) { EXPECT_TRUE(t.branchDel("1")); },
      [](TallTree& t) { t.branchDelAll(); },
      [](TallTree& t) {
        Kop::entityIterator({t.fwkType(), 258}, t)->iterDel();
      },
  };
  for (const bool byChild : {false, true}) {
    for (const bool alone : {true, false}) {
      for (const auto& write : writes) {
        Log log;
        auto tree = TallTree::TallTreeIs("t");
        for (U32 n = 0; n < 10; ++n) {
          tree->markIs(n);
          tree->stopIs(Stop(Kop::String(std::to_string(n)), n));
          tree->branchIs(Kop::String(std::to_string(n)));
        }
        Doer dropper([&] { tree = nullptr; });
        Recorder second(log);
        if (byChild) {
          for (const auto& node : tree->branch())
            node.value->notifieeAdd(&dropper);
        } else {
          tree->notifieeAdd(&dropper);
        }
        if (!alone) tree->notifieeAdd(&second);
        write(*tree);
        tree = nullptr;
        EXPECT_EQ(std::count(log.begin(), log.end(), "detached"), alone ? 0 : 1);
      }
    }
  }
  EXPECT_EQ(TallTree::kopAllocTrack().live(), 0u);
}

// Catches a double release, and flag bits that are taken for references.
TEST(EntityReferences, areCountedApartFromTheFlags) {
  auto tree = TallTree::TallTreeIs("t");
  EXPECT_TRUE(tree->hasNotificationActive());
  EXPECT_EQ(tree->references(), 1u);
  {
    const Ptr<Tree> base = tree;
    const Ptr<Kop::Entity> entity = base;
    EXPECT_EQ(tree->references(), 3u);
  }
  tree->hasNotificationActiveIs(false);
  EXPECT_FALSE(tree->hasNotificationActive());
  EXPECT_EQ(tree->references(), 1u);
  static_assert(
      (Kop::PtrInterface::countMask & (Kop::PtrInterface::releasingFlag |
                                       Kop::PtrInterface::notificationActiveFlag)) == 0);
  tree->branchIs("b");
  TallTree* const raw = tree.get();
  Doer taker([&] {
    EXPECT_TRUE(raw->releasing());
    const Ptr<TallTree> again(raw);
    EXPECT_GE(again->references(), 1u);
  });
  raw->notifieeAdd(&taker);
  tree = nullptr;
  EXPECT_EQ(taker.told, 1);
  EXPECT_EQ(TallTree::kopAllocTrack().live(), 0u);
}

// Catches counts that lose an increment between threads.
TEST(EntityReferencesThreads, areCountedAtomicallyWhenSwitchedOn) {
  Kop::threadSafePtrsIs(true);
  {
    const auto tree = TallTree::TallTreeIs("t");
    const Kop::String text("a text that is kept in a counted block");
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
      threads.emplace_back([&] {
        std::vector<Ptr<Kop::Entity>> held;
        std::vector<Kop::String> texts;
        for (int i = 0; i < 20000; ++i) {
          held.push_back(tree);
          texts.push_back(text);
          if (i % 3 == 0) held.pop_back(), texts.pop_back();
          if (i % 1000 == 0) held.clear(), texts.clear();
        }
      });
    for (auto& thread : threads)
      thread.join();
    EXPECT_EQ(tree->references(), 1u);
    EXPECT_EQ(text, "a text that is kept in a counted block");
  }
  EXPECT_EQ(TallTree::kopAllocTrack().live(), 0u);
  Kop::threadSafePtrsIs(false);
}

// Catches reactions that are called for another attribute, or not for a base's.
struct Reactions : Kop::Reactor<TallTree> {
  using Reactor::Reactor;
  Log log;
  void colourReaction() override { log.push_back("colour"); }
  void heightReaction() override { log.push_back("height"); }
  void markReaction(const U32& key) override { log.push_back(std::to_string(key)); }
  void slotReaction(const Shape& key) override { log.push_back(keyText(263, &key)); }
  void crowdReaction(const U16& key) override { log.push_back(std::to_string(key)); }
};
TEST(EntityReactor, callsTheFunctionOfTheAttribute) {
  const auto tree = TallTree::TallTreeIs("t"), other = TallTree::TallTreeIs("o");
  {
    Reactions reactions(tree);
    EXPECT_EQ(tree->references(), 2u);
    tree->heightIs(1);
    tree->colourIs(none);
    tree->ratioIs(3);
    tree->markIs(5);
    tree->slotIs(lineString);
    tree->crowdIs(6, crowdOf(1));
    tree->branchIs("b");
    EXPECT_EQ(reactions.log, (Log{"height", "colour", "5", "lineString", "6"}));
    reactions.notifierIs(other);
    tree->markIs(6);
    other->markIs(7);
    EXPECT_EQ(reactions.log.back(), "7");
    EXPECT_EQ(reactions.log.size(), 6u);
  }
  EXPECT_EQ(tree->notifieeCount() + other->notifieeCount(), 0u);
  EXPECT_EQ(tree->references(), 1u);
}

// Catches factories that make something else than asked.
TEST(EntityMaking, takesItsNameOrItsKey) {
  const U32 number = 1;
  const Kop::GenericArg argument[] = {
      {&Kop::TypeOpsOf<U32>::ops, &number}
  };
  EXPECT_EQ(Kop::TypeImpl<TallTree>::newEntityForDir("dir")->name(), "dir");
  EXPECT_FALSE(Kop::TypeImpl<Slot>::newEntityForDir("a slot lives under its key"));
  try {
    Kop::TypeImpl<TallTree>::newEntityForDir("dir", argument);
    ADD_FAILURE() << "took arguments";
  } catch (const Kop::NewEntityArgsException& error) {
    EXPECT_STREQ(error.what(),
                 "type 19 of module TestTypes takes no arguments but its name");
  }
  Kop::NboAttrLog::Out out;
  const auto tree = treeFactory("log");
  Kop::TypeImpl<Tree>::serializeConstructorParams(out, *tree);
  EXPECT_EQ(out.size(), Kop::TypeImpl<Tree>::attrLogSizeCtorParams(*tree));
  out.writeU8(9);
  Kop::NboAttrLog::In in(out.data(), out.size());
  const auto read = Kop::TypeImpl<Tree>::newEntityForAttrLog(in);
  EXPECT_EQ(read->name(), "log");
  EXPECT_TRUE(read->hasNotificationActive());
  EXPECT_EQ(read->fwkType(), tree->fwkType());
  EXPECT_NE(read->identity(), tree->identity());
  EXPECT_EQ(in.remaining(), 1u);
  EXPECT_EQ(tree->slotIs(lineString)->name(), "lineString");
  EXPECT_EQ(tree->slot(lineString)->shape(), lineString);
  EXPECT_EQ(tree->branchIs("b"), tree->branchIs("b"));
}

}  // namespace
}  // namespace Sample
