#include "LogLink.h"
#include "TreeModel.h"
#include "tests/Support/Testing.h"

namespace Sample {
namespace {

// Catches a copy that was never the original (a frame applied in part, two in the wrong
// order).
TEST(AttrLogCut, atEveryByteLeavesAPastState) {
  Random random(41);
  const auto tree = TallTree::TallTreeIs("t");
  TreeModel model = dump(*tree);
  U32 serial = 0;
  for (int i = 0; i < 30; ++i)
    randomWrite(random, *tree, model, ++serial);
  Stream stream;
  std::vector<TreeModel> past;
  Bytes bytes;
  const U64 root = tree->identity();
  {
    Session session(stream, tree, Session::writes);
    session.resync();
    ASSERT_TRUE(session.process());
    past.push_back(model);
    for (int i = 0; i < 90; ++i) {
      randomWrite(random, *tree, model, ++serial, true);
      session.process();
      past.push_back(model);
      ASSERT_EQ(dump(*tree), model);
    }
    bytes = bytesOf(stream.out());
  }
  const auto copy = TallTree::TallTreeIs("growing");
  Reader growing(copy, root);
  std::size_t state = 0;  // the youngest that the copy is known to have reached
  bool sawAll = false;
  for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
    if (!growing.arrived(&bytes[cut], 1)) continue;
    if (growing.session.catchingUp()) continue;
    const TreeModel now = dump(*copy);
    while (state < past.size() && !(past[state] == now))
      ++state;
    ASSERT_LT(state, past.size()) << "no past state, at byte " << cut;
    sawAll = sawAll || state > 60;
  }
  EXPECT_TRUE(sawAll);
  EXPECT_EQ(past[state], past.back());
}

// Catches an answer that is sent before what it answers.
TEST(AttrLogCut, writesInAnswerToAWriteFollowIt) {
  const auto tree = TallTree::TallTreeIs("t");
  struct Answer : Kop::Reactor<TallTree> {
    void markReaction(const U32&) override { notifier()->flagIs("answer", true); }
  } answer;
  answer.notifierIs(tree);  // listens before the session does
  Stream stream;
  const Session session(stream, tree, Session::writes);
  tree->markIs(1);
  const auto frames = framesOf(bytesOf(stream.out()));
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(wordAt(frames[0], 9), 258u);
  EXPECT_EQ(wordAt(frames[1], 9), 259u);
}

// Values of one key that are older than what it had.
struct Order : Kop::Reactor<TallTree> {
  using Reactor::Reactor;
  std::map<std::string, U32> last;
  U32 told = 0;
  void stopReaction(const Kop::String& key) override {
    if (!notifier()->stopHas(key)) return;
    const U32 zone = notifier()->stop(key).zone();
    U32& before = last[std::string(std::string_view(key))];
    EXPECT_GT(zone, before) << "an older value after a newer one";
    before = zone;
    ++told;
  }
};

// Catches whatever the cases that somebody thought of do not.
TEST(AttrLogRandom, replicasEqualAPlainModelThroughStopsAndLostLinks) {
  for (const U32 seed : {1u, 2u, 3u, 4u, 5u, 6u}) {
    SCOPED_TRACE(seed);
    Random random(seed);
    const auto tree = TallTree::TallTreeIs("t"), copy = TallTree::TallTreeIs("copy");
    TreeModel model = dump(*tree);
    Order order(copy);
    U32 serial = 0;
    U64 coalesced = 0;
    const auto connect = [&] {
      auto link = std::make_unique<Link>(tree, copy, 100 + random() % 600);
      link->writer.resync();
      return link;
    };
    auto link = connect();
    for (int step = 0; step < 4000; ++step) {
      const U32 dice = random() % 100;
      if (dice < 60) {
        randomWrite(random, *tree, model, ++serial);
      } else if (dice < 75) {
        link->writer.process();
      } else if (dice < 97) {
        link->carry(random() % 300);
      } else if (dice < 98) {
        link->stream.creditIs(random() % 3);
        link->writer.process();
        link->stream.creditIs(1u << 30);
      } else {
        std::map<U64, Kop::Ptr<Branch>> before;
        for (const auto& node : copy->branch())
          before[node.value->identity()] = node.value;
        coalesced += link->stream.counters().coalesced;
        link.reset();
        link = connect();
        if (random() % 2 == 0) continue;
        link->drain();
        ASSERT_EQ(dump(*copy), model) << "step " << step;
        ASSERT_EQ(dump(*tree), model) << "step " << step;
        for (const auto& node : copy->branch()) {  // the same entity, the same object
          const auto& old = before[node.value->identity()];
          ASSERT_TRUE(!old || old == node.value);
        }
      }
      if (HasFailure()) FAIL() << "step " << step;
    }
    link->drain();
    EXPECT_EQ(dump(*copy), model);
    EXPECT_GT(order.told, 50u);
    EXPECT_GT(coalesced, 0u);
  }
}

// Catches memory that grows with the changes instead of with what is alive, and a collection
// that is lost when it is sent again while a walk waits, of another one or its own.
TEST(AttrLogBounded, aReaderThatDoesNotReadCostsAMarkPerLiveKey) {
  for (const U32 before : {0u, 500u}) {
    SCOPED_TRACE(before);
    const auto tree = TallTree::TallTreeIs("t"), copy = TallTree::TallTreeIs("copy");
    for (U32 n = 0; n < 500; ++n)
      tree->placeIs(Port(n, U8{0}), valueOf<Place>(n));
    for (U32 n = 0; n < before; ++n)
      tree->markIs(~n);
    Link link(tree, copy, 4096);
    link.writer.resync();
    ASSERT_FALSE(link.writer.process());
    EXPECT_EQ(adapterOf(*tree).flowOut()->bookmark(), before ? 258u : 260u);
    const U32 live = 50;
    std::size_t marks = 0, buffer = 0;
    for (U32 n = 0; n < 500'000; ++n) {
      tree->markIs(n);
      if (n >= live) tree->markDel(n - live);
      if (n % 1000 != 0) continue;
      link.writer.process();
      tree->colourIs(static_cast<Colour>(n));
      buffer = std::max(buffer, link.stream.out().memory());
      const auto& flow = adapterOf(*tree).flowOut()->coll<U32>(258);
      marks = std::max(marks, flow.dirty.memory() + flow.draining.memory());
    }
    EXPECT_LT(buffer, 3u * 4096);
    EXPECT_LT(marks, 64u << 10) << "marks of at most a few thousand keys";
    EXPECT_GT(marks, 0u);
    const auto& counters = link.stream.counters();
    EXPECT_GT(counters.walksAgain, 50u);
    EXPECT_GT(counters.coalesced, 250'000u);
    link.drain();
    EXPECT_EQ(dump(*copy), dump(*tree));
    EXPECT_EQ(copy->markCount(), live + before);
  }
}

}  // namespace
}  // namespace Sample
