#include <algorithm>
#include <map>
#include <string>
#include <utility>

#include "Check.h"
#include "Kop/Exception.h"
#include "apps/fpmagent/RouteState.h"

// A daemon's stream: cut into frames, decoded, and followed under small limits. The first
// byte says in what pieces it arrives. After each frame the sink holds what the state says
// follows from it, and no malformed frame has changed anything.

using namespace Fpm;

namespace {

class Sink : public PathSink {
 public:
  using Key = std::pair<U32, std::string>;

  void pathIs(const Agent::Path& path) override {
    FUZZ_CHECK(!path.name.empty() && path.name.size() <= 128);
    FUZZ_CHECK(!path.nextHops.empty() && path.nextHops.size() <= RouteState::maxPathHops);
    paths[{path.type, std::string(path.name)}] = path;
  }
  void pathDel(Tunnel::TunnelTable::TunnelType type, const Kop::String& name) override {
    // Once nothing of an earlier stream is left, only what is there is deleted.
    FUZZ_CHECK(paths.erase({type, std::string(name)}) == 1 || !swept);
  }
  void mark() override {}
  U64 sweep() override { return 0; }
  void converged() override {}

  std::map<Key, Agent::Path> paths;
  bool swept = false;
};

constexpr StateLimits limits{20, 20, 60};

struct Stream {
  Stream() : state(sink, {limits, {{2, Vantor::IntfId("Ethernet2")}}, {}}) {}

  void check() const {
    std::map<Sink::Key, Agent::Path> wanted;
    U64 routes = 0, nextHops = 0;
    state.forEachRoute([&](const RouteMessage& route, Verdict verdict) {
      ++routes;
      Agent::Path path;
      const Verdict now = state.pathOf(route, path);
      FUZZ_CHECK(verdict == now || verdict == Verdict::overLimit);
      if (verdict != Verdict::tunnel) return;
      FUZZ_CHECK(
          wanted.emplace(Sink::Key{path.type, std::string(path.name)}, path).second);
    });
    state.forEachNextHop([&](const NextHopMessage&) { ++nextHops; });
    FUZZ_CHECK(wanted == sink.paths);
    FUZZ_CHECK(routes <= limits.routes && nextHops <= limits.nextHops);
  }

  // False when the stream has to end.
  bool take(std::span<const U8> bytes) {
    frames.feed(bytes);
    try {
      while (const auto frame = frames.next()) {
        const auto messages = decode(*frame);
        for (const Message& message : messages)
          FUZZ_CHECK(!text(message).empty());
        state.frameIs(messages);
        check();
        if (++taken == 3) {
          state.swept();
          sink.swept = true;
        }
      }
    } catch (const MalformedException& e) {
      FUZZ_CHECK(e.offset() <= size);
      return false;
    }
    return true;
  }

  Sink sink;
  RouteState state;
  FrameReader frames;
  U64 taken = 0, size = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return 0;
  std::span<const U8> rest(bytes + 1, size - 1);
  const std::size_t piece = bytes[0] % 2 == 0 ? 60'000 : 1 + bytes[0] / 2;
  Stream stream;
  stream.size = rest.size();
  bool going = true;
  while (going && !rest.empty()) {
    const auto now = rest.first(std::min(piece, rest.size()));
    rest = rest.subspan(now.size());
    going = stream.take(now);
  }
  stream.check();
  return 0;
}
