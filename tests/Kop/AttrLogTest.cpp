#include <functional>
#include <map>
#include <set>

#include <gtest/gtest.h>

#include "LogLink.h"
#include "TreeModel.h"

namespace Sample {
namespace {

using Kop::NboAttrLog::FlowOut;
using Kop::NboAttrLog::In;
using Kop::NboAttrLog::Out;

constexpr U32 attributes[] = {258, 259, 260, 261, 262, 263, 264, 265, 266, 386, 387};

Bytes hex(std::string_view text) {
  Bytes bytes;
  std::string digits;
  for (const char c : text)
    if (c != ' ') digits += c;
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes.push_back(static_cast<U8>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  return bytes;
}
std::string hex64(U64 number) {
  char text[17];
  std::snprintf(text, sizeof text, "%016lx", number);
  return text;
}
// A frame without its length word.
Bytes frame(U8 kind, U64 identity, U32 attribute, std::string_view body) {
  char attributeText[9], kindText[3];
  std::snprintf(attributeText, sizeof attributeText, "%08x", attribute);
  std::snprintf(kindText, sizeof kindText, "%02x", kind);
  return hex(kindText + hex64(identity) + attributeText + std::string(body));
}
struct Head {
  U8 kind;
  U32 attribute;
  bool operator==(const Head&) const = default;
};
Head headOf(const Bytes& bytes) {
  return {bytes[0], wordAt(bytes, 9)};
}
std::vector<Bytes> taken(Stream& stream) {
  const Bytes bytes = bytesOf(stream.out());
  stream.out().consume(bytes.size());
  return framesOf(bytes);
}

void fill(const Kop::Ptr<TallTree>& tree) {
  for (U32 n = 0; n < 3; ++n) {
    tree->markIs(n);
    tree->flagIs(Kop::String(std::to_string(n)), n == 1);
    tree->placeIs(Port(n, U8{2}), placeOf(n));
    tree->stopIs(Stop(Kop::String(std::to_string(n)), n));
    tree->branchIs(Kop::String(std::to_string(n)));
    tree->crowdIs(static_cast<U16>(n), crowdOf(n + 2));
  }
  tree->slotIs(line);
  tree->slotIs(area);
  tree->colourIs(distant);
  tree->levelIs(Level(900));
  tree->heightIs(1);
}
Kop::Ptr<TallTree> fullTree(const char* name) {
  const auto tree = TallTree::TallTreeIs(name);
  fill(tree);
  return tree;
}

struct Watch : Kop::Notifiee {
  U32 told = 0;
  void onAttribute(Kop::AttributeId) override { ++told; }
  void onAttribute(Kop::AttributeId, const void*) override { ++told; }
};

// Catches a layout that changed: the peers are other builds of this system.
TEST(AttrLogBytes, areThoseOfTheLayout) {
  const auto tree = TallTree::TallTreeIs("t");
  Stream stream;
  Session session(stream, tree, Session::writes);
  const U64 self = tree->identity();
  const Place place(Port(0x0102030405060708, U8{9}), "ab", Level(4), area, redder, true,
                    -1.0f, U16{0x1234});
  Crowd crowd;
  crowd.shapeIs(line);
  crowd.memberIs("x");
  struct Row {
    const char* what;
    std::function<void()> write;
    Head head;
    std::string body;
  };
  const Row rows[] = {
      {"colour",    [&] { tree->colourIs(redder); },    {1, 264},          "00000002"        },
      {"ratio",     [&] { tree->ratioIs(-1.0f); },      {1, 265},          "bf800000"        },
      {"level",     [&] { tree->levelIs(Level(5)); },   {1, 266},          "0005"            },
      {"derived",   [&] { tree->heightIs(0x1234); },    {1, 386},          "1234"            },
      {"set",       [&] { tree->markIs(7); },           {21, 258},         "00000007 01"     },
      {"set del",   [&] { tree->markDel(7); },          {20, 4294967038u}, "00000007"        },
      {"flag",      [&] { tree->flagIs("ab", false); }, {21, 259},         "00000002 6162 00"},
      {"flag del",  [&] { tree->flagDel("ab"); },       {20, 0xfffffefd},  "00000002 6162"   },
      {"place",
       [&] { tree->placeIs(place.port(), place); },
       {21, 260},
       "0102030405060708 09  0102030405060708 09 00000002 6162 0004 0000001f 00000002 01"
       "bf800000 1234"                                                                       },
      {"stop",
       [&] { tree->stopIs(Stop("n", 3u)); },
       {21, 261},
       "00000001 6e 00000001 6e 00000003"                                                    },
      {"crowd",
       [&] { tree->crowdIs(4, crowd); },
       {21, 387},
       "0004 00000001 00000001 00000001 78"                                                  },
      {"crowd del", [&] { tree->crowdDel(4); },         {20, 0xfffffe7d},  "0004"            },
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    row.write();
    const auto frames = taken(stream);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0], frame(row.head.kind, self, row.head.attribute, row.body));
  }

