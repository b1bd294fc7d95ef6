#include <algorithm>

#include <gmock/gmock.h>

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

TEST(EntryPoints, findTypesEnumeratorsAndAttributes) {
  for (const Kop::ModuleDescriptor* const module : Kop::modules()) {
    for (const Kop::TypeRecord& type : module->types) {
      EXPECT_EQ(module->type(type.name), &type) << type.name;
      if (type.kind != Kop::Kind::enumeration) continue;
      for (const auto& member : type.members)
        EXPECT_EQ(type.enumerator(member.value), &member) << type.name;
    }
  }
  EXPECT_EQ(Kop::findModule("TestTypes")->type("Sample::Nothing"), nullptr);
  EXPECT_EQ(Kop::EnumOps<Shape>::instance("area"), area);
  EXPECT_EQ(Kop::EnumOps<Colour>::instance("distant"), distant);
  EXPECT_THROW(Kop::EnumOps<Shape>::instance("ar"), Kop::RangeException);

  const auto* const module = Kop::findModule("TestTypes");
  const auto index = module->type("Sample::Place") - module->types.data();
  const Kop::FwkType place{module, static_cast<U32>(index)};
  Place value;
  value.widthIs(7);
  U16 width = 0;
  EXPECT_TRUE(valueAttributeOp({place, 9}, AttributeOp::get, &value, nullptr, &width));
  EXPECT_EQ(width, 7);
  EXPECT_THAT(TallTree::kopAllocTrack().typeName(), testing::HasSubstr("TallTree"));
  EXPECT_FALSE(valueAttributeOp({place, 99}, AttributeOp::get, &value, nullptr, &width));
}

// A buffer is an argument of functions: it is passed on, and nothing else.
TEST(EntryPoints, passBuffersByAddress) {
  const Kop::TypeOps& ops = Kop::TypeOpsOf<const U8*>::ops;
  const U8 bytes[2] = {};
  const U8 *from = bytes, *to = nullptr;
  alignas(8) U8 room[sizeof from];
  ops.construct(room, nullptr);
  EXPECT_FALSE(ops.truth(room));
  ops.assign(room, &from);
  EXPECT_TRUE(ops.truth(room) && ops.equal(room, &from));
  EXPECT_FALSE(ops.equal(room, &to));
  ops.destruct(room);
  Kop::TextOut text;
  Kop::NboAttrLog::Out log;
  Kop::TextIt it("0"), end = it;
  In in(bytes, 2);
  EXPECT_THROW(ops.text(text, room), Kop::Exception);
  EXPECT_THROW(ops.parse(room, it, end, ""), Kop::Exception);
  EXPECT_THROW(ops.logWrite(log, room), Kop::Exception);
  EXPECT_THROW(ops.logRead(room, in), Kop::Exception);
  EXPECT_THROW(ops.less(room, room), Kop::UnorderedTypeException);
  EXPECT_THROW(ops.hash(room), Kop::UnhashableTypeException);
}

}  // namespace
}  // namespace Sample
