#pragma once

#include "Kop/Entity.h"
#include "Kop/Value.h"

// What the tests of the state database replicate: a scalar, a map, a set and children.

namespace Garden {

class KOP_EXPORT Bed : public Kop::Entity {
  KOP_ENTITY(Bed);

  KOP_SCALAR(258, U32, area, 1);
  KOP_SET_MAP(259, plant, Plant, U16);
};

class KOP_EXPORT Plot : public Kop::Entity {
  KOP_ENTITY(Plot);
  KOP_FACTORY(Plot);

  KOP_SCALAR(258, Kop::String, title);
  KOP_VALUE_MAP(259, note, Note, U32, Kop::String);
  KOP_CHILDREN(260, bed, Bed, Kop::String, Garden::Bed, name);
};

}  // namespace Garden
