#include "tests/tunnelctl/RandomValues.h"

#include <algorithm>

#include "Kop/Module.h"
#include "apps/tunnelctl/ValueJson.h"

namespace Tunnelctl {

using Kop::GenericValue;

void Random::changeMember(Kop::Entity& entity, const EntityMember& member, U32 depth) {
  if (member.scalar) return member.scalar->set(entity, value(*member.scalar->type).get());
  const Kop::CollectionOps& ops = *member.collection;
  const auto keys = sortedKeys(entity, member);
  const bool useOld = !keys.empty() && coin();
  GenericValue key = useOld ? oneOf(keys) : value(*ops.key);
  if (useOld && below(3) == 0) {
    ops.del(entity, key.get());
  } else if (member.isChildren()) {
    const auto child = ops.childIs(entity, key.get());
    if (depth > 0) change(*child, depth - 1);
  } else if (member.isSet()) {
    ops.set(entity, key.get(), nullptr);
  } else {
    GenericValue value = this->value(*ops.value);
    if (ops.kind == Kop::CollectionKind::internalMap) {
      // The key is the first attribute of its type.
      for (const auto& attribute : ops.value->record()->members) {
        if (!isStored(attribute) || attribute.ops->type->name != ops.key->name) continue;
        key = GenericValue(ops.key, attribute.ops->at(value.get()));
        break;
      }
    }
    ops.set(entity, key.get(), value.get());
  }
}

void Random::change(Kop::Entity& entity, U32 depth) {
  const auto members = membersOf(typeOf(entity));
  if (!members.empty()) changeMember(entity, oneOf(members), depth);
}

void Random::fill(Kop::Entity& entity, U32 depth) {
  const auto members = membersOf(typeOf(entity));
  for (std::size_t i = 0; i < 4 * members.size(); ++i)
    change(entity, depth);
}

void eachValueType(const std::function<void(const Kop::TypeRecord&)>& visit) {
  for (const auto* module : Kop::modules())
    for (const auto& type : module->types)
      if (type.value && std::any_of(type.members.begin(), type.members.end(), isStored))
        visit(type);
}

void eachEntityType(const std::function<void(const Kop::TypeRecord&)>& visit) {
  for (const auto* module : Kop::modules())
    for (const auto& type : module->types)
      if (type.entity && type.entity->make) visit(type);
}

}  // namespace Tunnelctl
