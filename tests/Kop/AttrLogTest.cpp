#include "Drem/Error.h"
#include "Kop/EntityImpl.h"
#include "LogLink.h"
#include "TreeModel.h"
#include "tests/Support/Testing.h"

namespace Sample {
namespace {

using Kop::EntityOp;
using Kop::NboAttrLog::In;
using Type = Kop::TypeImpl<TallTree>;

std::string hex64(U64 number) {
  return Kop::stringPrintf("%016lx", number).c_str();
}
// A frame without its length word; the body in hexadecimal.
Bytes frame(U8 kind, U64 identity, U32 attribute, const std::string& body) {
  std::string digits =
      Kop::stringPrintf("%02x%016lx%08x", kind, identity, attribute).c_str();
  for (const char c : body)
    if (c != ' ') digits += c;
  Bytes bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2)
    bytes.push_back(static_cast<U8>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  return bytes;
}
// With every collection filled.
void fill(const Kop::Ptr<TallTree>& tree) {
  TreeModel model = dump(*tree);
  Random random(1);
  for (U32 serial = 0; serial < 100; ++serial)
    randomWrite(random, *tree, model, serial, true);
  tree->markIs(0);
  for (const char* const key : {"key0", "key1", "key2"})
    tree->branchIs(key)->leafIs("leaf");
}
Kop::Ptr<TallTree> fullTree() {
  const auto tree = TallTree::TallTreeIs("t");
  fill(tree);
  return tree;
}

// Catches a layout that changed: the peers are other builds of this system.
TEST(AttrLogBytes, areThoseOfTheLayout) {
  const auto tree = TallTree::TallTreeIs("t");
  Stream stream;
  Session session(stream, tree, Session::writes);
  const U64 self = tree->identity();
  const Place place(Port(0x0102030405060708, U8{9}), "ab", Level(4), area, redder, true,
                    -1.0f, U16{0x1234});
  const std::string placeBody =
      "0102030405060708 09  0102030405060708 09 00000002 6162 0004 0000001f 00000002 01 "
      "bf800000 1234";
  const std::string stopBody = "00000001 6e 00000001 6e 00000003";
  const std::string crowdBody =
      "0004 00000001 00000001 00000004 6b657931 00000001 00000001 01 00000001 00000001 "
      "0004 00";
  const Crowd crowd = valueOf<Crowd>(1);
  // clang-format off
  const std::pair<std::function<void()>, Bytes> rows[] = {
      {[&] { tree->ratioIs(-1.0f); }, frame(1, self, 265, "bf800000")},
      {[&] { tree->levelIs(Level(5)); }, frame(1, self, 266, "0005")},
      {[&] { tree->markIs(7); }, frame(21, self, 258, "00000007 01")},
      {[&] { tree->markDel(7); }, frame(20, self, 4294967038u, "00000007")},
      {[&] { tree->flagIs("ab", false); }, frame(21, self, 259, "00000002 6162 00")},
      {[&] { tree->placeIs(place.port(), place); }, frame(21, self, 260, placeBody)},
      {[&] { tree->stopIs(Stop("n", 3u)); }, frame(21, self, 261, stopBody)},
      {[&] { tree->crowdIs(4, crowd); }, frame(21, self, 387, crowdBody)},
      {[&] { tree->crowdDel(4); }, frame(20, self, 0xfffffe7d, "0004")},
  };
  // clang-format on
  for (const auto& [write, wanted] : rows) {
    write();
    EXPECT_EQ(taken(stream), std::vector<Bytes>{wanted});
  }

  const auto branch = tree->branchIs("b");
  const auto slot = tree->slotIs(area);
  branch->labelIs("x");
  slot->depthIs(0x0203);
  tree->branchDel("b");
  branch->labelIs("not followed any more");
  ASSERT_EQ(wordAt(bytesOf(stream.out()), 0), 13 + 5 + 8u) << "of what is behind it";
  EXPECT_EQ(taken(stream),
            (std::vector{
                frame(25, self, 262, "00000001 62" + hex64(branch->identity())),
                frame(25, self, 263, "0000001f" + hex64(slot->identity())),
                frame(1, branch->identity(), 258, "00000001 78"),
                frame(1, slot->identity(), 258, "0203"),
                frame(20, self, 4294967034u, "00000001 62"),
            }));

  // The whole of it: what is set as above, every collection between its two marks.
  session.resync();
  ASSERT_TRUE(session.process());
  std::string all;
  for (const Bytes& each : taken(stream)) {
    all += Kop::stringPrintf("%u:%u", each[0], wordAt(each, 9)).c_str();
    if (each[0] == 22 || each[0] == 26)
      all += ":" + Drem::dumpHex(&each[13], each.size() - 13);
    all += ' ';
  }
  EXPECT_EQ(all,
            "26:0:01 22:258:00 00 00 00 24:258 22:259:00 00 00 01 21:259 24:259 "
            "22:260:00 00 00 01 21:260 24:260 22:261:00 00 00 01 21:261 24:261 "
            "22:262:00 00 00 00 24:262 22:263:00 00 00 01 25:263 24:263 "
            "1:264 1:265 1:266 1:386 22:387:00 00 00 00 24:387 1:258 27:0 ");
}

// Catches a pump that loses, repeats or reorders attributes when it is stopped, at any start.
TEST(AttrLogPump, stoppedAfterEveryMessageSendsAllFromItsStart) {
  for (const U32 start : {0u, 258u, 259u, 262u, 263u, 264u, 266u, 386u, 387u}) {
    SCOPED_TRACE(start);
    const auto tree = TallTree::TallTreeIs("t"), copy = TallTree::TallTreeIs("copy");
    Stream stream;
    Session session(stream, tree, Session::writes);
    fill(tree);
    tree->branchDelAll(), tree->slotDelAll();
    tree->slotIs(line);
    for (const char* const key : {"a", "b", "c"})  // their contents are pumped elsewhere
      tree->branchIs(key);
    taken(stream);
    EntitySa& sa = adapterOf(*tree);
    const auto flow = newFlowOut(sa, start);
    EXPECT_EQ(Type::handleAttrFlowOut(sa, 300, flow.get()), 0xffffffffu);
    stream.creditIs(0);
    U32 at = Type::handleAttrFlowOut(sa, start, flow.get());
    EXPECT_TRUE(start > 0 || (at == 258 && stream.out().empty()));
    while (at != 0) {
      stream.creditIs(1);
      const U32 next = Type::handleAttrFlowOut(sa, at, flow.get());
      if (flow->bookmark() != 0)
        ASSERT_EQ(flow->bookmark(), next);
      else
        ASSERT_TRUE(next == 0 || (next > at && tree->kopTable().find(next))) << next;
      at = next;
    }
    EXPECT_TRUE(flow->isClean());

    TreeModel wanted = dump(*copy);
    for (const auto& [path, value] : dump(*tree))
      for (const auto& attr : tree->kopTable().attrs)
        if (attr.number >= start && path.substr(0, path.find('/')) == attr.name)
          wanted[path] = value;
    Reader reader(copy, tree->identity());
    reader.arrived(stream.out().data(), stream.out().size());
    EXPECT_EQ(dump(*copy), wanted);
  }
}

// Every message there is, from a writer that is live and then sends all.
std::vector<Bytes> allMessages(const Kop::Ptr<TallTree>& tree) {
  Stream stream;
  Session session(stream, tree, Session::writes);
  session.resync();
  session.process();
  tree->markDel(0);
  tree->branch("key1")->leaf("leaf")->spotIs(1, true);
  tree->branchDel("key1");
  return framesOf(bytesOf(stream.out()));
}

struct Victim {
  explicit Victim(U64 root, const std::vector<Bytes>& messages)
      : tree(TallTree::TallTreeIs("copy")), session(stream, tree, Session::reads, root) {
    for (const Bytes& each : messages)
      stream.received(each);
    before = dump(*tree);
  }
  // Whether it was taken. What is thrown must be the system's own, and change nothing.
  bool takes(const Bytes& bytes) {
    try {
      stream.received(bytes);
    } catch (const Kop::Exception&) {
      EXPECT_EQ(dump(*tree), before);
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
  const auto tree = fullTree();
  const U64 root = tree->identity();
  const std::vector<Bytes> messages = allMessages(tree);
  ASSERT_GT(messages.size(), 40u);
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
    for (std::size_t at = 0; at < message.size(); at += Support::stride) {
      for (const U8 mask : {0x01, 0x02, 0x10, 0x80, 0xff}) {
        Bytes changed = message;
        changed[at] ^= mask;
        give(changed);
      }
    }
    ASSERT_FALSE(HasFailure()) << "kind " << int{message[0]};
  }
  EXPECT_GT(taken, 100u);
  EXPECT_GT(refused, 1000u);
}

TEST(AttrLogCorrupt, childrenNeedAnIdentityOfTheirOwn) {
  const auto tree = fullTree();
  const U64 root = tree->identity(), gone = tree->branch("key1")->identity();
  Victim victim(root, allMessages(tree));
  EXPECT_FALSE(victim.takes(frame(1, gone, 258, "00000000"))) << "it was deleted";
  for (const U64 identity : {tree->branch("key0")->identity(), root, U64{0}})
    for (const char* key : {"00000001 7a", "00000004 6b657932"})  // a new one, key2
      EXPECT_FALSE(victim.takes(frame(25, root, 262, key + hex64(identity)))) << identity;

  // A child that both sides made goes by the other side's identity, and its own is forgotten.
  Stream stream;
  Session session(stream, tree, Session::both, 1);
  session.process();
  const U64 own = tree->branchIs("b9")->identity();
  stream.received(frame(1, own, 258, "00000000"));
  stream.received(frame(25, 1, 262, "00000002 6239" + hex64(77)));
  stream.received(frame(1, 77, 258, "00000000"));
  tree->branchDel("b9");
  for (const U64 identity : {own, U64{77}})
    EXPECT_THROW(stream.received(frame(1, identity, 258, "00000000")),
                 Kop::LogCorruptException);
}

// Catches memory taken on a peer's word.
TEST(AttrLogCorrupt, countsAndLengthsAreNotBelieved) {
  Victim victim(1, {});
  for (const U32 attribute : {258u, 259u, 260u, 261u, 262u, 263u, 387u})
    EXPECT_TRUE(victim.takes(frame(22, 1, attribute, "ffffffff")));
  EXPECT_LT(victim.tree->mark().memory() + victim.tree->place().memory() +
                victim.tree->crowd().memory(),
            32u << 10)
      << "for three messages of 21 bytes";
  EXPECT_FALSE(victim.takes(frame(21, 1, 259, "ffffffff 6162 01")));
  EXPECT_FALSE(victim.takes(frame(21, 1, 387, "0001 00000001 ffffffff 00000001 78")));
}

// Catches a replica that is written by somebody else than its writer.
TEST(AttrLogReplica, refusesLocalWrites) {
  using Refused = Kop::WriteUpdateFromReadOnlyProxyException;
  const auto tree = fullTree(), copy = TallTree::TallTreeIs("copy");
  Link link(tree, copy);
  link.writer.resync();
  link.drain();
  const TreeModel before = dump(*copy);
  ASSERT_EQ(before, dump(*tree));
  // Whatever is written, a change is refused; an equal write and a delete of what is not
  // there may be made.
  Random random(5);
  U32 refused = 0;
  for (U32 serial = 0; serial < 2000; ++serial) {
    TreeModel model = before;
    try {
      randomWrite(random, *copy, model, serial % 100);
    } catch (const Refused&) {
      ++refused;
    }
    ASSERT_EQ(dump(*copy), before);
    ASSERT_EQ(model, before);
  }
  EXPECT_GT(refused, 300u);
  for (const auto& node : tree->place())
    copy->placeIs(node.key(), node.value);
  copy->markIs(0);
  copy->branchIs("key0");
  copy->colourIs(tree->colour());
  EXPECT_THROW(copy->colourIs(none), Refused);
  EXPECT_THROW(entityIterator({copy->fwkType(), 258}, *copy)->iterDel(), Refused);
  link.reader.session.remoteReadOnlyIs(true);
  tree->colourIs(none);
  EXPECT_THROW(link.drain(), Refused);
  EXPECT_EQ(dump(*copy), before);
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
      aSession.process(), bSession.process();
      const auto toB = taken(aStream), toA = taken(bStream);
      for (const Bytes& each : toB)
        bStream.received(each);
      for (const Bytes& each : toA)
        aStream.received(each);
      messages += toA.size() + toB.size();
      quiet = toA.empty() && toB.empty();
    }
    return messages;
  };
  Random random(17);
  TreeModel model = dump(*a);
  for (U32 serial = 0; serial < 1000; ++serial) {
    const TreeModel before = model;
    randomWrite(random, random() % 2 ? *a : *b, model, serial, true);
    ASSERT_EQ(settle(), model == before ? 0u : 1u) << serial;
    ASSERT_EQ(dump(*a), model) << serial;
    ASSERT_EQ(dump(*b), model) << serial;
  }

