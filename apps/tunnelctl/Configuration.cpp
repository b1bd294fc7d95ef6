#include "apps/tunnelctl/Configuration.h"

#include <unordered_map>
#include <unordered_set>

#include "Hivel/Database.h"
#include "Kop/Exception.h"

namespace Tunnelctl {

using Kop::Entity;
using Kop::GenericValue;

namespace {

[[noreturn]] void fail(const Json& json, const Where& where, const std::string& reason) {
  throw DataError(json.line, where.text(), reason);
}

std::string requireString(const Json& object, std::string_view name) {
  const Json* const found = object.find(name);
  const Where where{nullptr, name};
  if (!found) fail(object, where, "is missing");
  if (!found->is(Json::Kind::string) || found->text.empty())
    fail(*found, where, "found " + found->summary() + ", expected a string");
  return found->text;
}

PlannedEntity planEntity(const Kop::TypeRecord& type,
                         const Json& json,
                         const Where* up,
                         bool isRoot);

// An object by key, or an array of {key, value} for keys that are no names.
std::vector<PlannedEntry> planChildren(const EntityMember& member,
                                       const Json& json,
                                       const Where& where) {
  const Kop::TypeOps& keyType = *member.collection->key;
  std::vector<PlannedEntry> entries;
  std::unordered_set<std::string> seen;
  const auto once = [&](const GenericValue& key, const Json& there, const Where& at) {
    if (!seen.insert(std::string(key.text())).second)
      fail(there, at, "this key stands twice");
  };
  const auto add = [&](GenericValue key, const Json& child, const Where& at) {
    PlannedEntry entry;
    entry.key = std::move(key);
    entry.child = std::make_unique<PlannedEntity>(
        planEntity(childTypeOf(member), child, &at, false));
    entries.push_back(std::move(entry));
  };
  if (!json.is(Json::Kind::object) && !json.is(Json::Kind::array))
    fail(json, where, "found " + json.summary() + ", expected an object by key");
  for (std::size_t i = 0; i < json.items.size(); ++i) {
    const Json& item = json.items[i];
    if (json.is(Json::Kind::object)) {
      const Where at{&where, json.names[i]};
      GenericValue read =
          keyFromName(keyType, json.names[i], item.line, at, Numbers::declared);
      once(read, item, at);
      add(std::move(read), item, at);
      continue;
    }
    const std::string index = "[" + std::to_string(i) + "]";
    const Where at{&where, index};
    const Json* const key = item.is(Json::Kind::object) ? item.find("key") : nullptr;
    const Json* const value = item.is(Json::Kind::object) ? item.find("value") : nullptr;
    if (!key || !value || item.items.size() != 2)
      fail(item, at,
           "found " + item.summary() + ", expected {\"key\": .., \"value\": ..}");
    GenericValue read(&keyType);
    const Where keyAt{&at, "key"};
    fromJson(keyType, read.get(), *key, keyAt, Numbers::declared);
    once(read, *key, keyAt);
    add(std::move(read), *value, Where{&at, "value"});
  }
  return entries;
}

PlannedMember planMember(const EntityMember& member,
                         const Json& json,
                         const Where& where) {
  PlannedMember planned;
  planned.member = member;
  if (member.scalar) {
    planned.value = GenericValue(member.scalar->type);
    fromJson(*member.scalar->type, planned.value.get(), json, where, Numbers::declared);
  } else if (member.isChildren()) {
    planned.entries = planChildren(member, json, where);
  } else {
    const Kop::CollectionOps& ops = *member.collection;
    const bool keyInside = ops.kind == Kop::CollectionKind::internalMap;
    for (Entry& entry : readEntries(*ops.key, member.isSet() ? nullptr : ops.value,
                                    keyInside, json, where, Numbers::declared))
      planned.entries.push_back({std::move(entry.key), std::move(entry.value), nullptr});
  }
  return planned;
}

bool isReserved(std::string_view name) {
  return name == "path" || name == "type" || name == "name" || name == "delete";
}

PlannedEntity planEntity(const Kop::TypeRecord& type,
                         const Json& json,
                         const Where* up,
                         bool isRoot) {
  static const Where top;
  const Where& where = up ? *up : top;
  if (!json.is(Json::Kind::object))
    fail(json, where, "found " + json.summary() + ", expected an object");
  PlannedEntity plan;
  plan.type = &type;
  const auto members = membersOf(type);
  for (std::size_t i = 0; i < json.items.size(); ++i) {
    const std::string& name = json.names[i];
    if (isRoot && isReserved(name)) continue;
    const Where inner{&where, name};
    const EntityMember* found = nullptr;
    std::string known;
    for (const EntityMember& member : members) {
      if (member.record->name == name) found = &member;
      known += (known.empty() ? "" : ", ") + std::string(member.record->name);
    }
    if (!found)
      fail(json.items[i], inner,
           std::string(type.name) + " has no such member; it has " + known);
    plan.members.push_back(planMember(*found, json.items[i], inner));
  }
  return plan;
}

PlannedPath planPath(const Json& json) {
  const Where none;
  if (!json.is(Json::Kind::object))
    fail(json, none,
         "found " + json.summary() + ", expected an object with path and type");
  PlannedPath plan;
  plan.path = requireString(json, "path");
  try {
    Hivel::checkPath(plan.path);
  } catch (const Kop::RangeException& error) {
    fail(*json.find("path"), Where{nullptr, "path"}, error.what());
  }
  if (const Json* const remove = json.find("delete")) {
    const Where where{nullptr, "delete"};
    if (!remove->is(Json::Kind::boolean))
      fail(*remove, where, "found " + remove->summary() + ", expected true or false");
    plan.remove = remove->flag;
  }
  if (plan.remove) {
    for (std::size_t i = 0; i < json.items.size(); ++i)
      if (!isReserved(json.names[i]))
        fail(json.items[i], Where{nullptr, json.names[i]},
             "a path that is deleted has no members");
    return plan;
  }

  const std::string typeName = requireString(json, "type");
  const Json& typeJson = *json.find("type");
  const Kop::TypeRecord* const type = Kop::findType(typeName);
  if (!type || type->kind != Kop::Kind::entity)
    fail(typeJson, Where{nullptr, "type"},
         "found " + typeJson.summary() + ", expected an entity type; `types` lists them");
  if (!type->entity->make)
    fail(typeJson, Where{nullptr, "type"},
         typeName + " lives only under its key in another entity");
  plan.name = Hivel::lastPart(plan.path);
  if (const Json* const name = json.find("name"))
    fromJson(stringType(), &plan.name, *name, Where{nullptr, "name"}, Numbers::declared);
  plan.entity = planEntity(*type, json, nullptr, true);
  return plan;
}

std::string located(std::string_view file, U32 line, const std::string& what) {
  return std::string(file) + ":" + std::to_string(line) + ": " + what;
}

}  // namespace

Configuration parseConfiguration(std::string_view text, std::string_view fileName) {
  try {
    const Json json = parseJson(text);
    Configuration configuration;
    std::unordered_map<std::string, U32> lines;
    const auto add = [&](const Json& item) {
      configuration.paths.push_back(planPath(item));
      const std::string& path = configuration.paths.back().path;
      const auto [known, isNew] = lines.emplace(path, item.line);
      if (!isNew)
        fail(*item.find("path"), Where{nullptr, "path"},
             path + " stands already on line " + std::to_string(known->second));
    };
    if (json.is(Json::Kind::array)) {
      for (const Json& item : json.items)
        add(item);
    } else {
      add(json);
    }
    return configuration;
  } catch (const JsonError& error) {
    throw ConfigurationError(
        located(fileName, error.line,
                error.path.empty() ? error.what() : error.path + ": " + error.what()));
  } catch (const DataError& error) {
    throw ConfigurationError(located(fileName, error.line, error.what()));
  }
}

namespace {

class Applier {
 public:
  Applier(Changes& changes, const ChangeSink& sink) : changes_(changes), sink_(sink) {}