  const auto branch = tree->branchIs("b");
  const auto slot = tree->slotIs(area);
  branch->labelIs("x");
  slot->depthIs(0x0203);
  tree->branchDel("b");
  branch->labelIs("not followed any more");
  const Bytes live = bytesOf(stream.out());
  ASSERT_EQ(wordAt(live, 0), 13 + 5 + 8u) << "the length counts what is behind it";
  EXPECT_EQ(taken(stream),
            (std::vector{
                frame(25, self, 262, "00000001 62" + hex64(branch->identity())),
                frame(25, self, 263, "0000001f" + hex64(slot->identity())),
                frame(1, branch->identity(), 258, "00000001 78"),
                frame(1, slot->identity(), 258, "0203"),
                frame(20, self, 4294967034u, "00000001 62"),
            }));

  // The whole of it: every attribute by number, then the child's.
  session.resync();
  ASSERT_TRUE(session.process());
  std::vector<Bytes> all{frame(26, self, 0, "01")};
  for (const U32 attribute : attributes) {
    if (attribute >= 264 && attribute <= 386) {
      const char* const values[] = {"00000002", "bf800000", "0005"};
      all.push_back(
          frame(1, self, attribute, attribute == 386 ? "1234" : values[attribute - 264]));
      continue;
    }
    const bool one = attribute == 260 || attribute == 261 || attribute == 263;
    all.push_back(frame(22, self, attribute, one ? "00000001" : "00000000"));
    if (attribute == 260 || attribute == 261)
      all.push_back(frame(21, self, attribute, rows[attribute == 260 ? 8 : 9].body));
    if (attribute == 263)
      all.push_back(frame(25, self, 263, "0000001f" + hex64(slot->identity())));
    all.push_back(frame(24, self, attribute, ""));
  }
  all.push_back(frame(1, slot->identity(), 258, "0203"));
  all.push_back(frame(27, self, 0, ""));
  EXPECT_EQ(taken(stream), all);
}

// Catches a pump that loses, repeats or reorders attributes when it is stopped, at any start.
TEST(AttrLogPump, stoppedAfterEveryMessageSendsAllFromItsStart) {
  for (const U32 start :
       {0u, 258u, 259u, 260u, 261u, 262u, 263u, 264u, 265u, 266u, 386u, 387u}) {
    SCOPED_TRACE(start);
    const auto tree = TallTree::TallTreeIs("t");
    Stream stream;
    Session session(stream, tree, Session::writes);
    fill(tree);
    taken(stream);
    EntitySa& sa = adapterOf(*tree);
    const auto flow = newFlowOut(sa, start);
    for (const U32 attribute : attributes) {
      if (attribute >= 264 && attribute <= 386)
        EXPECT_EQ(flow->kopIsDirty(attribute), attribute >= start) << attribute;
      else
        EXPECT_EQ(flow->kopHasSynced(attribute), attribute < start) << attribute;
    }
    EXPECT_TRUE(flow->hasNotificationActive());
    if (start == 0) {
      stream.creditIs(0);
      EXPECT_EQ(handleAttrFlowOut(sa, 0, flow.get()), 258u);
      EXPECT_EQ(stream.out().size(), 0u);
    }
    EXPECT_EQ(handleAttrFlowOut(sa, 300, flow.get()), 0xffffffffu);
    U32 at = start, calls = 0;
    do {
      stream.creditIs(1);
      const U32 next = handleAttrFlowOut(sa, at, flow.get());
      if (next == 0) break;
      EXPECT_GE(next, at);
      EXPECT_TRUE(std::count(std::begin(attributes), std::end(attributes), next)) << next;
      if (flow->bookmark() != 0)
        EXPECT_EQ(flow->bookmark(), next);
      else
        EXPECT_GT(next, at);
      at = next;
    } while (++calls < 100);
    ASSERT_LT(calls, 100u);
    EXPECT_TRUE(flow->isClean());

    const auto copy = TallTree::TallTreeIs("copy");
    TreeModel wanted = modelOf(*tree);
    if (start > 258) wanted.marks.clear();
    if (start > 259) wanted.flags.clear();
    if (start > 260) wanted.places.clear();
    if (start > 261) wanted.stops.clear();
    if (start > 262) wanted.branches.clear();
    if (start > 263) wanted.slots.clear();
    if (start > 264) wanted.colour = red;
    if (start > 266) wanted.level = 0;
    if (start > 386) wanted.height = 100;
    Reader reader(copy, tree->identity());
    reader.arrived(stream.out().data(), stream.out().size());
    EXPECT_EQ(modelOf(*copy), wanted);
  }
}

// Catches two walks at once.
TEST(AttrLogPumpDeathTest, hasOneBookmark) {
  const auto tree = TallTree::TallTreeIs("t");
  Stream stream;
  Session session(stream, tree, Session::writes);
  const auto flow = newFlowOut(adapterOf(*tree), 0);
  flow->bookmarkIs(258, U32{5});
  EXPECT_DEATH(flow->bookmarkIs(260, Port()),
               "NboAttrLogFlow: .*\"!rsc->bookmark\\(\\)\" failed");
}

// Catches writes during a walk that are lost, sent twice or sent too old.
TEST(AttrLogPump, sendsWhatChangedBehindTheWalkOnceMoreAndNothingElse) {
  const auto tree = TallTree::TallTreeIs("t"), copy = TallTree::TallTreeIs("copy");
  for (U32 n = 0; n < 20; ++n)
    tree->stopIs(Stop(Kop::String(std::to_string(n)), 1u));
  std::vector<Kop::String> order;
  for (const auto& node : tree->stop())
    order.push_back(node.key());
  Link link(tree, copy);
  link.writer.resync();
  link.stream.creditIs(0);
  const auto walked = [&] { return adapterOf(*tree).flowOut()->bookmark() == 261; };
  for (int i = 0; i < 40 && !(walked() && link.stream.counters().messagesOut > 20); ++i) {
    link.stream.creditIs(1);
    ASSERT_FALSE(link.writer.process());
  }
  std::map<std::string, U32> sets, deletes;
  const auto count = [&] {
    for (const Bytes& each : framesOf(bytesOf(link.stream.out()))) {
      In in(each.data() + 13, each.size() - 13);
      if (headOf(each) == Head{21, 261}) ++sets[std::string(in.nextString())];
      if (headOf(each) == Head{20, 0u - 261}) ++deletes[std::string(in.nextString())];
    }
  };
  count();
  const std::size_t sent = sets.size();
  ASSERT_GT(sent, 2u);
  ASSERT_LT(sent, 17u);
  link.carry(link.stream.out().size());
  tree->stopIs(Stop(order[0], 2u));         // behind
  tree->stopDel(order[1]);                  // behind
  tree->stopDel(order[sent]);               // the bookmark itself
  tree->stopIs(Stop(order[sent + 1], 2u));  // ahead
  tree->stopDel(order[sent + 2]);           // ahead
  tree->stopIs(Stop("new", 3u));
  link.stream.creditIs(1000);
  ASSERT_TRUE(link.writer.process());
  count();
  link.drain();
  EXPECT_EQ(modelOf(*copy), modelOf(*tree));
  for (std::size_t i = 0; i < order.size(); ++i) {
    const bool gone = i == 1 || i == sent || i == sent + 2;
    const std::string key(order[i]);
    EXPECT_EQ(sets[key], i == 0 ? 2u : i == sent || i == sent + 2 ? 0u : 1u) << i;
    EXPECT_EQ(deletes[key], gone ? 1u : 0u) << i;
  }
  EXPECT_EQ(sets["new"], 1u);
}

// Catches a collection that is sent again while the walk of another one waits.
TEST(AttrLogPump, finishesAWaitingWalkBeforeItBeginsAnother) {
  const auto tree = TallTree::TallTreeIs("t"), copy = TallTree::TallTreeIs("copy");
  for (U32 n = 0; n < 20; ++n)
    tree->markIs(n), tree->placeIs(Port(n, U8{0}), placeOf(n));
  Link link(tree, copy);
  link.writer.resync();
  link.stream.creditIs(30);
  ASSERT_FALSE(link.writer.process());
  ASSERT_EQ(adapterOf(*tree).flowOut()->bookmark(), 260u);
  tree->markDel(3);  // its mark goes with the others
  for (U32 n = 100; n < 2000; ++n)
    tree->markIs(n), tree->markDel(n);
  ASSERT_EQ(link.stream.counters().walksAgain, 1u);
  for (int i = 0; i < 100; ++i) {
    link.stream.creditIs(2);
    link.writer.process();
  }
  link.stream.creditIs(1u << 20);
  link.drain();
  EXPECT_EQ(modelOf(*copy), modelOf(*tree));
}

// Every message there is, from a writer that is live and then sends all.
std::vector<Bytes> allMessages(const Kop::Ptr<TallTree>& tree) {
  Stream stream;
  Session session(stream, tree, Session::writes);
  session.resync();
  session.process();
  tree->markDel(1);
  tree->branch("1")->leafIs("leaf")->sizeIs(3);
  session.process();
  tree->branch("1")->leaf("leaf")->spotIs(1, true);
  tree->branchDel("1");
  return framesOf(bytesOf(stream.out()));
}

struct Victim {
  explicit Victim(U64 root, const std::vector<Bytes>& messages)
      : tree(TallTree::TallTreeIs("copy")), session(stream, tree, Session::reads, root) {
    for (const Bytes& each : messages)
      stream.received(each);
    before = modelOf(*tree);
  }
  // Whether it was taken. What is thrown must be the system's own, and change nothing.
  bool takes(const Bytes& bytes) {
    try {
      stream.received(bytes);
    } catch (const Kop::Exception&) {
      EXPECT_EQ(modelOf(*tree), before);
      return false;
    }
    return true;
  }
  Kop::Ptr<TallTree> tree;
  Stream stream;
  Session session;
  TreeModel before;
};

// Catches a message that is half applied, or believed beyond its bytes.
TEST(AttrLogCorrupt, messagesAreAppliedWholeOrRefused) {
  const auto tree = fullTree("t");
  const U64 root = tree->identity();
  const std::vector<Bytes> messages = allMessages(tree);
  ASSERT_GT(messages.size(), 50u);
  auto victim = std::make_unique<Victim>(root, messages);
  U32 taken = 0, refused = 0;
  const auto give = [&](const Bytes& bytes) {
    const bool took = victim->takes(bytes);
    ++(took ? taken : refused);
    if (took || ::testing::Test::HasFailure())
      victim = std::make_unique<Victim>(root, messages);
    return took;
  };
  std::set<std::pair<U8, U32>> seen;  // one of each kind and attribute is enough
  for (const Bytes& message : messages) {
    if (!seen.insert({message[0], wordAt(message, 9)}).second) continue;
    for (std::size_t size = 0; size < message.size(); ++size)
      EXPECT_FALSE(
          give(Bytes(message.begin(), message.begin() + static_cast<long>(size))));
    Bytes longer = message;
    longer.push_back(0);
    EXPECT_FALSE(give(longer));
    for (std::size_t at = 0; at < message.size(); ++at) {
      for (const U8 mask : {0x01, 0x02, 0x10, 0x80, 0xff}) {
        Bytes changed = message;
        changed[at] ^= mask;
        give(changed);
      }
    }
    ASSERT_FALSE(HasFailure()) << "kind " << int{message[0]};
  }
  Random random(7);
  for (int i = 0; i < 20000; ++i) {
    Bytes bytes(random() % 60);
    for (U8& byte : bytes)
      byte = static_cast<U8>(random() % 4 ? random() % 3 : random());
    const Bytes& model = messages[random() % messages.size()];
    std::copy_n(model.begin(), std::min<std::size_t>(bytes.size(), 13), bytes.begin());
    give(bytes);
  }
  EXPECT_GT(taken, 100u);
  EXPECT_GT(refused, 1000u);
}

TEST(AttrLogCorrupt, childrenNeedAnIdentityOfTheirOwn) {
  const auto tree = fullTree("t");
  const U64 root = tree->identity();
  const U64 taken = tree->branch("0")->identity();
  Victim victim(root, allMessages(tree));
  for (const U64 identity : {taken, root, U64{0}})
    for (const char* key : {"00000001 7a", "00000001 32"})  // a new one, a present one
      EXPECT_FALSE(victim.takes(frame(25, root, 262, key + hex64(identity)))) << identity;
}

// Catches memory taken on a peer's word.
TEST(AttrLogCorrupt, countsAndLengthsAreNotBelieved) {
  const auto tree = TallTree::TallTreeIs("t");
  Victim victim(1, {});
  for (const U32 attribute : {258u, 259u, 260u, 261u, 262u, 263u, 387u})
    EXPECT_TRUE(victim.takes(frame(22, 1, attribute, "ffffffff")));
  const std::size_t memory = victim.tree->mark().memory() +
                             victim.tree->place().memory() +
                             victim.tree->crowd().memory();
  EXPECT_LT(memory, 32u << 10) << "for three messages of 21 bytes";
  EXPECT_FALSE(victim.takes(frame(21, 1, 259, "ffffffff 6162 01")));
  EXPECT_FALSE(victim.takes(frame(21, 1, 387, "0001 00000001 ffffffff 00000001 78")));
}

// Catches a replica that is written by somebody else than its writer.
TEST(AttrLogReplica, refusesLocalWrites) {
  const auto tree = fullTree("t"), copy = TallTree::TallTreeIs("copy");
  tree->branch("0")->leafIs("leaf");
  Link link(tree, copy);
  link.writer.resync();
  link.drain();
  const TreeModel before = modelOf(*copy);
  ASSERT_EQ(before, modelOf(*tree));
  Watch watch;
  copy->notifieeAdd(&watch);
  const Kop::FwkType type = copy->fwkType();
  const U32 key = 0, absent = 99;
  const Colour colour = none;
  const std::function<void()> writes[] = {
      [&] { copy->colourIs(none); },
      [&] { copy->heightIs(9); },
      [&] { copy->markIs(absent); },
      [&] { copy->markDel(0); },
      [&] { copy->markDelAll(); },
      [&] { copy->flagIs("0", true); },
      [&] { copy->placeIs(Port(0, U8{2}), placeOf(9)); },
      [&] { copy->stopIs(Stop("0", 9u)); },
      [&] { copy->branchIs("new"); },
      [&] { copy->branchDel("0"); },
      [&] { copy->branchDelAll(); },
      [&] { copy->branch("0")->labelIs("x"); },
      [&] { copy->branch("0")->leaf("leaf")->sizeIs(9); },
      [&] {
        entityAttributeOp({type, 264}, Kop::EntityOp::set, *copy, nullptr, &colour, {});
      },
      [&] {
        entityAttributeOp({type, 258}, Kop::EntityOp::del, *copy, &key, {}, {});
      },
      [&] {
        entityAttributeOp({type, 258}, Kop::EntityOp::set, *copy, &absent, {}, {});
      },
      [&] {
        entityIterator({type, 258}, *copy)->iterDel();
      },
  };
  for (const auto& write : writes)
    EXPECT_THROW(write(), Kop::WriteUpdateFromReadOnlyProxyException)
        << &write - std::begin(writes);
  copy->colourIs(distant);  // equal writes and absent keys change nothing and may be made
  copy->markIs(0);
  copy->flagIs("1", true);
  copy->placeIs(Port(0, U8{2}), placeOf(0));
  copy->markDel(absent);
  copy->branchIs("0");
  EXPECT_FALSE(copy->branchDel("absent"));
  EXPECT_EQ(modelOf(*copy), before);

  // Deletes of absent keys say nothing here either.
  link.reader.stream.received(frame(20, tree->identity(), 4294967038u, "00000063"));
  link.reader.stream.received(frame(20, tree->identity(), 4294967034u, "00000001 7a"));
  EXPECT_EQ(watch.told, 0u);
  tree->markDel(0);
  link.drain();
  EXPECT_EQ(watch.told, 1u);

  link.reader.session.remoteReadOnlyIs(true);
  tree->markDel(1);
  EXPECT_THROW(link.drain(), Kop::WriteUpdateFromReadOnlyProxyException);
  EXPECT_TRUE(copy->markHas(1));
  copy->notifieeDel(&watch);
}

// Catches an echo, and children that only the side that made them can write.
TEST(AttrLogBoth, sidesWriteToEachOtherWithoutEcho) {
  const auto a = TallTree::TallTreeIs("a"), b = TallTree::TallTreeIs("b");
  Stream aStream, bStream;
  Session aSession(aStream, a, Session::both, b->identity());
  Session bSession(bStream, b, Session::both, a->identity());
  const auto settle = [&] {
    U64 messages = 0;
    for (bool quiet = false; !quiet;) {
      quiet = aSession.process();
      quiet = bSession.process() && quiet;
      const auto toB = taken(aStream), toA = taken(bStream);
      for (const Bytes& each : toB)
        bStream.received(each);
      for (const Bytes& each : toA)
        aStream.received(each);
      messages += toA.size() + toB.size();
      quiet = quiet && toA.empty() && toB.empty();
    }
    EXPECT_EQ(modelOf(*a), modelOf(*b));
    return messages;
  };
  a->markIs(1);
  b->flagIs("b", true);
  EXPECT_EQ(settle(), 2u);
  a->branchIs("a");
  b->branchIs("b");
  EXPECT_EQ(settle(), 2u);
  a->branch("b")->labelIs("by a");
  b->branch("a")->labelIs("by b");
  b->branch("a")->leafIs("by b");
  EXPECT_EQ(settle(), 3u);
  a->branch("a")->leaf("by b")->spotIs(1, true);
  EXPECT_EQ(settle(), 1u);
  a->branchDel("b");
  b->branchDel("a");
  EXPECT_EQ(settle(), 2u);

  // Whoever hears of a new child may fill it at once.
  struct Fill : Kop::Reactor<TallTree> {
    using Reactor::Reactor;
    void branchReaction(const Kop::String& key) override {
      if (const auto branch = notifier()->branch(key)) branch->labelIs("filled");
    }
  };
  const Fill fill(b);
  a->branchIs("c");
  settle();
  EXPECT_EQ(a->branch("c")->label(), "filled");
}

// Catches a session that leaves its entities' adapters behind in the stream.
TEST(AttrLogBoth, streamsForgetASessionThatEnds) {
  const auto tree = TallTree::TallTreeIs("t");
  Stream stream;
  for (const U64 root : {U64{0}, U64{0}, U64{5}}) {
    {
      Session session(stream, tree, Session::reads, root);
      stream.received(frame(25, root, 262, "00000001 62" + hex64(77)));
    }
    EXPECT_THROW(stream.received(frame(1, root, 264, "00000002")),
                 Kop::LogCorruptException);
    EXPECT_THROW(stream.received(frame(1, 77, 258, "00000000")),
                 Kop::LogCorruptException);
  }
}

// Catches messages that the peer cannot know an entity for.
TEST(AttrLogBoth, childrenOfBeforeAreUnknownUntilEverythingIsSent) {
  const auto tree = fullTree("t"), copy = TallTree::TallTreeIs("copy");
  Link link(tree, copy);
  tree->branch("0")->labelIs("x");
  tree->colourIs(redder);
  link.drain();
  EXPECT_EQ(copy->colour(), redder);
  EXPECT_EQ(copy->branchCount(), 0u);
  link.writer.resync();
  link.drain();
  EXPECT_EQ(modelOf(*copy), modelOf(*tree));
}

TEST(AttrLogAnchor, assertsOnNothingAndOnReEntry) {
  const auto tree = TallTree::TallTreeIs("t");
  Stream stream;
  Session session(stream, tree, Session::writes);
  EntitySa& sa = adapterOf(*tree);
  { const Kop::StreamAdapterIsActiveAnchor first(&sa); }
  const Kop::StreamAdapterIsActiveAnchor again(&sa);
  EXPECT_DEATH(Kop::StreamAdapterIsActiveAnchor(nullptr),
               "NboAttrLogSa: .*\"!_isActive\"");
  EXPECT_DEATH(Kop::StreamAdapterIsActiveAnchor{&sa}, "NboAttrLogSa: .*\"!_isActive\"");
}

}  // namespace
}  // namespace Sample
