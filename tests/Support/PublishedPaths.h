#pragma once

#include "apps/agent/Directory.h"
#include "apps/agent/Path.h"
#include "tests/Support/Testing.h"

// The tunnels of an agent as another process sees them, put together again to paths.

namespace Support {

using Tunnel::TunnelTable::TunnelId;
using Tunnel::TunnelTable::TunnelType;

using PathKey = std::pair<TunnelType, std::string>;
using Paths = std::map<PathKey, Agent::Path>;

inline PathKey keyOf(const Agent::Path& path) {
  return {path.type, std::string(path.name)};
}

struct Published {
  Paths paths;
  std::map<PathKey, TunnelId> ids;
  std::vector<Tunnel::TunnelTable::TunnelTableEntry> rows;
};

// Reads all rows with their hops and names. What does not fit together is the result: a row
// that no path has, hops that are missing or of no row, names that are not those of the rows.
std::string read(const Agent::TableDirectory& directory,
                 const std::string& agent,
                 Published& to);

// The same through a connection of its own, which waits until all has arrived.
Published publishedBy(const std::string& agent, const Hivel::ClientOptions& options);

// A sink of paths, of whichever program, that only remembers: what is there, and of which
// paths it was told.
template <class Sink>
struct HeldPaths : Sink {
  void pathIs(const Agent::Path& path) override {
    paths[keyOf(path)] = path;
    told.insert(keyOf(path));
  }
  void pathDel(TunnelType type, const Kop::String& name) override {
    paths.erase({type, std::string(name)});
    told.insert({type, std::string(name)});
  }
  Paths paths;
  std::multiset<PathKey> told;
};

// The row of a path.
Tunnel::TunnelTable::TunnelTableEntry rowOf(const Agent::Path& path,
                                            TunnelId id,
                                            TunnelId firstHop);

// A path as one line, and all of them.
std::string lineOf(const Agent::Path& path);
std::vector<std::string> linesOf(const Paths& paths);

}  // namespace Support
