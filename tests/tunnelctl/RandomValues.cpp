#include "tests/tunnelctl/RandomValues.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "Kop/Exception.h"
#include "Kop/Module.h"
#include "apps/tunnelctl/ValueJson.h"

namespace Tunnelctl {

using Kop::GenericValue;
using Kop::MemberKind;
using Kop::TypeOps;

namespace {

bool parses(GenericValue& value, const std::string& text) {
  try {
    value.textIs(text);
    return true;
  } catch (const Kop::Exception&) {
    return false;
  }
}

// Tries until a text is one of the type. A type that takes none needs more texts below.
template <class Next>
void read(GenericValue& value, Next next) {
  for (int tries = 0; tries < 10000; ++tries)
    if (parses(value, next())) return;
  throw std::logic_error("no text is a " + std::string(value.type()->name));
}

// Texts of foreign types; a type takes those it understands.
const char* const quotedTexts[] = {"'10.0.0.1'",
                                   "'255.255.255.255'",
                                   "'2001:db8::1'",
                                   "'::'",
                                   "'10.0.0.0/8'",
                                   "'0.0.0.0/0'",
                                   "'2001:db8::/32'",
                                   "'::/0'",
                                   "'Ethernet3/1'",
                                   "'Generic77.5.1'",
                                   "'Vlan100'",
                                   "'Tunnel7'",
                                   "'x y'",
                                   "'it\\'s'",
                                   "'DynamicTunnel3145728.5'",
                                   "'0a00ff'",
                                   "'00'",
                                   "''",
                                   "'00:11:22:aa:bb:cc'",
                                   "'Loopback0'"};
const char* const wordTexts[] = {"[]",           "[16]",      "[16, 20, 1048575]",
                                 "[1, 5]",       "[0, 255]",  "noOperation[]",
                                 "push[16, 20]", "swap[100]", "pop[]"};

}  // namespace

GenericValue Random::value(const TypeOps& type) {
  GenericValue value(&type);
  if (type.name == "Kop::String") {
    static const char* const texts[] = {
        "",         "edge",     "a b",     "it's", "\xff",
        "\n\t\x01", "\xc3\xb6", "x\\y\"z", "{}",   "12345678901234567890"};
    const Kop::String text(oneOf(texts));
    type.assign(value.get(), &text);
    return value;
  }
  if (type.name == "float") {
    static const float numbers[] = {
        0.0f, -1.0f, 0.1f, 1e9f, 3.4028235e38f, 1e-45f, INFINITY, -INFINITY, 16777216.0f};
    const float number = oneOf(numbers);
    type.assign(value.get(), &number);
    return value;
  }
  if (type.elements) {
    for (U64 left = below(4); left > 0; --left) {
      const GenericValue key = this->value(*type.elements->key);
      if (!type.elements->value) {
        type.elements->insert(value.get(), key.get(), nullptr);
        continue;
      }
      const GenericValue element = this->value(*type.elements->value);
      type.elements->insert(value.get(), key.get(), element.get());
    }
    return value;
  }
  const Form& form = formOf(type);
  switch (form.shape) {
    case Form::Shape::record: fillRecord(*form.record, value.get()); return value;
    case Form::Shape::enumeration: {
      const auto &member = oneOf(form.record->members),
                 &other = oneOf(form.record->members);
      if (below(8) == 0)  // perhaps no enumerator's
        value.textIs(Kop::String(
            std::to_string(number() & ((U64{1} << (8 * form.record->width)) - 1))));
      else if (type.name == "Tunnel::GreHdrFlagsType" && coin())
        value.textIs(Kop::String(std::to_string(member.value | other.value)));
      else
        value.textIs(Kop::String(member.name));
      return value;
    }
    case Form::Shape::boolean: value.textIs(coin() ? "True" : "False"); return value;
    case Form::Shape::number:
      read(value, [this] { return std::string(std::to_string(number() >> below(64))); });
      return value;
    case Form::Shape::quoted:
      read(value, [this] { return std::string(oneOf(quotedTexts)); });
      return value;
    default: break;
  }
  read(value, [this] { return std::string(oneOf(wordTexts)); });
  return value;
}

void Random::fillRecord(const Kop::TypeRecord& record, void* value) {
  for (const auto& member : record.members)
    if (isStored(member) && below(4) != 0)
      member.ops->type->assign(const_cast<void*>(member.ops->at(value)),
                               this->value(*member.ops->type).get());
}

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
