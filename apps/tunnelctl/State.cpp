#include "apps/tunnelctl/State.h"

#include <algorithm>
#include <ostream>

#include "Hivel/Database.h"

namespace Tunnelctl {

using Kop::Entity;
using Kop::GenericValue;
using Kop::MemberKind;

std::vector<EntityMember> membersOf(const Kop::TypeRecord& type) {
  std::vector<EntityMember> members;
  if (!type.entity) return members;
  for (const Kop::MemberRecord& record : type.members) {
    if (record.kind != MemberKind::attribute && record.kind != MemberKind::collection)
      continue;
    const Kop::EntityAttr* const attr = type.entity->find(record.number);
    if (!attr) continue;
    if (attr->collection)
      members.push_back({&record, nullptr, attr->collection});
    else if (record.ops && record.ops->at && record.ops->set)
      members.push_back({&record, record.ops, nullptr});
  }
  return members;
}

const Kop::TypeRecord& typeOf(const Entity& entity) {
  return Kop::typeRecord(entity.fwkType());
}
const Kop::TypeRecord& childTypeOf(const EntityMember& children) {
  return *children.collection->childType();
}

std::vector<GenericValue> sortedKeys(Entity& entity, const EntityMember& member) {
  std::vector<std::pair<std::string, GenericValue>> keys;
  const Kop::TypeOps* const type = member.collection->key;
  for (auto it = member.collection->iterator(entity); it->iterNonnull(); it->iterInc()) {
    GenericValue key(type, it->iterKey());
    std::string text(key.text());
    keys.emplace_back(std::move(text), std::move(key));
  }
  std::sort(keys.begin(), keys.end(),
            [](const auto& a, const auto& b) { return naturalLess(a.first, b.first); });
  std::vector<GenericValue> sorted;
  for (auto& [text, key] : keys)
    sorted.push_back(std::move(key));
  return sorted;
}

namespace {

Json collectionState(Entity& entity, const EntityMember& member) {
  const Kop::CollectionOps& ops = *member.collection;
  const auto keys = sortedKeys(entity, member);
  const bool named = !member.isSet() &&
                     std::all_of(keys.begin(), keys.end(), [&](const GenericValue& key) {
                       return isName(*ops.key, key.get());
                     });
  Json json = named ? Json::object() : Json::array();
  for (const GenericValue& key : keys) {
    if (member.isSet()) {
      json.push(toJson(*ops.key, key.get()));
      continue;
    }
    Json value;
    if (member.isChildren()) {
      const auto child = ops.child(entity, key.get());
      if (!child) continue;
      value = stateOf(*child);
    } else {
      const void* const found = ops.find(entity, key.get());
      if (!found) continue;
      value = toJson(*ops.value, found);
    }
    if (named) {
      json.add(keyName(*ops.key, key.get()), std::move(value));
    } else {
      Json pair = Json::object();
      pair.add("key", toJson(*ops.key, key.get()));
      pair.add("value", std::move(value));
      json.push(std::move(pair));
    }
  }
  return json;
}

bool isFresh(const Entity& entity, const EntityMember& member) {
  if (member.collection) return member.collection->count(entity) == 0;
  const Kop::EntityAttr* const attr = entity.kopTable().find(member.record->number);
  return attr && attr->isDefault(entity);
}

void printCollection(std::ostream& out,
                     const Style& style,
                     Entity& entity,
                     const EntityMember& member,
                     int indent) {
  const Kop::CollectionOps& ops = *member.collection;
  const std::string margin(static_cast<std::size_t>(indent), ' ');
  out << margin << style.paint(Style::key, member.record->name) << '\n';
  Columns columns;
  for (const GenericValue& key : sortedKeys(entity, member)) {
    const std::string words = toWords(*ops.key, key.get());
    if (member.isChildren()) {
      if (const auto child = ops.child(entity, key.get())) {
        out << margin << "  " << style.paint(Style::heading, words) << '\n';
        printState(out, style, *child, indent + 4);
      }
    } else if (member.isSet()) {
      columns.row({words});
    } else if (const void* const found = ops.find(entity, key.get())) {
      columns.row({words, style.detail ? toLine(*ops.value, found)
                                       : toLine(*ops.value, found, ops.key, key.get())});
    }
  }
  columns.print(out, style, false, static_cast<std::size_t>(indent) + 2);
}

}  // namespace

Json stateOf(Entity& entity) {
  Json json = Json::object();
  for (const EntityMember& member : membersOf(typeOf(entity))) {
    json.add(std::string(member.record->name),
             member.collection ? collectionState(entity, member)
                               : toJson(*member.scalar->type, member.at(entity)));
  }
  return json;
}

Json stateOf(const std::string& path, Entity& entity) {
  Json json = Json::object();
  json.add("path", Json::string(path));
  json.add("type", Json::string(std::string(typeOf(entity).name)));
  if (entity.name() != Hivel::lastPart(path))
    json.add("name", toJson(stringType(), &entity.name()));
  Json members = stateOf(entity);
  for (std::size_t i = 0; i < members.items.size(); ++i)
    json.add(std::move(members.names[i]), std::move(members.items[i]));
  return json;
}

void printState(std::ostream& out, const Style& style, Entity& entity, int indent) {
  const auto members = membersOf(typeOf(entity));
  Columns scalars;
  for (const EntityMember& member : members)
    if (member.scalar && !(style.brief && isFresh(entity, member)))
      scalars.row({style.paint(Style::key, member.record->name),
                   toLine(*member.scalar->type, member.at(entity))});
  scalars.print(out, style, false, static_cast<std::size_t>(indent));
  for (const EntityMember& member : members)
    if (member.collection && (style.detail || !isFresh(entity, member)))
      printCollection(out, style, entity, member, indent);
}

void printState(std::ostream& out,
                const Style& style,
                const std::string& path,
                Entity& entity) {
  out << style.paint(Style::heading, path);
  if (!style.brief) out << "  " << typeOf(entity).name;
  out << '\n';
  printState(out, style, entity, 2);
}

namespace {

// The members that differ, with what they were and are. Empty for what is no record.
std::string differenceLine(const Kop::TypeOps& type,
                           const void* before,
                           const void* after) {
  const Form& form = formOf(type);
  std::string line;
  if (form.shape != Form::Shape::record) return line;
  for (const Kop::MemberRecord& member : form.record->members) {
    if (!isStored(member)) continue;
    const Kop::TypeOps& inner = *member.ops->type;
    const void *const was = member.ops->at(before), *const is = member.ops->at(after);
    if (inner.equal(was, is)) continue;
    const bool isNested = formOf(inner).shape == Form::Shape::record;
    const auto words = [&](const void* value) {
      return isNested ? "(" + toWords(inner, value) + ")" : toWords(inner, value);
    };
    line += (line.empty() ? "" : ", ") + std::string(member.name) + " " + words(was) +
            " -> " + words(is);
  }
  return line;
}

}  // namespace

Change scalarChange(const std::string& member,
                    const Kop::TypeOps& type,
                    const void* before,
                    const void* after) {
  Change change;
  change.member = member;
  change.before = change.after = true;
  change.oldText = toLine(type, before);
  change.newText = toLine(type, after);
  change.oldJson = toJson(type, before);
  change.newJson = toJson(type, after);
  return change;
}

Change entryChange(const std::string& member,
                   const EntityMember& collection,
                   const void* key,
                   const void* before,
                   const void* after,
                   bool was,
                   bool is) {
  const Kop::CollectionOps& ops = *collection.collection;
  Change change;
  change.member = member;
  change.isEntry = true;
  change.isChild = collection.isChildren();
  change.key = toWords(*ops.key, key);
  change.keyJson = toJson(*ops.key, key);
  change.before = was;
  change.after = is;
  const bool hasValue = !change.isChild && !collection.isSet();
  if (hasValue && was) {
    change.oldText = toLine(*ops.value, before, ops.key, key);
    change.oldJson = toJson(*ops.value, before);
  }
  if (hasValue && was && is)
    change.difference = differenceLine(*ops.value, before, after);
  if (hasValue && is) {
    change.newText = toLine(*ops.value, after, ops.key, key);
    change.newJson = toJson(*ops.value, after);
  }
  return change;
}

std::string changeLine(const Style& style, const Change& change) {
  std::string what = style.paint(Style::key, change.member);
  if (change.isEntry) what += " " + change.key;
  const auto tail = [](const std::string& text) {
    return text.empty() ? "" : "  " + text;
  };
  if (change.before && change.after)
    return style.paint(Style::faint, "~") + " " + what + "  " +
           (change.difference.empty() ? change.oldText + " -> " + change.newText
                                      : change.difference);
  if (change.after)
    return style.paint(Style::added, "+") + " " + what + tail(change.newText);
  return style.paint(Style::removed, "-") + " " + what + tail(change.oldText);
}

Json changeJson(const Change& change) {
  Json json = Json::object();
  json.add("member", Json::string(change.member));
  if (change.isEntry) json.add("key", change.keyJson);
  json.add("change", Json::string(!change.before  ? "added"
                                  : !change.after ? "removed"
                                                  : "set"));
  if (change.before && !change.oldJson.is(Json::Kind::null))
    json.add("old", change.oldJson);
  if (change.after && !change.newJson.is(Json::Kind::null))
    json.add("new", change.newJson);
  return json;
}

}  // namespace Tunnelctl
