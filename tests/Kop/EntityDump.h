#pragma once

#include "Kop/Module.h"
#include "Kop/NboAttrLogSa.h"
#include "tests/Support/Testing.h"

// What an entity and all below it hold, by path: `colour`, `mark/5`, `branch/'b'/label`. A
// value stands there in its log form, a child as its identity. Copies are compared by this and
// not by the system's own equality.

using EntityDump = std::map<std::string, std::string>;

inline std::string bytesText(const Kop::NboAttrLog::Out& out) {
  return std::string(reinterpret_cast<const char*>(out.data()), out.size());
}

inline EntityDump dump(Kop::Entity& entity, bool identities = true) {
  EntityDump result;
  for (const auto& attr : entity.kopTable().attrs) {
    if (!attr.collection) {
      Kop::NboAttrLog::Out out;
      attr.write(out, entity);
      result[attr.name] = bytesText(out);
      continue;
    }
    const auto it = attr.collection->iterator(entity);
    for (; it->iterNonnull(); it->iterInc()) {
      Kop::TextOut key;
      attr.collection->key->text(key, it->iterKey());
      const std::string path = attr.name + ("/" + std::string(key.view()));
      Kop::NboAttrLog::Out out;
      if (const Kop::Ptr<Kop::Entity> child = it->iterObj()) {
        if (identities) out.writeU64(child->identity());
        for (auto& [name, value] : dump(*child, identities))
          result[path + "/" + name] = std::move(value);
      } else if (const void* const value = it->iterValue()) {
        attr.collection->value->logWrite(out, value);
      }
      result[path] = bytesText(out);
    }
  }
  return result;
}

// Writes down what it hears of an entity of the type, by path as well, and of any other that
// it was detached or moved.
using Log = std::vector<std::string>;
struct Recorder : Kop::Notifiee {
  Recorder(Log& log, std::string name, const Kop::TypeRecord& type)
      : log(log), name(std::move(name)), type(type) {}
  void onAttribute(Kop::AttributeId attribute) override {
    log.push_back(name + std::string(type.member(attribute)->name));
  }
  void onAttribute(Kop::AttributeId attribute, const void* key) override {
    Kop::TextOut text;
    const auto* const member = type.member(attribute);
    member->ops->collection->key->text(text, key);
    log.push_back(name + std::string(member->name) + '/' + std::string(text.view()));
  }
  void onParent() override { log.push_back(name + "parent"); }
  void onDetached() override { log.push_back(name + "detached"); }
  Log& log;
  std::string name;
  const Kop::TypeRecord& type;
};
