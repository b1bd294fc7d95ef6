// registry TABLE LIBRARY: loads the library twice, lets go of it, and compares what it has
// registered with the table, line by line. Fails when they differ, or when the library prints
// anything while it loads.
#include <algorithm>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include "Kop/Entity.h"
#include "Kop/Module.h"
#include "Kop/NboAttrLogSa.h"

using Kop::MemberKind;
using Lines = std::vector<std::string>;

// Bytes that the library printed; negative when it cannot be loaded.
static off_t load(const char* library) {
  const int printed = memfd_create("printed", 0);
  const int out = dup(STDOUT_FILENO), err = dup(STDERR_FILENO);
  dup2(printed, STDOUT_FILENO);
  dup2(printed, STDERR_FILENO);
  bool loaded = true;
  for (int i = 0; i < 2; ++i) {
    void* const handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    loaded = loaded && handle;
    if (handle) dlclose(handle);  // descriptors must outlive it
  }
  std::fflush(nullptr);
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  return loaded ? lseek(printed, 0, SEEK_END) : -1;
}

// A new entity of the type; the children's types are made in a parent, which is kept.
static Kop::Ptr<Kop::Entity> make(const Kop::TypeRecord& type,
                                  Kop::Ptr<Kop::Entity>& parent) {
  if (type.entity->make) return type.entity->make("new");
  for (const auto* module : Kop::modules()) {
    for (const auto& other : module->types) {
      if (!other.entity || !other.entity->make) continue;
      for (const auto& attr : other.entity->attrs) {
        if (!attr.collection || !attr.collection->childType ||
            attr.collection->childType() != &type)
          continue;
        parent = other.entity->make("parent");
        return attr.collection->childIs(*parent,
                                        Kop::GenericValue(attr.collection->key).get());
      }
    }
  }
  return nullptr;
}

static void describe(const Kop::TypeRecord& type, Lines& lines) {
  Kop::GenericValue value;
  Kop::Ptr<Kop::Entity> parent, entity;
  const void* self = nullptr;
  if (type.value) {
    value = Kop::GenericValue(type.value->ops);
    self = value.get();
  } else if (type.entity) {
    entity = make(type, parent);
    self = entity.get();
  }
  for (const auto& member : type.members) {
    std::ostringstream line;
    line << "  " << member.number << ' ';
    switch (member.kind) {
      case MemberKind::enumerator:
        line << "enumerator " << member.name << " = " << member.value;
        break;
      case MemberKind::function: line << "function " << member.name; break;
      case MemberKind::collection:
        line << "collection " << member.name << ' ' << member.arguments[0] << " -> "
             << member.type;
        break;
      default:
        line << (member.kind == MemberKind::constant ? "constant " : "attribute ")
             << member.name << ' ' << member.type;
    }
    if (member.ops && member.ops->at)
      line << " = "
           << Kop::GenericValue(member.ops->type, member.ops->at(self)).text().c_str();
    const bool isFound = type.member(member.number) == &member &&
                         type.member(member.name) == &member &&
                         (member.kind != MemberKind::enumerator ||
                          type.enumerator(member.value) == &member);
    lines.push_back(line.str() + (isFound ? "" : " (not found by name or number)"));
  }
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  std::ifstream file(argv[1]);
  Lines wanted, found;
  for (std::string line; std::getline(file, line);)
    if (!line.empty() && line[0] != '#') wanted.push_back(line);
  const bool isQuiet = load(argv[2]) == 0;
  for (const auto* module : Kop::modules()) {
    const std::string title = "module " + std::string(module->name);
    const bool isOurs = std::any_of(
        module->types.begin(), module->types.end(),
        [](const Kop::TypeRecord& type) { return type.name.starts_with("Tunnel::"); });
    if (!isOurs && std::find(wanted.begin(), wanted.end(), title) == wanted.end())
      continue;
    found.push_back(title);
    for (const auto& type : module->types) {
      std::string kind = type.kind == Kop::Kind::value ? "value" : "entity";
      if (type.kind == Kop::Kind::enumeration)
        kind = "enum" + std::to_string(8 * type.width);
      found.push_back(std::to_string(&type - module->types.data()) + ' ' + kind + ' ' +
                      std::string(type.name) +
                      (Kop::findType(type.name) == &type ? "" : " (not found)"));
      describe(type, found);
    }
  }
  // Shows the first difference: what follows it may only be shifted.
  const auto [was, is] =
      std::mismatch(wanted.begin(), wanted.end(), found.begin(), found.end());
  if (!isQuiet) std::cout << "does not load in silence\n";
  if (was != wanted.end()) std::cout << "wanted " << *was << '\n';
  if (is != found.end()) std::cout << "found  " << *is << '\n';
  const bool isEqual = was == wanted.end() && is == found.end();
  std::cout << found.size() << " of " << wanted.size() << " lines registered\n";
  return isQuiet && isEqual && !wanted.empty() ? 0 : 1;
}
