#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Kop/Entity.h"
#include "Kop/Module.h"
#include "tests/Kop/LogLink.h"
#include "tests/Tunnel/Samples.h"

// Every entity type of the library against plain maps, by reflection: what it holds, what it
// tells its observers, and what a copy that follows the attribute log holds. How entities work
// at all is tested with the runtime.

namespace {

using Kop::CollectionKind;
using Kop::CollectionOps;
using Kop::Entity;
using Kop::GenericValue;
using Kop::MemberRecord;
using Samples::Random;
using Events = std::vector<std::string>;

std::string textOf(const Kop::TypeOps& type, const void* value) {
  return GenericValue(&type, value).text().c_str();
}
std::string event(U32 attribute, const std::string& key) {
  return std::to_string(attribute) + ' ' + key;
}

struct Entry {
  GenericValue key, value;  // the value of a set or of children is none
  std::unique_ptr<class Shadow> child;
};
using Map = std::map<std::string, Entry>;

// What an entity must hold, and what it tells.
class Shadow : Kop::Notifiee {
 public:
  Shadow(const Kop::TypeRecord& type, const Kop::Ptr<Entity>& entity)
      : entity_(entity), type_(type) {
    for (const auto* member : Samples::storedMembers(type)) {
      if (member->ops->collection)
        maps_[member];
      else
        scalars_[member] = GenericValue(member->ops->type, member->ops->at(entity.get()));
    }
    entity->notifieeAdd(this);
  }
  ~Shadow() override { entity_->notifieeDel(this); }

  void change(Random& random) {
    const auto members = Samples::storedMembers(type_);
    const MemberRecord& member = *members[random() % members.size()];
    if (member.ops->collection)
      changeMap(random, member, *member.ops->collection, maps_[&member]);
    else
      changeScalar(random, member);
  }

  // The entity, or its copy.
  void expectHeldBy(Entity& entity) const {
    for (const auto& [member, value] : scalars_)
      EXPECT_TRUE(member->ops->type->equal(member->ops->at(&entity), value.get()))
          << member->name << " is " << textOf(*value.type(), member->ops->at(&entity))
          << " instead of " << value.text();
    for (const auto& [member, map] : maps_) {
      SCOPED_TRACE(member->name);
      const CollectionOps& ops = *member->ops->collection;
      EXPECT_EQ(ops.count(entity), map.size());
      for (const auto& [text, entry] : map) {
        SCOPED_TRACE(text);
        const void* const key = entry.key.get();
        if (!entry.child) {
          const void* const found = ops.find(entity, key);
          EXPECT_TRUE(found && (ops.kind == CollectionKind::set ||
                                entry.value.type()->equal(found, entry.value.get())));
        } else if (const auto child = ops.child(entity, key)) {
          EXPECT_EQ(child->parent(), &entity);
          entry.child->expectHeldBy(*child);
        } else {
          ADD_FAILURE() << "no child";
        }
      }
    }
  }

 private:
  void onAttribute(Kop::AttributeId attribute) override {
    events_.push_back(event(attribute, ""));
  }
  void onAttribute(Kop::AttributeId attribute, const void* key) override {
    for (const auto& [member, map] : maps_)
      if (member->number == attribute)
        events_.push_back(event(attribute, textOf(*member->ops->collection->key, key)));
  }
  void expectTold(const Events& wanted) {
    EXPECT_EQ(events_, wanted);
    events_.clear();
  }

  void changeScalar(Random& random, const MemberRecord& member) {
    GenericValue& value = scalars_[&member];
    const auto next = Samples::sample(random, *value.type());
    const bool isNew = !(next == value);
    member.ops->set(*entity_, next.get());
    value = next;
    expectTold(isNew ? Events{event(member.number, "")} : Events{});
  }

  void changeMap(Random& random,
                 const MemberRecord& member,
                 const CollectionOps& ops,
                 Map& map) {
    auto key = Samples::sample(random, *ops.key);
    auto value = ops.value ? Samples::sample(random, *ops.value) : GenericValue();
    if (!map.empty() && random() % 2 == 0)
      key = std::next(map.begin(), random() % map.size())->second.key;
    if (ops.kind == CollectionKind::internalMap) {
      for (const auto* attribute : Samples::storedMembers(*ops.value->record())) {
        if (attribute->ops->type != ops.key) continue;
        ops.key->assign(const_cast<void*>(attribute->ops->at(value.get())), key.get());
        break;
      }
    }
    const std::string text = key.text().c_str();
    const auto at = map.find(text);
    const Events told{event(member.number, text)};
    const U32 what = random() % 100;
    if (what == 0) {
      ops.delAll(*entity_);
      EXPECT_EQ(events_.size(), map.size());
      events_.clear();
      map.clear();
    } else if (what < 30) {
      EXPECT_EQ(ops.del(*entity_, key.get()), at != map.end());
      if (at != map.end() && at->second.child) {
        EXPECT_EQ(at->second.child->entity_->parent(), nullptr);
      }
      expectTold(at == map.end() ? Events{} : told);
      map.erase(text);
    } else if (ops.kind == CollectionKind::children) {
      const auto child = ops.childIs(*entity_, key.get());
      expectTold(at == map.end() ? told : Events{});
      auto& entry = map[text];
      if (at == map.end())
        entry = {key, {}, std::make_unique<Shadow>(*ops.childType(), child)};
      EXPECT_EQ(entry.child->entity_, child);
      for (U32 left = random() % 8; left > 0; --left)
        entry.child->change(random);
    } else {
      ops.set(*entity_, key.get(), value.get());
      const bool isSame = at != map.end() &&
                          (ops.kind == CollectionKind::set || at->second.value == value);
      expectTold(isSame ? Events{} : told);
      map[text] = {key, value, nullptr};
    }
  }

  const Kop::Ptr<Entity> entity_;
  const Kop::TypeRecord& type_;
  std::map<const MemberRecord*, GenericValue> scalars_;
  std::map<const MemberRecord*, Map> maps_;
  Events events_;
};

// Catches a change that is not told, told twice or under another number or key, an entry that
// is lost, kept, or stands under another key, and an attribute that a copy does not get or gets
// as another one.
TEST(EntityLaws, followPlainMapsAndAreFollowed) {
  int types = 0;
  for (const auto* module : Kop::modules()) {
    for (const auto& type : module->types) {
      if (!type.entity || !type.entity->make) continue;
      SCOPED_TRACE(type.name);
      ++types;
      Random random(Samples::seed);
      const auto entity = type.entity->make("from"), copy = type.entity->make("to");
      Shadow shadow(type, entity), old(type, copy);
      for (int i = 0; i < 20; ++i) {
        shadow.change(random);
        old.change(random);  // goes
      }
      Sample::Link link(entity, copy, 512);
      link.writer.resync();
      for (int step = 0; step < 1500 && !testing::Test::HasFailure(); ++step) {
        shadow.change(random);
        if (random() % 20 != 0) continue;
        link.drain();
        shadow.expectHeldBy(*entity);
        shadow.expectHeldBy(*copy);
      }
    }
  }
  EXPECT_EQ(types,
            21);  // and TunnelNameStatus, which lives in a ProtocolTunnelNameStatus
}

}  // namespace
