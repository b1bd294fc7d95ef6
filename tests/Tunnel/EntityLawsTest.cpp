#include "Kop/Entity.h"
#include "Kop/GenericIfImpl.h"
#include "Kop/Module.h"
#include "tests/Kop/EntityDump.h"
#include "tests/Kop/LogLink.h"
#include "tests/Support/Testing.h"
#include "tests/Tunnel/Samples.h"

// Every entity type of the library against plain maps, by reflection: what it holds, what it
// tells its observers, and what a copy that follows the attribute log holds. How entities work
// at all is tested with the runtime.

namespace {

using Kop::CollectionKind;
using Kop::Entity;
using Kop::EntityOp;
using Kop::GenericValue;
using Kop::MemberRecord;
using Samples::Random;

std::string logged(const GenericValue& value) {
  Kop::NboAttrLog::Out out;
  value.type()->logWrite(out, value.get());
  return bytesText(out);
}

// A key of the collection, often one that is there.
GenericValue keyFor(Random& random, Entity& entity, const Kop::CollectionOps& ops) {
  auto key = Samples::sample(random, *ops.key);
  if (random() % 2 == 0) return key;
  for (auto it = ops.iterator(entity); it->iterNonnull() && random() % 4; it->iterInc())
    key = GenericValue(ops.key, it->iterKey());
  return key;
}

// Gives a value of an internal map the key that it stands under.
void keyIs(const Kop::CollectionOps& ops, GenericValue& value, const GenericValue& key) {
  for (const auto* attribute : Samples::storedMembers(*ops.value->record())) {
    if (attribute->ops->type != ops.key) continue;
    return ops.key->assign(const_cast<void*>(attribute->ops->at(value.get())), key.get());
  }
}

// Changes an entity, or a child of it, at random, and checks what it then holds and has told.
void change(Random& random, Entity& entity) {
  const Kop::TypeRecord& type = Kop::typeRecord(entity.fwkType());
  const auto members = Samples::storedMembers(type);
  const MemberRecord& member = *members[random() % members.size()];
  std::string path(member.name);
  const EntityDump before = dump(entity);
  EntityDump wanted = before;
  const auto is = [&](const GenericValue& value) {  // an equal one stays as it is
    const std::string& old = before.contains(path) ? before.at(path) : std::string();
    Kop::NboAttrLog::In in(old.data(), old.size());
    GenericValue was(value.type());
    if (!old.empty()) value.type()->logRead(was.get(), in);
    wanted[path] = old.empty() || !(was == value) ? logged(value) : old;
  };
  const auto erase = [&] {  // with all below it
    std::erase_if(wanted, [&](const auto& entry) {
      return (entry.first + '/').starts_with(path + '/');
    });
  };
  Log log;
  Recorder recorder(log, "", type);
  entity.notifieeAdd(&recorder);
  const auto does = [&](EntityOp op, const void* key, const void* value, void* result) {
    const Kop::KopAttr attribute{entity.fwkType(), member.number};
    return Kop::entityAttributeOp(attribute, op, entity, key, value, result);
  };
  const U32 what = random() % 100;
  if (!member.ops->collection) {
    const auto value = Samples::sample(random, *member.ops->type);
    GenericValue got(value.type());
    EXPECT_TRUE(does(EntityOp::set, nullptr, value.get(), nullptr));
    EXPECT_TRUE(does(EntityOp::get, nullptr, nullptr, got.get()) && got == value);
    is(value);
  } else if (what == 0) {
    const U32 count = member.ops->collection->count(entity);
    EXPECT_TRUE(does(EntityOp::del, nullptr, nullptr, nullptr));
    EXPECT_EQ(log.size(), count);
    log.clear();
    erase();
  } else {
    const auto& ops = *member.ops->collection;
    const auto key = keyFor(random, entity, ops);
    path += '/' + std::string(key.text().c_str());
    const bool isThere = before.contains(path), isChild = !ops.value;
    const U32 others = ops.count(entity) - isThere;
    Kop::Ptr<Entity> child, made;
    bool has = false;
    EXPECT_TRUE(does(EntityOp::has, key.get(), nullptr, &has) && has == isThere);
    EXPECT_TRUE(!isChild || does(EntityOp::get, key.get(), nullptr, &child) == isThere);
    if (what < 30) {
      EXPECT_EQ(does(EntityOp::del, key.get(), nullptr, nullptr), isThere);
      EXPECT_TRUE(!child || !child->parent());
      erase();
    } else if (isChild) {
      EXPECT_TRUE(does(EntityOp::set, key.get(), nullptr, nullptr));
      EXPECT_TRUE(does(EntityOp::get, key.get(), nullptr, &made));
      EXPECT_TRUE(made->parent() == &entity && (!child || child == made));
      for (U32 left = random() % 8; left > 0; --left)
        change(random, *made);
      erase();
      for (const auto& [below, value] : dump(*made))
        wanted[path + '/' + below] = value;
      const U64 identity = made->identity();
      is(GenericValue(&Kop::TypeOpsOf<U64>::ops, &identity));
    } else {
      auto value = Samples::sample(random, *ops.value);
      if (ops.kind == CollectionKind::internalMap) keyIs(ops, value, key);
      EXPECT_TRUE(does(EntityOp::set, key.get(), value.get(), nullptr));
      if (ops.kind == CollectionKind::set)
        wanted[path];
      else
        is(value);
    }
    EXPECT_EQ(ops.count(entity), others + (what >= 30));
  }
  entity.notifieeDel(&recorder);
  const bool isNew = before.contains(path) != wanted.contains(path) ||
                     (wanted.contains(path) && before.at(path) != wanted.at(path));
  EXPECT_EQ(log, Log(isNew, path));
  EXPECT_EQ(dump(entity), wanted);
}

// Catches a change that is not told, told twice or under another number or key, an entry that
// is lost, kept, or stands under another key, and an attribute that a copy does not get or gets
// as another one.
TEST(EntityLaws, followPlainMapsAndAreFollowed) {
  int types = 0;
  for (const auto* module : Kop::modules())
    for (const auto& type : module->types) {
      if (!type.entity || !type.entity->make) continue;
      SCOPED_TRACE(type.name);
      ++types;
      Random random(Samples::seed);
      const auto entity = type.entity->make("from"), copy = type.entity->make("to");
      for (int i = 0; i < 20; ++i) {
        change(random, *entity);
        change(random, *copy);  // goes
      }
      Sample::Link link(entity, copy, 512);
      link.writer.resync();
      for (int step = 0; step < 500 && !testing::Test::HasFailure();
           step += Support::stride) {
        change(random, *entity);
        if (random() % 20 != 0) continue;
        link.drain();
        EXPECT_EQ(dump(*copy), dump(*entity));
      }
    }
  EXPECT_EQ(types,
            21);  // and TunnelNameStatus, which lives in a ProtocolTunnelNameStatus
}

}  // namespace
