#include "TreeModel.h"

namespace Sample {

using Kop::GenericValue;
using Kop::MemberKind;

GenericValue valueOf(const Kop::TypeOps& type, U32 n) {
  GenericValue value(&type);
  const Kop::TypeRecord* const record = type.record();
  if (type.elements) {
    for (U32 i = n; i < n + n % 5; ++i) {
      const auto element =
          type.elements->value ? valueOf(*type.elements->value, n) : GenericValue();
      type.elements->insert(value.get(), valueOf(*type.elements->key, i).get(),
                            element.get());
    }
  } else if (record && record->kind == Kop::Kind::value && type.name != "Sample::Level") {
    for (const auto& member : record->members)
      if (member.kind == MemberKind::attribute || member.kind == MemberKind::collection)
        member.ops->type->assign(const_cast<void*>(member.ops->at(value.get())),
                                 valueOf(*member.ops->type, n).get());
  } else if (type.name == "Kop::String") {
    value.textIs("'key" + std::to_string(n) + "'");
  } else if (type.name == "bool") {
    value.textIs(n % 2 == 0 ? "True" : "False");
  } else {
    value.textIs(std::to_string(type.size == 1   ? n % 3
                                : type.size == 2 ? 3 + n % 800
                                                 : n));
  }
  return value;
}

static std::string logged(const GenericValue& value) {
  Kop::NboAttrLog::Out out;
  value.type()->logWrite(out, value.get());
  return bytesText(out);
}

void randomWrite(Random& random,
                 Kop::Entity& entity,
                 TreeModel& model,
                 U32 serial,
                 bool single,
                 std::string path) {
  const auto members = Kop::typeRecord(entity.fwkType()).members;
  const Kop::MemberRecord& member = members[random() % members.size()];
  path += member.name;
  const auto erase = [&] {  // with all below it
    std::erase_if(model, [&](const auto& entry) {
      return (entry.first + '/').starts_with(path + '/');
    });
  };
  if (!member.ops->collection) {
    const auto value = valueOf(*member.ops->type, serial);
    member.ops->set(entity, value.get());
    model[path] = logged(value);
    return;
  }
  const Kop::CollectionOps& ops = *member.ops->collection;
  const bool hasChildren = ops.kind == Kop::CollectionKind::children;
  const auto key = valueOf(*ops.key, random() % (hasChildren ? 3 : 12));
  const U32 what = random() % 20;
  if (what == 0 && !single) {
    ops.delAll(entity);
    return erase();
  }
  path += '/' + std::string(key.text().c_str());
  if (what < 6) {
    ops.del(entity, key.get());
    erase();
    if (what > 1 || single || !hasChildren) return;  // or it comes back as another one
  }
  if (const auto child = hasChildren ? ops.child(entity, key.get()) : nullptr) {
    randomWrite(random, *child, model, serial, single, path + '/');
  } else if (hasChildren) {
    const auto made = ops.childIs(entity, key.get());
    for (const auto& [below, value] : dump(*made))
      model[path + '/' + below] = value;
    const U64 identity = made->identity();
    model[path] = logged(GenericValue(&Kop::TypeOpsOf<U64>::ops, &identity));
  } else {
    auto value = valueOf(*ops.value, serial);
    if (ops.kind == Kop::CollectionKind::internalMap)
      *static_cast<Stop*>(value.get()) =
          Stop(*static_cast<const Kop::String*>(key.get()), serial);
    ops.set(entity, key.get(), value.get());
    model[path] = ops.kind == Kop::CollectionKind::set ? "" : logged(value);
  }
}

}  // namespace Sample
