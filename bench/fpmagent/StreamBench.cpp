#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>

#include <linux/rtnetlink.h>

#include <benchmark/benchmark.h>

#include "apps/fpmagent/Session.h"

// A recorded stream of 4,059 frames, most of them a route, switched path or next hop of its
// own. The peer only walks the lengths, down to each attribute: what reading the bytes costs.

namespace {

using namespace Fpm;

const std::vector<U8>& stream() {
  static const std::vector<U8> bytes = [] {
    std::ifstream in(HOUSE_SOURCE_DIR "/examples/fpm/ring4-isis-sr-flap+3000-static.fpm",
                     std::ios::binary);
    return std::vector<U8>{std::istreambuf_iterator<char>(in),
                           std::istreambuf_iterator<char>()};
  }();
  return bytes;
}

class Nowhere : public PathSink {
 public:
  void pathIs(const Agent::Path& path) override { benchmark::DoNotOptimize(&path); }
  void pathDel(Tunnel::TunnelTable::TunnelType, const Kop::String&) override {}
  void mark() override {}
  U64 sweep() override { return 0; }
  void converged() override {}
};

template <class F>
U64 forEachFrame(F&& f) {
  FrameReader frames;
  U64 count = 0;
  for (std::span<const U8> rest = stream(); !rest.empty();) {
    const auto room = frames.room();
    const auto size = std::min(room.size(), rest.size());
    std::memcpy(room.data(), rest.data(), size);
    frames.arrived(size);
    rest = rest.subspan(size);
    while (const auto frame = frames.next()) {
      f(*frame);
      ++count;
    }
  }
  return count;
}

void done(benchmark::State& state, U64 frames) {
  state.SetItemsProcessed(static_cast<int64_t>(frames));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(stream().size()));
}

void walkLengths(benchmark::State& state) {
  U64 frames = 0;
  for (auto _ : state) {
    U64 sum = 0;
    frames += forEachFrame([&](const Run& frame) {
      for (U32 at = 0; at + sizeof(nlmsghdr) <= frame.size();) {
        nlmsghdr head;
        std::memcpy(&head, &frame.bytes[at], sizeof head);
        const U32 fixed = head.nlmsg_type >= RTM_NEWNEXTHOP ? 8 : 12;
        for (U32 in = sizeof head + fixed; in + sizeof(rtattr) <= head.nlmsg_len;) {
          rtattr attribute;
          std::memcpy(&attribute, &frame.bytes[at + in], sizeof attribute);
          sum += attribute.rta_type;
          in += RTA_ALIGN(std::max<U32>(attribute.rta_len, 4));
        }
        at += NLMSG_ALIGN(head.nlmsg_len);
      }
    });
    benchmark::DoNotOptimize(sum);
  }
  done(state, frames);
}

void decodeFrames(benchmark::State& state) {
  U64 frames = 0;
  for (auto _ : state)
    frames += forEachFrame([](const Run& frame) {
      const auto messages = decode(frame);
      benchmark::DoNotOptimize(messages.data());
    });
  done(state, frames);
}

void followStream(benchmark::State& state) {
  U64 frames = 0;
  Nowhere sink;
  const Session::Options options;
  for (auto _ : state) {
    Session session(sink, options, {});
    frames += forEachFrame([&](const Run& frame) { session.frameIs(frame, {}); });
    session.finish();
  }
  done(state, frames);
}

// All of it again in the same session: nothing changes.
void followAgain(benchmark::State& state) {
  U64 frames = 0;
  Nowhere sink;
  const Session::Options options;
  Session session(sink, options, {});
  forEachFrame([&](const Run& frame) { session.frameIs(frame, {}); });
  session.finish();
  for (auto _ : state)
    frames += forEachFrame([&](const Run& frame) { session.frameIs(frame, {}); });
  done(state, frames);
}

BENCHMARK(walkLengths)->Name("fpmStream/walk_lengths");
BENCHMARK(decodeFrames)->Name("fpmStream/decode_only");
BENCHMARK(followStream)->Name("fpmStream/ours");
BENCHMARK(followAgain)->Name("fpmStream/told_again");

}  // namespace
