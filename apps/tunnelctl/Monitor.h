#pragma once

#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "Kop/Entity.h"
#include "apps/tunnelctl/State.h"

namespace Tunnelctl {

// Tells every change of an entity and of all below it, with the value before it. Keeps a
// copy of all values for that.
//
// Owner    holds references to the entities; the sink outlives it.
class EntityWatch : public Kop::Notifiee {
 public:
  // Changes are told from now on; with `tellContents` first what the entity holds already,
  // as if it had just come.
  EntityWatch(Kop::Ptr<Kop::Entity> entity,
              std::string prefix,
              const ChangeSink& sink,
              bool tellContents);
  ~EntityWatch() override;
  EntityWatch(const EntityWatch&) = delete;
  EntityWatch& operator=(const EntityWatch&) = delete;

  const Kop::Ptr<Kop::Entity>& entity() const { return entity_; }

  void onAttribute(Kop::AttributeId attribute) override;
  void onAttribute(Kop::AttributeId attribute, const void* key) override;

 private:
  struct Watched {
    EntityMember member;
    std::string path;
    Kop::GenericValue scalar;  // of a scalar
    std::unordered_map<std::string, Kop::GenericValue>
        values;  // of a map or set, by key text
    std::unordered_map<std::string, std::unique_ptr<EntityWatch>> children;
  };
  void entryChanged(Watched& watched, const void* key, bool tell);
  void childChanged(Watched& watched, const void* key, bool tell, bool tellContents);

  Kop::Ptr<Kop::Entity> entity_;
  const ChangeSink& sink_;
  std::map<Kop::AttributeId, Watched> watched_;
};

}  // namespace Tunnelctl
