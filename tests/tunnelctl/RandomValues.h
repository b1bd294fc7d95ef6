#pragma once

#include <functional>
#include <random>

#include "Kop/Entity.h"
#include "Kop/GenericIf.h"
#include "apps/tunnelctl/State.h"

// Random objects of types known only by reflection.

namespace Tunnelctl {

class Random {
 public:
  explicit Random(U32 seed) : engine_(seed) {}

  U64 number() { return engine_(); }
  U64 below(U64 limit) { return engine_() % limit; }
  bool coin() { return below(2) == 0; }
  template <class Container>
  const auto& oneOf(const Container& all) {
    return all[below(std::size(all))];
  }

  // Any value of the type. Of floats every one but NaN, which equals nothing.
  Kop::GenericValue value(const Kop::TypeOps& type);
  // Sets members and entries of an entity, each with an even chance; `depth` bounds children.
  void fill(Kop::Entity& entity, U32 depth = 3);
  // One change of one member.
  void change(Kop::Entity& entity, U32 depth = 3);

 private:
  void fillRecord(const Kop::TypeRecord& record, void* value);
  void changeMember(Kop::Entity& entity, const EntityMember& member, U32 depth);
  std::mt19937_64 engine_;
};

// Calls visit with every registered value type that has attributes, and every entity type
// that can stand alone.
void eachValueType(const std::function<void(const Kop::TypeRecord&)>& visit);
void eachEntityType(const std::function<void(const Kop::TypeRecord&)>& visit);

}  // namespace Tunnelctl
