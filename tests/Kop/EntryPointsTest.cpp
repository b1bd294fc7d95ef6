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
  tree->markIs(5);
  const std::vector<Bytes> set = taken(stream);
  ASSERT_EQ(set.size(), 1u);
  const U32 five = 5;
  Type::kopHandleMarkSerializeSing(*tree, sa, five);
  EXPECT_EQ(taken(stream), set);
  Type::streamAdapterOnAttribute(sa, 258, &five);
  EXPECT_EQ(taken(stream), set);
  EXPECT_TRUE(Type::kopHandleMarkSerializeColl(*tree, sa, nullptr));
  const std::vector<Bytes> all = taken(stream);
  EXPECT_EQ(std::count(all.begin(), all.end(), set[0]), 1);
  tree->markDel(5);
  const std::vector<Bytes> del = taken(stream);
  tree->heightIs(9);
  const std::vector<Bytes> scalar = taken(stream);

  Reader reader(copy, tree->identity());
  EntitySa& its = *reader.stream.demux(tree->identity());
  const auto take = [&](const std::vector<Bytes>& frames, U32 attribute) {
    In in(frames.at(0).data() + 13, frames.at(0).size() - 13);
    Type::doHandleAttrDeserialization(its, attribute, in);
  };
  take(set, 258);
  EXPECT_TRUE(copy->markHas(5));
  take(del, -258u);
  EXPECT_FALSE(copy->markHas(5));
  take(scalar, wordAt(scalar[0], 9));
  EXPECT_EQ(dump(*copy), dump(*tree));
  EXPECT_THROW(take(set, 999), Kop::LogCorruptException);

  stream.creditIs(0);
  tree->markIs(6);
  Kop::NboAttrLog::FlowOut& flow = *sa.flowOut();
  EXPECT_TRUE(flow.hasDirtyCollKeys());
  Type::freeResyncState(flow);
  EXPECT_FALSE(flow.hasDirtyCollKeys());
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
