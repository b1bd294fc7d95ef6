#include "Kop/GenericIfImpl.h"
#include "TestTypes.h"
#include "TreeModel.h"
#include "tests/Support/Testing.h"

namespace Sample {
namespace {

// Catches a key that a value's collection takes twice, or a write that does not replace.
TEST(ValueCollections, holdAKeyOnce) {
  Crowd crowd;
  for (const U32 cost : {5u, 6u})  // the later one stands
    crowd.costIs(Hop(1, U8{1}), cost), crowd.rankIs(Level(9), cost == 6);
  crowd.rankIs(Level(3), false);
  EXPECT_EQ(crowd.cost(Hop(1, U8{1})), 6u);
  Kop::NboAttrLog::Out out;
  out << crowd;
  U8* const second = const_cast<U8*>(out.data()) + out.size() - 3;
  std::copy_n(second - 3, 2, second);  // the key of the first
  Kop::NboAttrLog::In twice(out.data(), out.size());
  EXPECT_THROW(Crowd{twice}, Kop::LogCorruptException);
  crowd.rankDel(Level(3)), crowd.costDel(Hop(1, U8{1}));
  EXPECT_EQ(valueToStrep(crowd),
            "Value('Sample::Crowd', ** {'shape': point, 'member': None, 'cost': None, "
            "'rank': {9: True}})");
}

// Catches a number or a name that is taken for no enumerator, or one for another.
TEST(ValueEnum, goesByNumberAndByName) {
  EXPECT_EQ(ShapeInstance(31), area);
  EXPECT_EQ(ColourInstance("distant"), distant);
  EXPECT_EQ(ShapeInstance("lineString"), lineString);
  EXPECT_THROW(ShapeInstance(256 + 1), Kop::RangeException);
  for (const char* text : {"line", "re"})
    EXPECT_THROW(ColourInstance(text), Kop::RangeException);
}

// Catches a derived value that answers for its base.
TEST(ValueReflection, derived) {
  const auto* const module = Kop::findModule("TestTypes");
  const Kop::TypeRecord& type = *module->type("Sample::FarHop");
  const Kop::FwkType handle{module, static_cast<U32>(&type - module->types.data())};
  FarHop hop(7, U8{2}, "via");
  const auto get = [&](U32 number, void* result) {
    return valueAttributeOp({handle, number}, Kop::AttributeOp::get, &hop, {}, result);
  };
  U32 number = 0;
  Kop::String text;
  EXPECT_TRUE(get(2, &number) && number == 7);
  EXPECT_TRUE(get(130, &text) && text == "via");
  EXPECT_TRUE(get(4, &number));
  EXPECT_EQ(number, hop.hash()) << "the redefined one";
  EXPECT_FALSE(get(131, &number));
  const U32 factor = 10;
  const Kop::String argument("four");
  const void* const arguments[] = {&factor, &argument};
  type.member("weighed")->ops->call(&hop, arguments, &number);
  EXPECT_EQ(number, 24u) << "a function of the base";
}

// Catches a constructor that takes arguments of other types, or in another order.
TEST(ValueReflection, constructs) {
  const U64 index = 9;
  const U8 chip = 8;
  const Kop::GenericArg all[] = {
      {&Kop::TypeOpsOf<U64>::ops, &index},
      {&Kop::TypeOpsOf<U8>::ops,  &chip },
      {&Kop::TypeOpsOf<U64>::ops, &index},
  };
  Port made;
  const auto make = [&](U32 from, U32 count) {
    const std::span<const Kop::GenericArg> args(all + from, count);
    Kop::TypeImpl<Port>::genericIfConstructFromCtorArgs(&made, args);
  };
  make(0, 2);
  EXPECT_EQ(made, Port(9, U8{8}));
  EXPECT_THROW(make(1, 2), Kop::Exception);
  EXPECT_THROW(make(0, 1), Kop::Exception);
}

// A buffer is an argument of functions: it is passed on, and nothing else.
TEST(ValueReflection, passesBuffersByAddress) {
  const U8 byte = 0, *const address = &byte;
  Kop::GenericValue buffer(&Kop::TypeOpsOf<const U8*>::ops, &address), to(buffer.type());
  const Kop::TypeOps& ops = *buffer.type();
  EXPECT_TRUE(ops.truth(buffer.get()) && !ops.truth(to.get()) && !(to == buffer));
  ops.assign(to.get(), buffer.get());
  EXPECT_EQ(to, buffer);
  Kop::NboAttrLog::Out log;
  Kop::NboAttrLog::In in(&byte, 1);
  EXPECT_THROW(buffer.text(), Kop::Exception);
  EXPECT_THROW(buffer.textIs("0"), Kop::Exception);
  EXPECT_THROW(ops.logWrite(log, buffer.get()), Kop::Exception);
  EXPECT_THROW(ops.logRead(buffer.get(), in), Kop::Exception);
  EXPECT_THROW(ops.less(buffer.get(), to.get()), Kop::UnorderedTypeException);
  EXPECT_THROW(ops.hash(buffer.get()), Kop::UnhashableTypeException);
}

}  // namespace
}  // namespace Sample
