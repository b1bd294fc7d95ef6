#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Hivel/Export.h"
#include "Kop/Entity.h"

// A tree of mount paths, each holding one root entity. It needs no daemon, no file and no
// configuration; a Server offers it to other processes.
//
// A path is one or more parts joined by '/'; a part is one or more of letters, digits, '_',
// '-' and '.': "tunnel/decap/config". A prefix is a path or empty and covers itself and what
// lies below it: "tunnel" covers "tunnel" and "tunnel/decap", not "tunnels".

namespace Hivel {

constexpr std::size_t maxPathSize = 1024;  // bytes

// Errors   Kop::RangeException that shows the path and what is wrong with it.
HIVEL_EXPORT void checkPath(std::string_view path);
HIVEL_EXPORT void checkPrefix(std::string_view prefix);  // empty is allowed
HIVEL_EXPORT bool isCovered(std::string_view path, std::string_view prefix);

// The name of a root that nobody named otherwise.
HIVEL_EXPORT Kop::String lastPart(std::string_view path);

// How a client mounts a path.
enum class Mode : U8 {
  read,     // a replica, made by the client
  replace,  // writes; its entity is the truth, the server's is made equal to it
  adopt,    // writes; first takes over what the server has, if anything
};

// One path of a list: what is there, not the entity itself.
struct PathInfo {
  std::string path;
  std::string type;  // qualified name of the root entity's type
  bool operator==(const PathInfo&) const = default;
};

// Qualified name of an entity's type, as it is registered.
HIVEL_EXPORT std::string_view typeNameOf(const Kop::Entity& entity);

// Owner    keeps a reference to each mounted entity until it is unmounted.
// Threads  one, that of the entities.
class HIVEL_EXPORT Database {
 public:
  // Who may write a path besides its owner, the process that mounted it.
  enum class Writers : U8 { owner, remote };

  // Told after a path was mounted or unmounted. A watcher may mount, unmount, watch and
  // unwatch while it is told.
  struct Event {
    std::string path;
    Kop::Ptr<Kop::Entity> entity;
    bool mounted;
  };
  using Watcher = std::function<void(const Event&)>;
  using WatchId = U64;

  Database();
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // With Writers::remote one client of a server at a time may write the entity, which is
  // read-only here as long as one does.
  //
  // Errors   Kop::RangeException for a bad path or a null entity; RefusedException when the
  //          path is taken.
  void mount(std::string_view path,
             Kop::Ptr<Kop::Entity> entity,
             Writers writers = Writers::owner);
  bool unmount(std::string_view path);  // false when nothing is mounted there

  Kop::Ptr<Kop::Entity> find(std::string_view path) const;  // null when nothing is there
  Writers writers(std::string_view path) const;             // owner when nothing is there
  std::vector<PathInfo> list(std::string_view prefix = {}) const;  // by path
  std::size_t count() const { return mounts_.size(); }

  // Told of later mounts and unmounts under the prefix; what is there now is in list().
  WatchId watch(std::string_view prefix, Watcher watcher);
  void unwatch(WatchId id);

 private:
  struct Mount {
    Kop::Ptr<Kop::Entity> entity;
    Writers writers;
  };
  struct Watch {
    std::string prefix;
    Watcher watcher;
  };
  void tell(const Event& event);

  std::map<std::string, Mount, std::less<>> mounts_;
  std::map<WatchId, std::shared_ptr<Watch>> watches_;
  WatchId lastWatch_ = 0;
};

}  // namespace Hivel
