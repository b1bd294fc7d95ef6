#pragma once

#include <memory>

#include "Kop/Entity.h"
#include "Kop/NboAttrLogSa.h"
#include "Kop/Value.h"

// A small module of types with one of everything that can be declared.

namespace Sample {

using Kop::strepToValue;

KOP_ENUM(Shape, U8, point = 0, line = 1, lineString = 2, area = 0x1f);
KOP_ENUM(Colour, U32, none = 0, red = 1, redder = 2, distant = 0x12345);

// 0 or 3..900.
class Level : public Kop::Value<Level> {
  KOP_VALUE(Level);

  KOP_WRAPPED(2, U16, value);

 public:
  explicit Level(U16 value);  // RangeException
};

class Port : public Kop::Value<Port> {
  KOP_VALUE(Port);

  KOP_ATTR(2, U64, index);
  KOP_ATTR(3, U8, chip);
};

// A record of every kind of attribute that can be parsed.
class Place : public Kop::Value<Place> {
  KOP_VALUE(Place);

  KOP_ATTR(2, Port, port);
  KOP_ATTR(3, Kop::String, label);
  KOP_ATTR(4, Level, level);
  KOP_ATTR(5, Shape, shape);
  KOP_ATTR(6, Colour, colour, red);
  KOP_ATTR(7, bool, up);
  KOP_ATTR(8, float, weight);
  KOP_ATTR(9, U16, width);
};

// Nests one level deeper, so that a range error has two attributes to name.
class Area : public Kop::Value<Area> {
  KOP_VALUE(Area);

  KOP_ATTR(2, Place, place);
  KOP_ATTR(3, U32, code);
};

// Ordered by cost, then node.
class Hop : public Kop::Value<Hop> {
  KOP_VALUE(Hop);

  KOP_ATTR(2, U32, node);
  KOP_ATTR(3, U8, cost);
  KOP_FUNCTION(4, U32, hash);
  KOP_FUNCTION(5, U32, weighed, U32 factor, const Kop::String& text);
};
bool valueLess(const Hop& a, const Hop& b);

// Ordered by its attributes, the base's first.
class FarHop : public Hop {
  KOP_VALUE(FarHop, Hop);

  KOP_ATTR(130, Kop::String, via);
  KOP_REDEFINED(4, U32, hash);
};

// Holds collections, so it has no string constructor; has neither order nor hash.
class Crowd : public Kop::Value<Crowd> {
  KOP_VALUE(Crowd);

  KOP_ATTR(2, Shape, shape);
  KOP_SET(3, member, Member, Kop::String);
  KOP_MAP(4, cost, Cost, Hop, U32);
  KOP_ORDERED_MAP(5, rank, Rank, Level, bool);
  friend bool operator<(const Crowd&, const Crowd&) = delete;
};

// Stands in a map under its name.
class Stop : public Kop::Value<Stop> {
  KOP_VALUE(Stop);

  KOP_ATTR(2, Kop::String, name);
  KOP_ATTR(3, U32, zone);
};

// Rules written by hand.
void valueParse(Level& level, Kop::TextIt& it, const Kop::TextIt& end);
void valueLogRead(Level& level, Kop::NboAttrLog::In& in);
void valueParse(Crowd&, Kop::TextIt&, const Kop::TextIt&);
U32 valueHash(const Crowd&, U32) = delete;

class Leaf : public Kop::Entity {
  KOP_ENTITY(Leaf);

  KOP_SCALAR(258, U32, size, 7);
  KOP_SET_MAP(259, spot, Spot, U16);
};

class Branch : public Kop::Entity {
  KOP_ENTITY(Branch);

  KOP_SCALAR(258, Kop::String, label);
  KOP_CHILDREN(259, leaf, Leaf, Kop::String, Sample::Leaf, name);
};

// Lives under its shape.
class Slot : public Kop::Entity {
  KOP_KEYED_ENTITY(Slot, Shape, shape);

  KOP_SCALAR(258, U16, depth, 1);
};

class Tree : public Kop::Entity {
  KOP_ENTITY(Tree);
  KOP_FACTORY(Tree);

  KOP_VALUE_SET(258, mark, Mark, U32);
  KOP_SET_MAP(259, flag, Flag, Kop::String);
  KOP_VALUE_MAP(260, place, Place, Sample::Port, Sample::Place);
  KOP_INTERNAL_MAP(261, stop, Stop, Kop::String, Sample::Stop, name);
  KOP_CHILDREN(262, branch, Branch, Kop::String, Sample::Branch, name);
  KOP_CHILDREN(263, slot, Slot, Shape, Sample::Slot, shape);
  KOP_SCALAR(264, Colour, colour, red);
  KOP_SCALAR(265, float, ratio, 0.5f);
  KOP_SCALAR(266, Level, level);
};
KOP_FACTORY_FUNCTION(treeFactory, Tree);

class TallTree : public Tree {
  KOP_ENTITY(TallTree, Tree);
  KOP_FACTORY(TallTree);

  KOP_SCALAR(386, U16, height, 100);
  KOP_VALUE_MAP(387, crowd, Crowd, U16, Sample::Crowd);
};

// The state of a pump of TallTree, as its type description gives it.
std::unique_ptr<Kop::NboAttrLog::FlowOut> newFlowOut(Kop::EntitySa& sa,
                                                     Kop::AttributeId start);

}  // namespace Sample