  // Whoever hears of a new child may fill it at once.
  struct Fill : Kop::Reactor<TallTree> {
    void branchReaction(const Kop::String& key) override {
      if (const auto branch = notifier()->branch(key)) branch->labelIs("filled");
    }
  } fill;
  fill.notifierIs(b);
  a->branchIs("c");
  settle();
  EXPECT_EQ(a->branch("c")->label(), "filled");
}

// Catches a function of a type that sends or takes another thing than the session does.
TEST(AttrLogEntryPoints, sendAndTakeWhatASessionDoes) {
  const auto tree = TallTree::TallTreeIs("t"), copy = TallTree::TallTreeIs("copy");
  Stream stream;
  Session session(stream, tree, Session::writes);
  EntitySa& sa = adapterOf(*tree);
  const U32 five = 5;
  tree->markIs(five);
  const std::vector<Bytes> set = taken(stream);
  ASSERT_EQ(set.size(), 1u);
  Type::kopHandleMarkSerializeSing(*tree, sa, five);
  EXPECT_EQ(taken(stream), set);
  Type::streamAdapterOnAttribute(sa, 258, &five);
  EXPECT_EQ(taken(stream), set);
  EXPECT_TRUE(Type::kopHandleMarkSerializeColl(*tree, sa, nullptr));
  const std::vector<Bytes> all = taken(stream);
  EXPECT_EQ(std::count(all.begin(), all.end(), set[0]), 1);

  Reader reader(copy, tree->identity());
  EntitySa& its = *reader.stream.demux(tree->identity());
  In in(&set[0][13], set[0].size() - 13), again = in;
  Type::doHandleAttrDeserialization(its, 258, in);
  EXPECT_TRUE(copy->markHas(five));
  EXPECT_THROW(Type::doHandleAttrDeserialization(its, 999, again),
               Kop::LogCorruptException);

  stream.creditIs(0);
  tree->markIs(6);
  Type::freeResyncState(*sa.flowOut());
  EXPECT_FALSE(sa.flowOut()->hasDirtyCollKeys());
}

// Catches two walks at once, and a message that is applied within another one.
TEST(AttrLogDeathTest, bookmarksAndAnchorsAreHeldOnce) {
  const auto tree = TallTree::TallTreeIs("t");
  Stream stream;
  Session session(stream, tree, Session::writes);
  EntitySa& sa = adapterOf(*tree);
  const auto flow = newFlowOut(sa, 0);
  flow->bookmarkIs(258, U32{5});
  EXPECT_DEATH(flow->bookmarkIs(260, Port()),
               "NboAttrLogFlow: .*\"!rsc->bookmark\\(\\)\" failed");
  { const Kop::StreamAdapterIsActiveAnchor first(&sa); }
  const Kop::StreamAdapterIsActiveAnchor again(&sa);
  const char* const text = "NboAttrLogSa: .*\"!_isActive\"";
  EXPECT_DEATH(Kop::StreamAdapterIsActiveAnchor(nullptr), text);
  EXPECT_DEATH(Kop::StreamAdapterIsActiveAnchor{&sa}, text);
}

}  // namespace
}  // namespace Sample
