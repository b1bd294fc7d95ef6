#include "tests/Tunnel/Samples.h"

#include "Kop/Module.h"
#include "Kop/NboAttrLogSa.h"
#include "Tunnel/TunnelBasicTypes.h"
#include "tests/Support/Testing.h"

namespace Samples {

using Kop::GenericValue;
using Kop::MemberKind;
using Tunnel::TunnelTable::TunnelId;

const std::map<std::string_view, const Kop::TypeOps*>& allTypes() {
  static const auto all = [] {
    std::map<std::string_view, const Kop::TypeOps*> found;
    const auto add = [&](const auto& self, const Kop::TypeOps& ops) -> void {
      if (ops.elements) {
        self(self, *ops.elements->key);
        if (ops.elements->value) self(self, *ops.elements->value);
      } else if (ops.name != "Kop::PodArray") {
        found[ops.name] = &ops;
      }
    };
    for (const auto* module : Kop::modules()) {
      for (const Kop::TypeRecord& type : module->types) {
        if (type.value) add(add, *type.value->ops);
        for (const auto& member : type.members) {
          if (!member.ops || member.kind == MemberKind::function) continue;
          if (member.ops->collection) add(add, *member.ops->collection->key);
          if (member.ops->type) add(add, *member.ops->type);
        }
      }
    }
    return found;
  }();
  return all;
}

std::vector<const Kop::MemberRecord*> storedMembers(const Kop::TypeRecord& type) {
  std::vector<const Kop::MemberRecord*> stored;
  for (const auto& member : type.members)
    if (member.kind == MemberKind::attribute || member.kind == MemberKind::collection)
      stored.push_back(&member);
  return stored;
}

namespace {

// A value of a type without attributes, or with one that it checks: what words make that are
// small numbers or, more or less often, anything. Words of tunnels are cut to what a text can
// say.
GenericValue readLeaf(Random& random, const Kop::TypeOps& type) {
  constexpr U8 some[] = {0, 0, 0, 1, 2, 0x20, '\'', '\\', 'a', '\n', 0x7f, 0x80, 0xff};
  constexpr U32 anything[] = {0, 5, 30, 90};  // of a hundred
  GenericValue value(&type);
  for (int attempt = 0; attempt < 100000; ++attempt) {
    U8 bytes[300] = {};
    const U32 any = anything[random() % std::size(anything)];
    for (U32 i = 0; i < sizeof bytes; i += 4)
      if (random() % 100 >= any)
        bytes[i + 3] = static_cast<U8>(random() % 4);
      else
        for (U32 k = i; k < i + 4; ++k)
          bytes[k] = random() % 2 == 0 ? some[random() % std::size(some)]
                                       : static_cast<U8>(random());
    if (random() % 6 == 0) bytes[0] = 0x80, bytes[3] = 0;  // -0.0 and the like
    try {
      Kop::NboAttrLog::In in(bytes, sizeof bytes);
      type.logRead(value.get(), in);
    } catch (const Kop::Exception&) {
      continue;
    }
    if (type.name == Kop::typeName<TunnelId>()) {
      auto& id = *static_cast<TunnelId*>(value.get());
      id = TunnelId(id.value() & TunnelId::maxValue);
    }
    if (value == value) return value;
  }
  throw std::logic_error("no samples of " + std::string(type.name));
}

// Every second one is one of a handful.
GenericValue leaf(Random& random, const Kop::TypeOps& type) {
  static std::map<std::string_view, std::vector<GenericValue>> handfuls;
  if (random() % 2 == 0) return readLeaf(random, type);
  auto& handful = handfuls[type.name];
  for (Random own(seed); handful.size() < 6;)
    handful.push_back(handful.empty() ? GenericValue(&type) : readLeaf(own, type));
  return handful[random() % handful.size()];
}

}  // namespace

void randomize(Random& random, const Kop::TypeOps& type, void* value) {
  const Kop::TypeRecord* const record = type.record();
  if (record && record->kind == Kop::Kind::enumeration) {
    const U64 number = random() % 2 == 0 ? random() % 4 : random();
    std::memcpy(value, &number, record->width);
  } else if (record && storedMembers(*record).size() > 1) {
    for (const auto* member : storedMembers(*record)) {
      void* const at = const_cast<void*>(member->ops->at(value));
      randomize(random, *member->ops->type, at);
      // A word whose type exists: others cannot be ordered among entries.
      if (record->name != "Tunnel::TunnelTable::TunnelTableEntry" ||
          member->name != "tunnelId")
        continue;
      auto& id = *static_cast<TunnelId*>(at);
      const U32 kind = random() % 24;
      id = TunnelId(TunnelId::convertToTunnelValue(
          kind == 23 ? Tunnel::TunnelTable::maxTunnelType
                     : static_cast<Tunnel::TunnelTable::TunnelType>(kind),
          id.extractIndexAndAf()));
    }
  } else if (!type.elements) {
    type.assign(value, leaf(random, type).get());
  } else {
    type.assign(value, GenericValue(&type).get());
    const bool isArray = type.name == "Kop::PodArray";
    U32 left = random() % 4;
    if (isArray && left == 0) left = random() % 17;
    for (U8 i = 0; i < left; ++i) {
      auto key = sample(random, *type.elements->key);
      if (isArray) std::memcpy(key.get(), &i, 1);
      const auto element =
          type.elements->value ? sample(random, *type.elements->value) : GenericValue();
      type.elements->insert(value, key.get(), element.get());
    }
  }
}

void mixIn(Random& random, const Kop::TypeRecord& type, void* to, const void* from) {
  for (const auto* member : storedMembers(type))
    if (random() % 2 == 0)
      member->ops->type->assign(const_cast<void*>(member->ops->at(to)),
                                member->ops->at(from));
}

}  // namespace Samples
