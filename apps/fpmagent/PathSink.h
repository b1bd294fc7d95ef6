#pragma once

#include "apps/agent/Path.h"

namespace Fpm {

// Where paths go. A path is known by its kind and its name.
class PathSink {
 public:
  virtual ~PathSink() = default;

  // Errors   Kop::RangeException when there is no room for it; what stood stands.
  virtual void pathIs(const Agent::Path& path) = 0;
  virtual void pathDel(Tunnel::TunnelTable::TunnelType type,
                       const Kop::String& name) = 0;  // if it is there

  virtual void mark() = 0;       // every path is stale until it is told again
  virtual U64 sweep() = 0;       // deletes stale paths; how many
  virtual void converged() = 0;  // everything that was told so far is valid
};

}  // namespace Fpm
