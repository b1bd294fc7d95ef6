#include <algorithm>

#include <gtest/gtest.h>

#include "Kop/EntityImpl.h"
#include "LogLink.h"
#include "TreeModel.h"

// What a type offers by name to those who have no session or no type at hand: each must do
// what the session, or the typed call, does.

namespace Sample {
namespace {

using Kop::AttributeOp;
using Kop::NboAttrLog::In;

TEST(EntryPoints, sendAndTakeWhatASessionDoes) {
  using Type = Kop::TypeImpl<TallTree>;
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

TEST(EntryPoints, readAttributesByNumber) {
  const Kop::FwkType port{Kop::findModule("TestTypes"), 3};
  const Port value(5, U8{7});
  U8 chip = 0;
  const auto get = [&](U32 number) {
    return valueAttributeOp({port, number}, AttributeOp::get, const_cast<Port*>(&value),
                            nullptr, &chip);
  };
  EXPECT_TRUE(get(3) && chip == 7);
  EXPECT_FALSE(get(99));
}

// A buffer is an argument of functions: it is passed on, and nothing else.
TEST(EntryPoints, passBuffersByAddress) {
  const U8 byte = 0, *const address = &byte;
  Kop::GenericValue buffer(&Kop::TypeOpsOf<const U8*>::ops, &address), to(buffer.type());
  const Kop::TypeOps& ops = *buffer.type();
  EXPECT_TRUE(ops.truth(buffer.get()) && !ops.truth(to.get()) && !(to == buffer));
  ops.assign(to.get(), buffer.get());
  EXPECT_EQ(to, buffer);
  Kop::NboAttrLog::Out log;
  In in(&byte, 1);
  EXPECT_THROW(buffer.text(), Kop::Exception);
  EXPECT_THROW(buffer.textIs("0"), Kop::Exception);
  EXPECT_THROW(ops.logWrite(log, buffer.get()), Kop::Exception);
  EXPECT_THROW(ops.logRead(buffer.get(), in), Kop::Exception);
  EXPECT_THROW(ops.less(buffer.get(), to.get()), Kop::UnorderedTypeException);
  EXPECT_THROW(ops.hash(buffer.get()), Kop::UnhashableTypeException);
}

}  // namespace
}  // namespace Sample
