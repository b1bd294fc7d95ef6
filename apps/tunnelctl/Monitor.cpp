#include "apps/tunnelctl/Monitor.h"

#include <utility>

namespace Tunnelctl {

using Kop::GenericValue;

EntityWatch::EntityWatch(Kop::Ptr<Kop::Entity> entity,
                         std::string prefix,
                         const ChangeSink& sink,
                         bool tellContents)
    : entity_(std::move(entity)), sink_(sink) {
  for (const EntityMember& member : membersOf(typeOf(*entity_))) {
    Watched& watched = watched_[member.record->number];
    watched.member = member;
    watched.path = prefix + std::string(member.record->name);
    if (member.scalar) {
      const Kop::TypeOps& type = *member.scalar->type;
      watched.scalar = GenericValue(&type, member.at(*entity_));
      const auto* const attr = entity_->kopTable().find(member.record->number);
      if (!tellContents || attr->isDefault(*entity_)) continue;
      Change change =
          scalarChange(watched.path, type, watched.scalar.get(), watched.scalar.get());
      change.before = false;
      sink_(change);
      continue;
    }
    for (const GenericValue& key : sortedKeys(*entity_, member)) {
      if (member.isChildren())
        childChanged(watched, key.get(), tellContents, tellContents);
      else
        entryChanged(watched, key.get(), tellContents);
    }
  }
  entity_->notifieeAdd(this);
}

EntityWatch::~EntityWatch() {
  entity_->notifieeDel(this);
}

void EntityWatch::onAttribute(Kop::AttributeId attribute) {
  const auto found = watched_.find(attribute);
  if (found == watched_.end() || !found->second.member.scalar) return;
  Watched& watched = found->second;
  const Kop::TypeOps& type = *watched.member.scalar->type;
  const void* const now = watched.member.at(*entity_);
  if (type.equal(now, watched.scalar.get())) return;
  const Change change = scalarChange(watched.path, type, watched.scalar.get(), now);
  type.assign(watched.scalar.get(), now);
  sink_(change);
}

void EntityWatch::onAttribute(Kop::AttributeId attribute, const void* key) {
  const auto found = watched_.find(attribute);
  if (found == watched_.end() || !found->second.member.collection) return;
  if (found->second.member.isChildren())
    childChanged(found->second, key, true, true);
  else
    entryChanged(found->second, key, true);
}

void EntityWatch::entryChanged(Watched& watched, const void* key, bool tell) {
  const Kop::CollectionOps& ops = *watched.member.collection;
  const void* const now = ops.find(*entity_, key);
  const std::string text(GenericValue(ops.key, key).text());
  const auto known = watched.values.find(text);
  const bool was = known != watched.values.end();
  if (!was && !now) return;
  const bool isSet = watched.member.isSet();
  if (was && now && (isSet || ops.value->equal(known->second.get(), now))) return;
  if (tell)
    sink_(entryChange(watched.path, watched.member, key,
                      was ? known->second.get() : nullptr, now, was, now != nullptr));
  if (!now)
    watched.values.erase(known);
  else
    watched.values[text] = isSet ? GenericValue() : GenericValue(ops.value, now);
}

void EntityWatch::childChanged(Watched& watched,
                               const void* key,
                               bool tell,
                               bool tellContents) {
  const Kop::CollectionOps& ops = *watched.member.collection;
  const auto now = ops.child(*entity_, key);
  const std::string text(GenericValue(ops.key, key).text());
  const auto known = watched.children.find(text);
  const bool was = known != watched.children.end();
  if (was && now == known->second->entity()) return;
  if (was) {
    if (tell)
      sink_(
          entryChange(watched.path, watched.member, key, nullptr, nullptr, true, false));
    watched.children.erase(known);
  }
  if (!now) return;
  if (tell)
    sink_(entryChange(watched.path, watched.member, key, nullptr, nullptr, false, true));
  watched.children.emplace(
      text,
      std::make_unique<EntityWatch>(
          now, watched.path + "." + toWords(*ops.key, key) + ".", sink_, tellContents));
}

}  // namespace Tunnelctl
