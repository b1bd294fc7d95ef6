#pragma once

#include "apps/fpmagent/Session.h"
#include "tests/Support/PublishedPaths.h"
#include "tests/Support/Testing.h"

// Streams made by hand and recorded ones, a sink that only remembers, and a daemon's end of a
// connection.

namespace FpmTest {

using namespace Fpm;
using Bytes = std::vector<U8>;

extern const std::vector<std::string> recordings;
Bytes recording(const std::string& name);  // of examples/fpm, without its ending
Bytes head(const Bytes& stream, std::size_t size);

// A frame with one message: its type, the beginning of its body in hexadecimal (-: none),
// the rest of which is 0, and attributes as KIND=HEX. For what is malformed: #N the size of the
// body, @N=HEX a byte of the frame that is another one.
// "24 1c140000fec10001 1=0004d100" is a switched path of label 77 by LDP.
Bytes frameOf(const std::string& text);

class Memory : public Support::HeldPaths<PathSink> {
 public:
  void pathIs(const Agent::Path& path) override;
  void pathDel(Tunnel::TunnelTable::TunnelType type, const Kop::String& name) override;
  void mark() override;
  U64 sweep() override;
  void converged() override { ++convergences; }
  std::vector<std::string> lines() const { return Support::linesOf(paths); }

  std::set<Support::PathKey> stale;
  U64 changes = 0, convergences = 0;
  std::string refuses;  // the name of a path that there is no room for
};

// One stream into a sink.
struct Stream {
  explicit Stream(Memory& sink) : session(sink, options, {}) {}
  void feed(std::span<const U8> bytes, std::size_t piece = 60'000);
  const Session::Options options;
  Session session;
  FrameReader frames;
};
std::vector<std::string> linesOf(const Bytes& stream);  // of the paths that it tells

class Daemon {
 public:
  explicit Daemon(U16 port);
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  void send(const Bytes& bytes) const;
  bool closed() const;  // by the agent

 private:
  int fd_;
};

}  // namespace FpmTest