  void root(const PlannedEntity& plan, Entity& entity, bool dryRun) {
    Level level{entity, nullptr, nullptr, nullptr, nullptr};
    this->entity(plan, level, dryRun, "");
  }

 private:
  // An entity that a dry run looks at, and where it stands.
  struct Level {
    Entity& entity;
    Level* up;
    const EntityMember* member;  // of the one above
    const void* key;
    Kop::Ptr<Entity> aside;
  };
  // A fresh entity like that of the level. Some are made only by the one above them.
  static Entity& aside(Level& level) {
    if (!level.aside)
      level.aside = level.up
                        ? level.member->collection->childIs(aside(*level.up), level.key)
                        : typeOf(level.entity).entity->make("aside");
    return *level.aside;
  }

  void entity(const PlannedEntity& plan,
              Level& level,
              bool dryRun,
              const std::string& prefix) {
    for (const PlannedMember& planned : plan.members) {
      const std::string path = prefix + std::string(planned.member.record->name);
      if (planned.member.scalar)
        scalar(planned, level.entity, dryRun, path);
      else
        collection(planned, level, dryRun, path);
    }
  }

  void scalar(const PlannedMember& planned,
              Entity& entity,
              bool dryRun,
              const std::string& path) {
    const Kop::TypeOps& type = *planned.member.scalar->type;
    const void* const wanted = planned.value.get();
    const GenericValue before(&type, planned.member.at(entity));
    if (type.equal(before.get(), wanted)) return;
    if (!dryRun) planned.member.scalar->set(entity, wanted);
    ++changes_.attributes;
    if (sink_) sink_(scalarChange(path, type, before.get(), wanted));
  }

