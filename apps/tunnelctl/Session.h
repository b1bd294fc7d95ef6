#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Hivel/Client.h"
#include "apps/tunnelctl/Verbs.h"

namespace Tunnelctl {

// The socket of the state database: $HIVEL_SOCKET, or where the daemon listens by default.
std::string defaultSocketPath();

// A connection of one verb.
//
// Errors   Failure: no server, no answer in time, a refusal.
class Session {
 public:
  explicit Session(const Context& context);  // waits until the server answers

  Hivel::Client& client() { return client_; }

  // Paths at or below the prefix, in natural order. "" and "/" are all.
  std::vector<Hivel::PathInfo> paths(std::string_view prefix);
  // Waits until each is live; a Failure names the first that was refused.
  void settle(const std::vector<Hivel::Mount*>& mounts);
  void sync();  // until the server has applied what was written

 private:
  const Context& context_;
  Hivel::Client client_;
};

// A prefix as the database takes it, from what a user types: slashes at the ends do no harm.
std::string readPrefix(std::string_view text);

}  // namespace Tunnelctl
