#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Kop/Ptr.h"
#include "apps/tunnelctl/State.h"

// Configuration files: read and checked as a whole into a plan, before anything is written.
// The form is described in doc/configuration.md.

namespace Tunnelctl {

struct PlannedEntity;

struct PlannedEntry {
  Kop::GenericValue key;
  Kop::GenericValue value;               // of a map
  std::unique_ptr<PlannedEntity> child;  // of children
};
struct PlannedMember {
  EntityMember member;
  Kop::GenericValue value;            // of a scalar
  std::vector<PlannedEntry> entries;  // of a collection: all that it shall hold
};
struct PlannedEntity {
  const Kop::TypeRecord* type = nullptr;
  std::vector<PlannedMember> members;  // those that the file names
};
struct PlannedPath {
  std::string path;
  Kop::String name;  // of the entity, if it has to be made
  bool remove = false;
  PlannedEntity entity;
};
struct Configuration {
  std::vector<PlannedPath> paths;
};

// what() is "<file>:<line>: <member.path>: <reason>".
class ConfigurationError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Needs the types to be registered and nothing else; fileName is for errors.
//
// Errors   ConfigurationError
Configuration parseConfiguration(std::string_view text, std::string_view fileName);

// What an application of a plan did, or would do.
struct Changes {
  U64 attributes = 0;                       // set
  U64 added = 0, changed = 0, removed = 0;  // entries and children
  U64 total() const { return attributes + added + changed + removed; }
};

// Makes the entity's named members as planned; the others stay. With `dryRun` only tells
// what it would do.
//
// Errors   those of the entity's setters.
void apply(const PlannedEntity& plan,
           Kop::Entity& entity,
           bool dryRun,
           Changes& changes,
           const ChangeSink& sink = {});

}  // namespace Tunnelctl