  void collection(const PlannedMember& planned,
                  Level& level,
                  bool dryRun,
                  const std::string& path) {
    const EntityMember& member = planned.member;
    removeOthers(planned, level.entity, dryRun, path);
    for (const PlannedEntry& entry : planned.entries) {
      if (member.isChildren())
        child(member, entry, level, dryRun, path);
      else
        set(member, entry, level.entity, dryRun, path);
    }
  }

  void removeOthers(const PlannedMember& planned,
                    Entity& entity,
                    bool dryRun,
                    const std::string& path) {
    const EntityMember& member = planned.member;
    const Kop::CollectionOps& ops = *member.collection;
    std::unordered_set<std::string> wanted;
    for (const PlannedEntry& entry : planned.entries)
      wanted.insert(std::string(entry.key.text()));
    for (const GenericValue& key : sortedKeys(entity, member)) {
      if (wanted.contains(std::string(key.text()))) continue;
      if (sink_) {
        const void* const value =
            member.isChildren() ? nullptr : ops.find(entity, key.get());
        sink_(entryChange(path, member, key.get(), value, nullptr, true, false));
      }
      if (!dryRun) ops.del(entity, key.get());
      ++changes_.removed;
    }
  }

  void set(const EntityMember& member,
           const PlannedEntry& entry,
           Entity& entity,
           bool dryRun,
           const std::string& path) {
    const Kop::CollectionOps& ops = *member.collection;
    const void* const found = ops.find(entity, entry.key.get());
    const bool was = found != nullptr;
    if (was && (member.isSet() || ops.value->equal(found, entry.value.get()))) return;
    if (sink_)
      sink_(entryChange(path, member, entry.key.get(), found, entry.value.get(), was,
                        true));
    if (!dryRun) {
      const bool present = true;
      ops.set(entity, entry.key.get(), member.isSet() ? &present : entry.value.get());
    }
    ++(was ? changes_.changed : changes_.added);
  }

  void child(const EntityMember& member,
             const PlannedEntry& entry,
             Level& level,
             bool dryRun,
             const std::string& path) {
    const Kop::CollectionOps& ops = *member.collection;
    auto child = ops.child(level.entity, entry.key.get());
    if (!child) {
      // What a dry run may not make it makes aside, where it may do everything.
      child = ops.childIs(dryRun ? aside(level) : level.entity, entry.key.get());
      dryRun = false;
      ++changes_.added;
      if (sink_)
        sink_(entryChange(path, member, entry.key.get(), nullptr, nullptr, false, true));
    }
    Level below{*child, &level, &member, entry.key.get(), nullptr};
    entity(*entry.child, below, dryRun,
           path + "." + toWords(*ops.key, entry.key.get()) + ".");
  }

  Changes& changes_;
  const ChangeSink& sink_;
};

}  // namespace

void apply(const PlannedEntity& plan,
           Entity& entity,
           bool dryRun,
           Changes& changes,
           const ChangeSink& sink) {
  Applier(changes, sink).root(plan, entity, dryRun);
}

}  // namespace Tunnelctl
