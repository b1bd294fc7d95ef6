#include <functional>
#include <sstream>
#include <vector>

#include <dlfcn.h>

#include <gtest/gtest.h>

#include "Kop/GenericIfImpl.h"
#include "Kop/Module.h"
#include "TestTypes.h"
#include "TreeModel.h"

namespace Sample {
namespace {

using std::string_literals::operator""s;

// Values of each type in ascending order where it has one, all different.
template <class T>
struct Samples;
template <>
struct Samples<Limits> {
  static std::vector<Limits> make() { return {Limits()}; }
};
template <>
struct Samples<Level> {
  static std::vector<Level> make() { return {Level(), Level(3), Level(256), Level(900)}; }
};
template <>
struct Samples<Code> {
  static std::vector<Code> make() { return {Code(), Code(1), Code(256), Code(~0u)}; }
};
template <>
struct Samples<Ratio> {
  static std::vector<Ratio> make() {
    return {Ratio(), Ratio(-0.5f), Ratio(0), Ratio(1e9f)};
  }
};
template <>
struct Samples<Port> {
  static std::vector<Port> make() {
    return {Port(), Port(0, U8{1}), Port(0, U8{255}), Port(1, U8{0}), Port(~0ul, U8{3})};
  }
};
template <>
struct Samples<Place> {
  static std::vector<Place> make() {
    Place up, label, shape;
    up.upIs(true);
    shape.shapeIs(static_cast<Shape>(200));  // no enumerator
    label.labelIs("', 'level': 9})");
    return {Place(), up, shape, label, placeOf(2), placeOf(7)};
  }
};
template <>
struct Samples<Area> {
  static std::vector<Area> make() {
    return {Area(), Area(Place(), Code(1)), Area(placeOf(1), Code(0))};
  }
};
template <>
struct Samples<Hop> {
  static std::vector<Hop> make() {
    return {Hop(), Hop(5, U8{0}), Hop(1, U8{1}), Hop(2, U8{1}), Hop(3, U8{9})};
  }
};
template <>
struct Samples<FarHop> {  // the base's order by hand is not inherited
  static std::vector<FarHop> make() {
    return {FarHop(), FarHop(0, U8{0}, "b"), FarHop(0, U8{9}, "a"),
            FarHop(1, U8{1}, "a")};
  }
};
template <>
struct Samples<Crowd> {
  static std::vector<Crowd> make() { return {Crowd(), crowdOf(3), crowdOf(4)}; }
};
template <>
struct Samples<Chart> {
  static std::vector<Chart> make() {
    Chart one, other;
    one.costIs(Hop(1, U8{1}), 5);
    other.rankIs(Level(9), true), other.rankIs(Level(3), false);
    return {Chart(), one, other};
  }
};
template <>
struct Samples<Blob> {
  static std::vector<Blob> make() { return {Blob(), Blob(0, 1u), Blob(1u, 0u)}; }
};
template <>
struct Samples<Stop> {
  static std::vector<Stop> make() { return {Stop(), Stop("", 1u), Stop("a", 0u)}; }
};

template <class T>
constexpr bool isOneOf(std::initializer_list<std::string_view> names) {
  for (const auto name : names)
    if (name == Kop::typeName<T>()) return true;
  return false;
}

template <class T>
class EveryValue : public ::testing::Test {};
using Values = ::testing::Types<Limits,
                                Level,
                                Code,
                                Ratio,
                                Port,
                                Place,
                                Area,
                                Hop,
                                FarHop,
                                Crowd,
                                Chart,
                                Blob,
                                Stop>;
TYPED_TEST_SUITE(EveryValue, Values);

// Catches an operation that forgets an attribute, or one that disagrees with the others.
TYPED_TEST(EveryValue, obeysTheLaws) {
  using T = TypeParam;
  constexpr bool collection = isOneOf<T>({"Sample::Crowd", "Sample::Chart"});
  constexpr bool unhashable =
      collection || isOneOf<T>({"Sample::Limits", "Sample::Blob"});
  constexpr bool unordered = isOneOf<T>({"Sample::Blob"});
  const std::vector<T> all = Samples<T>::make();
  using Reflected = Kop::TypeImpl<T>;
  const Kop::TypeRecord* const record = Kop::findType(Kop::typeName<T>());
  ASSERT_TRUE(record && record->value);
  EXPECT_EQ(all[0], T());
  for (std::size_t i = 0; i < all.size(); ++i) {
    for (std::size_t j = 0; j < all.size(); ++j) {
      SCOPED_TRACE(std::to_string(i) + ", " + std::to_string(j));
      T a = all[i];
      T b = all[j];
      EXPECT_EQ(a == b, i == j);
      bool answer = false;
      EXPECT_TRUE(
          Reflected::genericIfAttributeOp(Kop::AttributeOp::equal, &a, &b, 0, &answer));
      EXPECT_EQ(answer, i == j);
      if constexpr (unordered) {
        EXPECT_THROW(
            Reflected::genericIfAttributeOp(Kop::AttributeOp::less, &a, &b, 0, &answer),
            Kop::UnorderedTypeException);
      } else if constexpr (!collection) {
        EXPECT_EQ(a < b, i < j);
        Reflected::genericIfAttributeOp(Kop::AttributeOp::less, &a, &b, 0, &answer);
        EXPECT_EQ(answer, i < j);
      }
      if constexpr (!unhashable) {
        EXPECT_EQ(Reflected::genericIfHash(&a) == Reflected::genericIfHash(&b), i == j);
      }
    }
    const T& value = all[i];
    SCOPED_TRACE(i);
    if constexpr (unhashable) {
      try {
        Reflected::genericIfHash(&value);
        ADD_FAILURE() << "hashed";
      } catch (const Kop::UnhashableTypeException& error) {
        EXPECT_EQ(error.what(), std::string(Kop::typeName<T>()));
      }
    }
    const Kop::String text = valueToStrep(value);
    std::ostringstream stream;
    stream << std::hex << value;
    EXPECT_EQ(stream.str(), std::string_view(text));
    EXPECT_EQ(Reflected::genericIfStrRep(&value), text);
    if constexpr (!collection) {
      EXPECT_EQ(strepToValue<T>(text), value);
      Kop::GenericValue generic(record->value->ops);
      generic.textIs(text);
      EXPECT_EQ(generic, Kop::GenericValue(record->value->ops, &value));
      EXPECT_THROW(
          strepToValue<T>(Kop::String(std::string(text.data(), text.size()) + "~")),
          Kop::Exception);
      if constexpr (Kop::storedCount<T>() > 1) {  // a record has no proper beginning
        for (U32 cut = 0; cut < text.size(); ++cut)
          EXPECT_THROW(strepToValue<T>(Kop::String(text.data(), cut)), Kop::Exception);
      }
    }
    Kop::NboAttrLog::Out out;
    out << value;
    EXPECT_EQ(out.size(), attrLogSize(value));
    Kop::NboAttrLog::In in(out.data(), out.size());
    EXPECT_EQ(T(in), value);
    EXPECT_TRUE(in.atEnd());
    for (std::size_t cut = 0; cut < out.size(); ++cut) {
      Kop::NboAttrLog::In part(out.data(), cut);
      EXPECT_THROW(T{part}, Kop::LogCorruptException) << cut;
    }
  }
}

// Catches an error text that does not say where, or a range that is not kept.
TEST(ValueText, namesWhatItCouldNotRead) {
  const auto failing = [](auto parse) {
    try {
      parse();
    } catch (const Kop::RangeException& error) {
      return "range: "s + error.what();
    } catch (const Kop::Exception& error) {
      return "error: "s + error.what();
    }
    return "accepted"s;
  };
  const std::string port = "Value('Sample::Port', ** {'index': 5, 'chip': 1})";
  const std::string place =
      "Value('Sample::Place', ** {'port': " + port +
      ", 'label': 'it\\'s', 'level': 4, 'shape': lineString, 'colour': 66, 'up': True, "
      "'weight': 0.5, 'width': 9})";
  const std::string area =
      "Value('Sample::Area', ** {'place': " + place + ", 'code': 7})";
  const Place value(Port(5, U8{1}), "it's", Level(4), lineString, static_cast<Colour>(66),
                    true, 0.5f, U16{9});
  EXPECT_EQ(valueToStrep(Area(value, Code(7))), std::string_view(area));
  EXPECT_EQ(strepToValue<Area>(area), Area(value, Code(7)));
  struct Row {
    const char *from, *to, *error;
  };
  const Row rows[] = {
      {"'level': 4",   "'level': 2",
       "range: place: level: Sample::Level::value is no level"                              },
      {"'level': 4",   "'level': 65536",
       "range: place: level: attribute 'value' out of range"                                },
      {"'index': 5",   "'index': x",     "error: cannot read attribute 'index'"             },
      {"'chip': 1",    "'chip': 256",    "range: place: port: attribute 'chip' out of range"},
      {"'chip': 1",    "'chap': 1",      "error: expected \", 'chip': \""                   },
      {"Sample::Port", "Sample::Pork",
       "error: expected \"Value('Sample::Port', ** {'index': \""                            },
      {"'code': 7})",  "'code': 7}",     "error: expected \"})\""                           },
      {"lineString",   "lines",          "error: Sample::Shape has no enumerator 'lines'"   },
      {"lineString",   "256",
       "range: place: shape: attribute 'Sample::Shape' out of range"                        },
      {"'code': 7})",  "'code': 7}) ",   "error: unexpected text after the value:  "        },
  };
  for (const Row& row : rows) {
    std::string text = area;
    text.replace(text.find(row.from), std::string(row.from).size(), row.to);
    EXPECT_EQ(failing([&] { strepToValue<Area>(text); }), row.error) << text;
  }
  EXPECT_EQ(valueToStrep(crowdOf(3)),
            "Value('Sample::Crowd', ** {'shape': point, 'member': None})");
  EXPECT_EQ(valueToStrep(Samples<Chart>::make()[2]),
            "Value('Sample::Chart', ** {'cost': None, 'rank': {3: False, 9: True}})");
  EXPECT_DEATH(strepToValue<Crowd>("x"),
               "\"!\"No String constructor for Crowd - has "
               "collection\"\"");
  EXPECT_THROW(strepToValue<Limits>("x"), Kop::Exception);
  EXPECT_EQ(strepToValue<Limits>(""), Limits());
}

// Catches a word that is cut short, and a number that is taken for no number.
TEST(ValueEnum, readsTheLongestWordOrANumber) {
  EXPECT_EQ(strepToValue<Shape>("line"), line);
  EXPECT_EQ(strepToValue<Shape>("lineString"), lineString);
  EXPECT_EQ(strepToValue<Shape>("31"), area);
  EXPECT_EQ(strepToValue<Shape>("77"), 77);
  EXPECT_EQ(strepToValue<Colour>("4294967295"), 0xffffffff);
  EXPECT_EQ(valueToStrep(static_cast<Shape>(77)), "77");
  EXPECT_EQ(stringValue(distant), "distant");
  for (const char* text : {"lin", "lineStrings", "", "-1", "1x"})
    EXPECT_THROW(strepToValue<Shape>(text), Kop::Exception) << text;
  EXPECT_THROW(strepToValue<Shape>("256"), Kop::RangeException);
  EXPECT_THROW(strepToValue<Colour>("4294967296"), Kop::RangeException);
  EXPECT_EQ(ShapeInstance(31), area);
  EXPECT_EQ(ColourInstance("distant"), distant);
  EXPECT_THROW(ShapeInstance(3), Kop::RangeException);
  EXPECT_THROW(ShapeInstance(256 + 1), Kop::RangeException) << "not cut to the width";
  EXPECT_THROW(ColourInstance("line"), Kop::RangeException);
  std::ostringstream out;
  out << std::hex << static_cast<Shape>(26) << redder;
  EXPECT_EQ(out.str(), "26redder");
}

// Catches collections of values that share, or that remember how they were filled.
TEST(ValueCollections, arePartOfTheValue) {
  Crowd one, other;
  for (int i = 0; i < 50; ++i)
    one.memberIs(Kop::String(std::to_string(i)));
  for (int i = 80; i-- > 0;)
    other.memberIs(Kop::String(std::to_string(i)));
  for (int i = 50; i < 80; ++i)
    other.memberDel(Kop::String(std::to_string(i)));
  EXPECT_EQ(one, other);
  const Crowd copy = one;
  one.memberDelAll();
  EXPECT_EQ(copy, other);
  EXPECT_FALSE(one == other);
  EXPECT_FALSE(one.memberHas("7"));
  Chart chart;
  chart.costIs(Hop(1, U8{1}), 5);
  chart.costIs(Hop(1, U8{1}), 6);
  chart.rankIs(Level(5), true);
  chart.rankIs(Level(5), false);
  EXPECT_EQ(chart.cost(Hop(1, U8{1})), 6u);
  EXPECT_TRUE(chart.rankHas(Level(5)) && !chart.rank(Level(5)));
  chart.rankDel(Level(5));
  chart.costDel(Hop(1, U8{1}));
  EXPECT_EQ(chart, Chart());
}

// Catches a description that is not what was declared.
TEST(ValueModule, describesItsTypesAndMembersByNumber) {
  const Kop::ModuleDescriptor* const module = Kop::findModule("TestTypes");
  ASSERT_TRUE(module);
  EXPECT_EQ(module->types.size(), 20u);
  const std::string symbol = "TestTypes_" + [&] {
    std::ostringstream digest;
    digest << std::hex << module->digest;
    return digest.str();
  }();
  EXPECT_EQ(dlsym(RTLD_DEFAULT, symbol.c_str()), module) << symbol;
  struct Row {
    const char *type, *member;
    U32 number;
    Kop::MemberKind kind;
    const char* memberType;
    U32 value;
  };
  using enum Kop::MemberKind;
  const Row rows[] = {
      {"Sample::Shape",    "point",   2,   enumerator, "Sample::Shape",  0      },
      {"Sample::Shape",    "area",    5,   enumerator, "Sample::Shape",  31     },
      {"Sample::Colour",   "none",    6,   enumerator, "Sample::Colour", 0      },
      {"Sample::Colour",   "distant", 9,   enumerator, "Sample::Colour", 0x12345},
      {"Sample::Limits",   "high",    3,   constant,   "U16",            0      },
      {"Sample::Place",    "label",   3,   attribute,  "Kop::String",    0      },
      {"Sample::FarHop",   "node",    2,   attribute,  "U32",            0      },
      {"Sample::FarHop",   "hash",    4,   function,   "U32",            0      },
      {"Sample::FarHop",   "via",     130, attribute,  "Kop::String",    0      },
      {"Sample::Crowd",    "member",  3,   collection, "bool",           0      },
      {"Sample::TallTree", "mark",    258, collection, "bool",           0      },
      {"Sample::TallTree", "branch",  262, collection, "Sample::Branch", 0      },
      {"Sample::TallTree", "height",  386, attribute,  "U16",            0      },
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.type + "::"s + row.member);
    const Kop::TypeRecord* const type = module->type(row.type);
    ASSERT_TRUE(type);
    EXPECT_EQ(type, Kop::findType(row.type));
    EXPECT_EQ(Kop::moduleOf(*type), module);
    const Kop::MemberRecord* const member = type->member(std::string_view(row.member));
    ASSERT_TRUE(member);
    EXPECT_EQ(type->member(row.number), member);
    EXPECT_EQ(member->number, row.number);
    EXPECT_EQ(member->kind, row.kind);
    EXPECT_EQ(member->type, row.memberType);
    EXPECT_EQ(member->value, row.value);
  }
  for (std::size_t i = 1; i < module->types.size(); ++i)
    EXPECT_LE(module->types[i - 1].kind, module->types[i].kind);
  EXPECT_EQ(module->types[0].width, 1);
  EXPECT_EQ(module->types[1].width, 4);
}

// Catches reflection that calls, reads or makes something else.
TEST(ValueReflection, readsCallsAndConstructs) {
  using Reflected = Kop::TypeImpl<FarHop>;
  const Kop::TypeRecord& type = *Kop::findType("Sample::FarHop");
  FarHop hop(7, U8{2}, "via");
  const auto get = [&](U32 number, void* result) {
    return Reflected::genericIfAttributeOp(Kop::AttributeOp::get, &hop, nullptr, number,
                                           result);
  };
  U32 number = 0;
  Kop::String text;
  bool truth = false;
  EXPECT_TRUE(get(2, &number) && number == 7);
  EXPECT_TRUE(get(130, &text) && text == "via");
  EXPECT_TRUE(get(4, &number));
  EXPECT_EQ(number, hop.hash()) << "the redefined one";
  EXPECT_FALSE(get(5, &number)) << "has arguments";
  EXPECT_FALSE(get(7, &number)) << "changes the value";
  EXPECT_FALSE(get(131, &number));
  const U32 factor = 10;
  const Kop::String argument("four");
  const void* const arguments[] = {&factor, &argument};
  const Kop::MemberRecord& weighed = *type.member(std::string_view("weighed"));
  EXPECT_EQ(weighed.arguments.size(), 2u);
  EXPECT_EQ(weighed.arguments[1], "Kop::String");
  weighed.ops->call(&hop, arguments, &number);
  EXPECT_EQ(number, 24u);
  const U8 by = 3;
  const void* const byArgument[] = {&by};
  EXPECT_TRUE(type.member(7u)->ops->changes);
  type.member(7u)->ops->call(&hop, byArgument, nullptr);
  EXPECT_EQ(hop.cost(), 5);
  Hop nearest;
  EXPECT_TRUE(type.member(6u)->ops->isStatic);
  type.member(6u)->ops->call(nullptr, arguments, &nearest);
  EXPECT_EQ(nearest, Hop(10, U8{1}));
  U16 high = 0;
  Limits limits;
  EXPECT_TRUE(Kop::TypeImpl<Limits>::genericIfAttributeOp(Kop::AttributeOp::get, &limits,
                                                          nullptr, 3, &high));
  EXPECT_EQ(high, 900);
  Port port(0, U8{5});  // its first attribute decides
  Kop::TypeImpl<Port>::genericIfAttributeOp(Kop::AttributeOp::truth, &port, {}, 0,
                                            &truth);
  EXPECT_FALSE(truth);
  port.indexIs(1);
  Kop::TypeImpl<Port>::genericIfAttributeOp(Kop::AttributeOp::truth, &port, {}, 0,
                                            &truth);
  EXPECT_TRUE(truth);
  EXPECT_FALSE(Kop::TypeImpl<Port>::genericIfAttributeOp(Kop::AttributeOp::add, &port,
                                                         &port, 0, {}));

  const auto arg = []<class A>(const A& value) {
    return Kop::GenericArg{&Kop::TypeOpsOf<A>::ops, &value};
  };
  const U64 index = 9;
  const U8 chip = 8;
  const U16 low = 2;
  const auto make = [&](auto* as, std::vector<Kop::GenericArg> args) {
    using T = std::remove_pointer_t<decltype(as)>;
    alignas(T) char at[sizeof(T)];
    Kop::TypeImpl<T>::genericIfConstructFromCtorArgs(at, args);
    T made = *std::launder(reinterpret_cast<T*>(at));
    Kop::TypeImpl<T>::genericIfDestruct(at);
    return made;
  };
  Port* const asPort = nullptr;
  Level* const asLevel = nullptr;
  EXPECT_EQ(make(asPort, {}), Port());
  EXPECT_EQ(make(asPort, {arg(port)}), port);
  EXPECT_EQ(make(asPort, {arg(index), arg(chip)}), Port(9, U8{8}));
  EXPECT_THROW(make(asPort, {arg(chip), arg(index)}), Kop::Exception);
  EXPECT_THROW(make(asPort, {arg(index)}), Kop::Exception);
  EXPECT_THROW(make(asLevel, {arg(low)}), Kop::RangeException);
}

}  // namespace
}  // namespace Sample
