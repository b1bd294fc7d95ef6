#include "Kop/Entity.h"

#include <atomic>
#include <random>

#include "Kop/Module.h"
#include "Kop/NboAttrLogSa.h"

namespace Kop {

namespace {

// The upper half is drawn once per process, so that identities of different processes do not
// meet; the lower half counts. 0 is never given.
U64 nextIdentity() {
  static std::atomic<U64> next{U64{std::random_device{}() | 1u} << 32};
  return next.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

Entity::Entity(const String& name) : name_(name), identity_(nextIdentity()) {}
Entity::~Entity() = default;

NotifieeListIterator Entity::notifieeList() {
  return NotifieeListIterator(&notifiees_);
}
const String& Entity::name() const {
  return name_;
}
void Entity::handleParent(Ptr<Entity>) {
  notifiees_.visitParent();
}
void Entity::parentIs(Entity* parent) {
  parent_ = parent;
  handleParent(Ptr<Entity>(parent));
}

const EntityTable& Entity::kopTable() const {
  return *typeRecord(fwkType()).entity;
}

void Entity::throwWriteUpdateFromReadOnlyProxyException() const {
  throw WriteUpdateFromReadOnlyProxyException(stringPrintf(
      "'%s' is a read-only copy of another process's entity", name().c_str()));
}

void EntityAccess::throwTrailing(const NboAttrLog::In& in) {
  throw LogCorruptException(
      stringPrintf("%zu bytes behind the message's end", in.remaining()));
}

void throwNewEntityArgsException(FwkType type) {
  throw NewEntityArgsException(
      stringPrintf("type %u of module %.*s takes no arguments but its name", type.index,
                   static_cast<int>(type.module->name.size()), type.module->name.data()));
}

namespace {

bool collectionOp(const CollectionOps& collection,
                  EntityOp op,
                  Entity& entity,
                  const void* key,
                  const void* value,
                  void* result) {
  const bool children = collection.kind == CollectionKind::children;
  if (!key) {
    if (op == EntityOp::del) collection.delAll(entity);
    return op == EntityOp::del;
  }
  switch (op) {
    case EntityOp::set:
      if (children) {
        const Ptr<Entity> child = collection.childIs(entity, key);
        if (result) *static_cast<Ptr<Entity>*>(result) = child;
      } else {
        collection.set(entity, key, value);
      }
      return true;
    case EntityOp::del: return collection.del(entity, key);
    case EntityOp::has:
      *static_cast<bool*>(result) = collection.find(entity, key) != nullptr;
      return true;
    case EntityOp::get: break;
  }
  const void* const found = collection.find(entity, key);
  if (!found) return false;
  if (children)
    *static_cast<Ptr<Entity>*>(result) = collection.child(entity, key);
  else if (collection.kind == CollectionKind::set)
    *static_cast<bool*>(result) = true;
  else
    collection.value->assign(result, found);
  return true;
}

}  // namespace

bool entityAttributeOp(const KopAttr& attr,
                       EntityOp op,
                       Entity& entity,
                       const void* key,
                       const void* value,
                       void* result) {
  const TypeRecord& type = typeRecord(attr.type);
  KOP_ASSERT(type.kind == Kind::entity, "type.isPolymorphic()", "GenericIfImpl");
  const EntityAttr* const row = type.entity->find(attr.attribute);
  if (!row) return false;
  if (const auto* collection = row->collection)
    return collectionOp(*collection, op, entity, key, value, result);
  const MemberOps& member = *type.member(attr.attribute)->ops;
  if (op == EntityOp::get)
    member.type->assign(result, member.at(&entity));
  else if (op == EntityOp::set)
    member.set(entity, value);
  else
    return false;
  return true;
}

std::unique_ptr<CollectionIterator> entityIterator(const KopAttr& attr, Entity& entity) {
  const TypeRecord& type = typeRecord(attr.type);
  KOP_ASSERT(type.kind == Kind::entity, "type.isPolymorphic()", "GenericIfImpl");
  const EntityAttr* const row = type.entity->find(attr.attribute);
  return row && row->collection ? row->collection->iterator(entity) : nullptr;
}

bool valueAttributeOp(
    const KopAttr& attr, AttributeOp op, void* a, const void* b, void* result) {
  const TypeRecord& type = typeRecord(attr.type);
  KOP_ASSERT(type.kind != Kind::entity, "!t.isPolymorphic()", "GenericIfImpl");
  return type.value && type.value->attributeOp(op, a, b, attr.attribute, result);
}

}  // namespace Kop
