#pragma once

#include <functional>
#include <iosfwd>
#include <string>

#include "Kop/Entity.h"
#include "Kop/Module.h"
#include "Kop/NboAttrLogSa.h"
#include "apps/tunnelctl/Output.h"
#include "apps/tunnelctl/ValueJson.h"

// What entities hold, by reflection alone.

namespace Tunnelctl {

// One attribute of an entity type: exactly one of scalar and collection is set.
struct EntityMember {
  const Kop::MemberRecord* record;
  const Kop::MemberOps* scalar;
  const Kop::CollectionOps* collection;

  bool isChildren() const {
    return collection && collection->kind == Kop::CollectionKind::children;
  }
  bool isSet() const {
    return collection && collection->kind == Kop::CollectionKind::set;
  }
  const void* at(const Kop::Entity& entity) const { return scalar->at(&entity); }
};
std::vector<EntityMember> membersOf(const Kop::TypeRecord& type);
const Kop::TypeRecord& typeOf(const Kop::Entity& entity);
const Kop::TypeRecord& childTypeOf(const EntityMember& children);

// The keys of a collection in the natural order of their texts.
std::vector<Kop::GenericValue> sortedKeys(Kop::Entity& entity,
                                          const EntityMember& member);

// The members in the form of a configuration file, so that what is shown can be applied.
Json stateOf(Kop::Entity& entity);
// The same with {"path", "type"} before it, and "name" when it is not the last part of path.
Json stateOf(const std::string& path, Kop::Entity& entity);

// Indented and aligned. Empty collections are shown only in detail; in brief form only what
// differs from a fresh entity is.
void printState(std::ostream& out, const Style& style, Kop::Entity& entity, int indent);
void printState(std::ostream& out,
                const Style& style,
                const std::string& path,
                Kop::Entity& entity);

// One change of one attribute or entry, told by apply and by monitor.
struct Change {
  std::string member;  // "decapGroup.edge.decapIp"
  std::string key;     // of an entry, for people
  Json keyJson;        // of an entry, else null
  bool isEntry = false;
  bool isChild = false;
  bool before = false, after = false;  // whether there was, is a value
  std::string oldText, newText;        // for people
  std::string difference;  // of a record that changed: "member old -> new, .."
  Json oldJson, newJson;   // null when there is none
};
using ChangeSink = std::function<void(const Change&)>;

Change scalarChange(const std::string& member,
                    const Kop::TypeOps& type,
                    const void* before,
                    const void* after);
// Of a child or of a set's key the values are null and `was`, `is` decide.
Change entryChange(const std::string& member,
                   const EntityMember& collection,
                   const void* key,
                   const void* before,
                   const void* after,
                   bool was,
                   bool is);
// "decapGroup.edge.destinationPort  4790 -> 6635" with a sign before it.
std::string changeLine(const Style& style, const Change& change);
Json changeJson(const Change& change);

}  // namespace Tunnelctl
