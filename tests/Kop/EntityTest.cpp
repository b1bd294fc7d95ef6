#include "Kop/EntityImpl.h"
#include "TestTypes.h"
#include "TreeModel.h"
#include "tests/Support/Testing.h"

namespace Sample {
namespace {

using Kop::AttributeId;
using Kop::EntityOp;
using Kop::Ptr;

struct Recorder : ::Recorder {
  explicit Recorder(Log& log, std::string name = "")
      : ::Recorder(log, std::move(name), *Kop::findType("Sample::TallTree")) {}
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

// Catches what reflection must refuse. What it does is tested with the types of the library.
TEST(EntityReflection, refusesWhatIsNotThere) {
  const auto tree = TallTree::TallTreeIs("t");
  const Kop::FwkType type = tree->fwkType(), value{type.module, 4};
  U16 height;
  EXPECT_FALSE(entityAttributeOp({type, 300}, EntityOp::get, *tree, {}, {}, &height));
  EXPECT_FALSE(entityIterator({type, 264}, *tree));
  EXPECT_DEATH(entityIterator({value, 2}, *tree),
               "GenericIfImpl: .*\"type.isPolymorphic\\(\\)\"");
  EXPECT_DEATH(Kop::valueAttributeOp({type, 264}, Kop::AttributeOp::get, {}, {}, {}),
               "GenericIfImpl: .*\"!t.isPolymorphic\\(\\)\"");
}

// Catches children or observers that outlive their entity unawares, also those of a base, and
// a double release by who takes a reference meanwhile.
TEST(EntityDestruction, detachesChildrenThenObserversThenDropsTheMaps) {
  Log log;
  Recorder recorder(log), childRecorder(log, "child ");
  Kop::Notifiee deaf;
  {
    auto tree = TallTree::TallTreeIs("t");
    TallTree* const raw = tree.get();
    Doer taker([&] {
      EXPECT_TRUE(raw->releasing());
      const Ptr<TallTree> again(raw);
    });
    tree->hasNotificationActiveIs(false);
    EXPECT_EQ(tree->references(), 1u) << "the flags are no references";
    EXPECT_GE(TallTree::kopAllocTrack().bytes(), sizeof(TallTree));
    EXPECT_THAT(TallTree::kopAllocTrack().typeName(), testing::HasSubstr("TallTree"));
    const auto dropped = tree->branchIs("dropped");
    tree->branchDelAll();
    EXPECT_EQ(dropped->parent(), nullptr);
    EXPECT_EQ(dropped->references(), 1u);
    tree->markIs(1), tree->markIs(2);
    const U32 version = tree->mark().version();
    tree->markDelAll();
    EXPECT_EQ(tree->mark().version(), version + 1) << "unobserved, it goes in one step";
    tree->markIs(1);
    tree->slotIs(area);
    const auto kept = tree->branchIs("b");
    kept->leafIs("deep")->spotIs(1, true);
    kept->notifieeAdd(&childRecorder);
    kept->notifieeAdd(&deaf);
    tree->notifieeAdd(&recorder);
    tree->notifieeAdd(&taker);
    tree = nullptr;
    EXPECT_EQ(taker.told, 2);
    EXPECT_EQ(log, (Log{"child parent", "branch/'b'", "slot/area", "detached"}));
    EXPECT_EQ(kept->parent(), nullptr);
    EXPECT_EQ(Branch::kopAllocTrack().live(), 2u);
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
  tree->placeIs(Port(0, U8{0}), valueOf<Place>(77));
  tree->stopIs(Stop(first, 1u));
  for (U32 n = 1; n < 200; ++n) {
    tree->flagIs(Kop::String(std::string(20, 'x') + std::to_string(n)),
                 tree->flag().find(first)->value);
    tree->placeIs(Port(n, U8{0}), tree->place().find(Port(0, U8{0}))->value);
  }
  EXPECT_EQ(tree->place(Port(199, U8{0})), valueOf<Place>(77));
  log.clear();
  tree->flagDel(tree->flag().find(first)->key());
  tree->stopDel(tree->stop().find(first)->value.name());
  tree->branchDel(tree->branchIs(first)->name());
  const std::string key = "'" + std::string(std::string_view(first)) + "'";
  EXPECT_EQ(log, (Log{"flag/" + key, "stop/" + key, "branch/" + key, "branch/" + key}));
  tree->notifieeDel(&recorder);
}

// Catches a visit that skips, repeats, or calls who is gone.
TEST(EntityObservers, mayRegisterLeaveAndWriteWhileTheyAreTold) {
  Log log;
  Recorder late(log, "late "), early(log, "early "), last(log, "last ");
  std::vector<std::unique_ptr<Recorder>> many;
  Doer doer([] {});
  const auto tree = TallTree::TallTreeIs("t");  // goes before those who hear of its end
  doer.action = [&] {
    tree->notifieeDel(&doer);
    tree->notifieeDel(&late);
    tree->notifieeAddFirst(&early);
    for (int i = 0; i < 5; ++i) {  // makes the list grow under the visit
      many.push_back(std::make_unique<Recorder>(log, "many "));
      tree->notifieeAdd(many.back().get());
    }
    tree->ratioIs(9);  // nested: the new ones hear of this one already
  };
  tree->notifieeAdd(&doer);
  for (Recorder* const each : {&late, &last, &last})  // once is enough
    tree->notifieeAdd(each);
  tree->colourIs(none);
  Log wanted{"early ratio", "last ratio"};
  wanted.insert(wanted.end(), 5, "many ratio");
  wanted.push_back("last colour");
  EXPECT_EQ(log, wanted);
  EXPECT_EQ(tree->notifieeCount(), 7u);
  log.clear();
  tree->colourIs(red);
  EXPECT_EQ(log.size(), 7u);
  EXPECT_EQ(log.front(), "early colour");
  EXPECT_EQ(doer.told, 1);
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
    EXPECT_EQ(log, Log{"colour"});
    EXPECT_EQ(tree->notifieeCount(), 1u);
    tree = nullptr;
    EXPECT_EQ(log.back(), "detached");
  }
}

// Catches an entity that is touched after an observer let go of it. Most of this only shows
// under the address sanitizer.
TEST(EntityObservers, mayDropTheLastReference) {
  Random random(31);
  U32 dropped = 0;
  for (U32 round = 0; round < 1000; ++round) {
    const bool byChild = round % 2, alone = round / 2 % 2;
    Log log;
    auto tree = TallTree::TallTreeIs("t");
    TreeModel model = dump(*tree);
    for (U32 n = 0; n < 30; ++n)
      randomWrite(random, *tree, model, n);
    tree->markIs(99);
    Doer dropper([&] { tree = nullptr; });
    Recorder second(log);
    if (byChild)
      for (const auto& node : tree->branch())
        node.value->notifieeAdd(&dropper);
    else
      tree->notifieeAdd(&dropper);
    if (!alone) tree->notifieeAdd(&second);
    if (round % 10 == 0)
      Kop::entityIterator({tree->fwkType(), 258}, *tree)->iterDel();
    else if (round % 3 == 0)
      round % 2 ? tree->branchDelAll() : tree->markDelAll();
    else
      randomWrite(random, *tree, model, round, true);  // the first change may be the last
    dropped += dropper.told > 0;
    tree = nullptr;
    EXPECT_EQ(std::count(log.begin(), log.end(), "detached"), alone ? 0 : 1);
  }
  EXPECT_GT(dropped, 250u);
  EXPECT_EQ(TallTree::kopAllocTrack().live(), 0u);
}

// Catches counts that lose an increment between threads.
TEST(EntityReferencesThreads, areCountedAtomicallyWhenSwitchedOn) {
  Kop::threadSafePtrsIs(true);
  {
    const auto tree = TallTree::TallTreeIs("t");
    const Kop::String text("a text that is kept in a counted block");
    const auto hold = [&] {
      std::vector<std::pair<Ptr<Kop::Entity>, Kop::String>> held;
      for (int i = 0; i < 20000; ++i) {
        held.emplace_back(tree, text);
        if (i % 3 == 0) held.pop_back();
        if (i % 1000 == 0) held.clear();
      }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
      threads.emplace_back(hold);
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
  void crowdReaction(const U16& key) override { log.push_back(std::to_string(key)); }
};
TEST(EntityReactor, callsTheFunctionOfTheAttribute) {
  const auto tree = TallTree::TallTreeIs("t"), other = TallTree::TallTreeIs("o");
  {
    Reactions reactions(tree);
    tree->heightIs(1);
    tree->colourIs(none);
    tree->ratioIs(3);
    tree->markIs(5);
    tree->crowdIs(6, valueOf<Crowd>(1));
    tree->branchIs("b");
    reactions.notifierIs(other);
    tree->markIs(6);
    other->markIs(7);
    EXPECT_EQ(reactions.log, (Log{"height", "colour", "5", "6", "7"}));
  }
  EXPECT_EQ(tree->notifieeCount() + other->notifieeCount(), 0u);
  EXPECT_EQ(tree->references(), 1u);
}

// Catches factories that make something else than asked.
TEST(EntityMaking, takesItsNameOrItsKey) {
  using Tall = Kop::TypeImpl<TallTree>;
  const Kop::GenericArg argument[1] = {};
  EXPECT_EQ(Tall::newEntityForDir("dir")->name(), "dir");
  EXPECT_FALSE(Kop::TypeImpl<Slot>::newEntityForDir("a slot lives under its key"));
  EXPECT_THAT([&] { Tall::newEntityForDir("dir", argument); },
              testing::ThrowsMessage<Kop::NewEntityArgsException>(
                  "type 14 of module TestTypes takes no arguments but its name"));
  Kop::NboAttrLog::Out out;
  const auto tree = treeFactory("log");
  Kop::TypeImpl<Tree>::serializeConstructorParams(out, *tree);
  EXPECT_EQ(out.size(), Kop::TypeImpl<Tree>::attrLogSizeCtorParams(*tree));
  out.writeU8(9);
  Kop::NboAttrLog::In in(out.data(), out.size());
  const auto read = Kop::TypeImpl<Tree>::newEntityForAttrLog(in);
  EXPECT_EQ(read->name(), "log");
  EXPECT_EQ(read->fwkType(), tree->fwkType());
  EXPECT_NE(read->identity(), tree->identity());
  EXPECT_EQ(in.remaining(), 1u);
  EXPECT_EQ(tree->slotIs(lineString)->name(), "lineString");
}

}  // namespace
}  // namespace Sample
