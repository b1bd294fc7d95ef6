#pragma once

#include <functional>

#include "Kop/Entity.h"
#include "apps/tunnelctl/State.h"
#include "tests/Tunnel/Samples.h"

// Random objects of types known only by reflection.

namespace Tunnelctl {

class Random : public Samples::Random {
 public:
  using mersenne_twister_engine::mersenne_twister_engine;

  U64 number() { return U64{(*this)()} << 32 | (*this)(); }
  U64 below(U64 limit) { return number() % limit; }
  bool coin() { return below(2) == 0; }
  template <class Container>
  const auto& oneOf(const Container& all) {
    return all[below(std::size(all))];
  }

  Kop::GenericValue value(const Kop::TypeOps& type) {
    return Samples::sample(*this, type);
  }
  // Sets members and entries of an entity, each with an even chance; `depth` bounds children.
  void fill(Kop::Entity& entity, U32 depth = 3);
  // One change of one member.
  void change(Kop::Entity& entity, U32 depth = 3);

 private:
  void changeMember(Kop::Entity& entity, const EntityMember& member, U32 depth);
};

// Calls visit with every registered value type that has attributes, and every entity type
// that can stand alone.
void eachValueType(const std::function<void(const Kop::TypeRecord&)>& visit);
void eachEntityType(const std::function<void(const Kop::TypeRecord&)>& visit);

}  // namespace Tunnelctl
