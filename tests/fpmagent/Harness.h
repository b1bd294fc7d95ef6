#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "apps/fpmagent/Session.h"
#include "apps/tunnelctl/Json.h"

// Streams made by hand and recorded ones, and a sink that only remembers.

namespace FpmTest {

using namespace Fpm;
using Bytes = std::vector<U8>;

Bytes contents(const std::string& file);
// One of examples/fpm, without its ending.
Bytes recording(const std::string& name);
extern const std::vector<std::string> recordings;

// ---- netlink, written plainly ----

Bytes join(const std::vector<Bytes>& parts);
Bytes u16(U16 value);  // host order
Bytes u32(U32 value);
Bytes labelStack(const std::vector<U32>& labels);
Bytes attribute(U16 kind, const Bytes& value);
Bytes message(U16 type, const Bytes& body);
Bytes frame(const std::vector<Bytes>& messages);
Bytes framed(const Message& message);  // a route or a next hop, as a daemon writes it
Bytes encoded(const Message& message);

// ---- the sink ----

class Memory : public PathSink {
 public:
  using Key = std::pair<U32, std::string>;  // type, name
  struct Held {
    Agent::Path path;
    bool stale = false;
  };

  void pathIs(const Agent::Path& path) override;
  void pathDel(Tunnel::TunnelTable::TunnelType type, const Kop::String& name) override;
  void mark() override;
  U64 sweep() override;
  void converged() override { ++convergences; }

  // Every path as a line, by kind and name.
  std::vector<std::string> lines() const;

  std::map<Key, Held> paths;
  U64 changes = 0, tells = 0, convergences = 0;
  std::string refuses;  // the name of a path that there is no room for
};

std::string lineOf(const Agent::Path& path);

// ---- the state, as the description of a recording's end says it ----

Tunnelctl::Json describe(const RouteState& state);
Tunnelctl::Json describeSwitched(const Memory& sink);

// Feeds a whole stream in pieces of at most `piece` bytes.
void feed(Session& session, const Bytes& stream, std::size_t piece = 60'000);

}  // namespace FpmTest
