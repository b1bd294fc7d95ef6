#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <latch>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <benchmark/benchmark.h>

#include "Kop/NboAttrLogSa.h"
#include "Samples.h"

// A table on one thread kept alike on another one over a Unix socket, against the same keys
// and values as bare records from one flat hash map into another, which is reserved. The
// size is the number of entries. Times are those of the clock on the wall, both ends' maps
// included; the counter `cpu` is what both ends'
// threads spent, in ms.

namespace Tunnel {
namespace {

using Clock = std::chrono::steady_clock;
using Kop::NboAttrLog::Session;
using Kop::NboAttrLog::Stream;
using Vantor::IpGenAddr;

constexpr std::size_t pieceSize = 256 << 10;  // bytes of one read or write at the most
constexpr int buffersSize = 1 << 20;          // of the socket

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::abort();
}

struct Sockets {
  int fds[2];
  Sockets() {
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) fail("socketpair");
    for (const int fd : fds)
      for (const int option : {SO_SNDBUF, SO_RCVBUF})
        if (::setsockopt(fd, SOL_SOCKET, option, &buffersSize, sizeof buffersSize) != 0)
          fail("setsockopt");
  }
  ~Sockets() {
    for (const int fd : fds)
      ::close(fd);
  }
  Sockets(const Sockets&) = delete;
  Sockets& operator=(const Sockets&) = delete;
};

void sendAll(int fd, const void* bytes, std::size_t size) {
  const U8* at = static_cast<const U8*>(bytes);
  while (size > 0) {
    const ssize_t sent = ::send(fd, at, size, MSG_NOSIGNAL);
    if (sent < 0 && errno != EINTR) fail("send");
    if (sent <= 0) continue;
    at += sent;
    size -= static_cast<std::size_t>(sent);
  }
}
std::size_t receive(int fd, void* to, std::size_t size) {
  ssize_t arrived;
  do
    arrived = ::recv(fd, to, size, 0);
  while (arrived < 0 && errno == EINTR);
  if (arrived <= 0) fail("recv");
  return static_cast<std::size_t>(arrived);
}

U64 keyOf(U64 i) {
  return i * 0x9e3779b97f4a7c15;  // odd: no two alike
}
IpGenAddr addressOf(U64 n) {
  return IpGenAddr::fromIpv4(static_cast<U32>(n * 2654435761u));
}

// ---- ours ----

// Reads frames from the socket into the stream until `done`.
class FrameSource {
 public:
  explicit FrameSource(int fd) : fd_(fd), bytes_(new U8[capacity]) {}
  template <class Done>
  void applyUntil(Stream& stream, Done&& done) {
    while (!done()) {
      if (head_ > 0) {
        std::memmove(bytes_.get(), bytes_.get() + head_, tail_ - head_);
        tail_ -= head_;
        head_ = 0;
      }
      tail_ += receive(fd_, bytes_.get() + tail_, std::min(pieceSize, capacity - tail_));
      while (tail_ - head_ >= Kop::NboAttrLog::lengthSize) {
        const std::size_t size =
            Kop::NboAttrLog::In(bytes_.get() + head_, tail_ - head_).nextU32();
        if (tail_ - head_ - Kop::NboAttrLog::lengthSize < size) break;
        stream.received({bytes_.get() + head_ + Kop::NboAttrLog::lengthSize, size});
        head_ += Kop::NboAttrLog::lengthSize + size;
      }
    }
  }

 private:
  static constexpr std::size_t capacity = 2 * pieceSize;
  int fd_;
  std::unique_ptr<U8[]> bytes_;
  std::size_t head_ = 0, tail_ = 0;
};

void flush(int fd, Stream& stream) {
  Kop::NboAttrLog::Out& out = stream.out();
  while (!out.empty()) {
    sendAll(fd, out.data(), out.size());
    out.consume(out.size());
  }
}
void drain(int fd, Stream& stream, Session& session) {
  bool done;
  do {
    done = session.process();
    flush(fd, stream);
  } while (!done);
}

Kop::Ptr<Endpoints> endpointsOf(U64 count) {
  const auto table = Endpoints::EndpointsIs("endpoints");
  for (U64 i = 0; i < count; ++i)
    table->endpointIs(keyOf(i), addressOf(i));
  return table;
}

// A table and its copy on the other end of a socket, both known to their streams.
struct Pair {
  explicit Pair(const Kop::Ptr<Endpoints>& from)
      : writer(out, from, Session::writes),
        copy(Endpoints::EndpointsIs("endpoints")),
        reader(in, copy, Session::reads, from->identity()) {
    reader.onCatchUp = [this](bool begins, bool) { caughtUp += !begins; };
  }
  void apply(U32 catchUps) {
    source.applyUntil(in, [&] { return caughtUp >= catchUps; });
  }

  Sockets sockets;
  Stream out, in;
  Session writer;
  Kop::Ptr<Endpoints> copy;
  Session reader;
  FrameSource source{sockets.fds[1]};
  U32 caughtUp = 0;
};

// ---- the peer ----

struct Record {
  U64 key;
  U8 address[sizeof(IpGenAddr)];
};
constexpr std::size_t recordSize = 28;  // without the padding
using Map = absl::flat_hash_map<U64, IpGenAddr>;

class RecordSink {
 public:
  explicit RecordSink(int fd) : fd_(fd), bytes_(new U8[pieceSize]) {}
  void put(U64 key, const IpGenAddr& address) {
    if (pieceSize - size_ < recordSize) flush();
    std::memcpy(bytes_.get() + size_, &key, sizeof key);
    std::memcpy(bytes_.get() + size_ + sizeof key, &address, sizeof address);
    size_ += recordSize;
  }
  void flush() {
    sendAll(fd_, bytes_.get(), size_);
    size_ = 0;
  }

 private:
  int fd_;
  std::unique_ptr<U8[]> bytes_;
  std::size_t size_ = 0;
};

// Reads `count` records into the map.
void recordsInto(Map& map, int fd, U64 count) {
  const std::unique_ptr<U8[]> bytes(new U8[pieceSize]);
  std::size_t size = 0;
  while (count > 0) {
    size += receive(fd, bytes.get() + size, pieceSize - size);
    const U8* at = bytes.get();
    for (; size >= recordSize; at += recordSize, size -= recordSize, --count) {
      U64 key;
      IpGenAddr address;
      std::memcpy(&key, at, sizeof key);
      std::memcpy(static_cast<void*>(&address), at + sizeof key, sizeof address);
      map.insert_or_assign(key, address);
    }
    std::memmove(bytes.get(), at, size);
  }
}

Map mapOf(U64 count) {
  Map map;
  map.reserve(count);
  for (U64 i = 0; i < count; ++i)
    map.emplace(keyOf(i), addressOf(i));
  return map;
}

// ---- rows ----

double cpuSeconds() {
  timespec time;
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// Times both ends at once, from the moment that both are ready.
template <class Send, class Receive>
double bothEnds(benchmark::State& state, Send&& send, Receive&& receive) {
  std::latch ready(2);
  std::thread sender([&] {
    ready.arrive_and_wait();
    send();
  });
  ready.arrive_and_wait();
  const double cpu = cpuSeconds();
  const auto begin = Clock::now();
  receive();
  state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
  sender.join();
  return 1e3 * (cpuSeconds() - cpu);
}

void resyncOurs(benchmark::State& state) {
  const U64 count = static_cast<U64>(state.range(0));
  const auto table = endpointsOf(count);
  double cpu = 0;
  for (auto _ : state) {
    Pair pair(table);
    cpu += bothEnds(
        state,
        [&] {
          pair.writer.resync();
          drain(pair.sockets.fds[0], pair.out, pair.writer);
        },
        [&] { pair.apply(1); });
    if (!(pair.copy->endpoint() == table->endpoint()))
      state.SkipWithError("copies differ");
  }
  state.counters["cpu"] = {cpu, benchmark::Counter::kAvgIterations};
  state.counters["goal"] = 1.2;
}

void resyncPeer(benchmark::State& state) {
  const U64 count = static_cast<U64>(state.range(0));
  const Map from = mapOf(count);
  double cpu = 0;
  for (auto _ : state) {
    const Sockets sockets;
    Map to;
    cpu += bothEnds(
        state,
        [&] {
          RecordSink sink(sockets.fds[0]);
          for (const auto& [key, address] : from)
            sink.put(key, address);
          sink.flush();
        },
        [&] {
          to.reserve(count);
          recordsInto(to, sockets.fds[1], count);
        });
    if (to != from) state.SkipWithError("copies differ");
  }
  state.counters["cpu"] = {cpu, benchmark::Counter::kAvgIterations};
}

// The reader stands still while a fifth of all keys is changed three times over; then what is
// left of that is sent.
std::vector<U64> changesOf(U64 count) {
  std::mt19937_64 random(29);
  std::vector<U64> keys;
  for (U64 i = 0; i < count / 5; ++i)
    keys.push_back(keyOf(random() % count));
  return keys;
}
constexpr U64 changeRounds = 3;

void coalescedOurs(benchmark::State& state) {
  const U64 count = static_cast<U64>(state.range(0));
  const auto table = endpointsOf(count);
  const std::vector<U64> keys = changesOf(count);
  Pair pair(table);
  U64 value = count;
  U32 catchUps = 1;
  double cpu = 0;
  std::thread first([&] {
    pair.writer.resync();
    drain(pair.sockets.fds[0], pair.out, pair.writer);
  });
  pair.apply(catchUps);
  first.join();
  for (auto _ : state) {
    pair.out.creditIs(0);  // the reader stands still
    ++catchUps;
    cpu += bothEnds(
        state,
        [&] {
          for (U64 round = 0; round < changeRounds; ++round)
            for (const U64 key : keys)
              table->endpointIs(key, addressOf(value++));
          pair.out.creditIs(~U64{0});
          drain(pair.sockets.fds[0], pair.out, pair.writer);
        },
        [&] { pair.apply(catchUps); });
  }
  if (!(pair.copy->endpoint() == table->endpoint())) state.SkipWithError("copies differ");
  state.counters["cpu"] = {cpu, benchmark::Counter::kAvgIterations};
  state.counters["goal"] = 1.3;
}

void coalescedPeer(benchmark::State& state) {
  const U64 count = static_cast<U64>(state.range(0));
  Map from = mapOf(count), to = from;
  const std::vector<U64> keys = changesOf(count);
  absl::flat_hash_set<U64> distinct(keys.begin(), keys.end());
  const Sockets sockets;
  U64 value = count;
  double cpu = 0;
  for (auto _ : state) {
    cpu += bothEnds(
        state,
        [&] {
          absl::flat_hash_set<U64> changed;
          for (U64 round = 0; round < changeRounds; ++round)
            for (const U64 key : keys) {
              const IpGenAddr address = addressOf(value++);
              IpGenAddr& kept = from.find(key)->second;
              if (kept == address) continue;
              kept = address;
              changed.insert(key);
            }
          RecordSink sink(sockets.fds[0]);
          for (const U64 key : changed)
            sink.put(key, from.find(key)->second);
          sink.flush();
        },
        [&] { recordsInto(to, sockets.fds[1], distinct.size()); });
  }
  if (to != from) state.SkipWithError("copies differ");
  state.counters["cpu"] = {cpu, benchmark::Counter::kAvgIterations};
}

// One change and the answer to it, a change on the way back; half the time of the median.
constexpr std::size_t pingCount = 5000;

template <class Ping>
double oneWay(Ping&& ping) {
  std::vector<double> seconds(pingCount);
  for (double& time : seconds) {
    const auto begin = Clock::now();
    ping();
    time = std::chrono::duration<double>(Clock::now() - begin).count();
  }
  const auto median = seconds.begin() + pingCount / 2;
  std::nth_element(seconds.begin(), median, seconds.end());
  return *median / 2;
}

void oneChangeOurs(benchmark::State& state) {
  const U64 count = static_cast<U64>(state.range(0));
  const Kop::Ptr<Endpoints> tables[2] = {endpointsOf(count), endpointsOf(count)};
  const U64 there = keyOf(0), back = keyOf(1);
  U64 first = 1;
  for (auto _ : state) {
    const Sockets sockets;
    const auto end = [&](int side, auto&& run) {
      Stream stream;
      Session session(stream, tables[side], Session::both, tables[1 - side]->identity());
      FrameSource source(sockets.fds[side]);
      const auto put = [&](U64 key, U64 value) {
        tables[side]->endpointIs(key, addressOf(value));
        flush(sockets.fds[side], stream);
      };
      const auto await = [&](U64 key, U64 value) {
        source.applyUntil(
            stream, [&] { return tables[side]->endpoint(key) == addressOf(value); });
      };
      run(put, await);
    };
    std::thread echo([&] {
      end(1, [&](auto& put, auto& await) {
        for (U64 i = 1; i <= pingCount; ++i) {
          await(there, first + i);
          put(back, first + i);
        }
      });
    });
    end(0, [&](auto& put, auto& await) {
      U64 i = 0;
      state.SetIterationTime(oneWay([&] {
        ++i;
        put(there, first + i);
        await(back, first + i);
      }));
      echo.join();
    });
    first += pingCount;
  }
  state.counters["goal"] = 1.5;
}

void oneChangePeer(benchmark::State& state) {
  const U64 count = static_cast<U64>(state.range(0));
  Map maps[2] = {mapOf(count), mapOf(count)};
  const U64 there = keyOf(0), back = keyOf(1);
  for (auto _ : state) {
    const Sockets sockets;
    const auto put = [&](int side, U64 key, U64 value) {
      U8 record[recordSize];
      const IpGenAddr address = addressOf(value);
      maps[side][key] = address;
      std::memcpy(record, &key, sizeof key);
      std::memcpy(record + sizeof key, &address, sizeof address);
      sendAll(sockets.fds[side], record, sizeof record);
    };
    const auto await = [&](int side) {
      U8 record[recordSize];
      for (std::size_t size = 0; size < recordSize;)
        size += receive(sockets.fds[side], record + size, recordSize - size);
      U64 key;
      IpGenAddr address;
      std::memcpy(&key, record, sizeof key);
      std::memcpy(static_cast<void*>(&address), record + sizeof key, sizeof address);
      maps[side].insert_or_assign(key, address);
    };
    std::thread echo([&] {
      for (U64 i = 1; i <= pingCount; ++i) {
        await(1);
        put(1, back, i);
      }
    });
    U64 i = 0;
    state.SetIterationTime(oneWay([&] {
      put(0, there, ++i);
      await(0);
    }));
    echo.join();
  }
}

BENCHMARK(resyncOurs)->Name("resync/ours")->Arg(10000)->Arg(1000000)->UseManualTime();
BENCHMARK(resyncPeer)
    ->Name("resync/raw_socket")
    ->Arg(10000)
    ->Arg(1000000)
    ->UseManualTime();
BENCHMARK(coalescedOurs)
    ->Name("coalesced/ours")
    ->Arg(10000)
    ->Arg(1000000)
    ->UseManualTime();
BENCHMARK(coalescedPeer)
    ->Name("coalesced/raw_socket")
    ->Arg(10000)
    ->Arg(1000000)
    ->UseManualTime();
BENCHMARK(oneChangeOurs)
    ->Name("oneChange/ours")
    ->Arg(1000)
    ->Iterations(3)
    ->UseManualTime();
BENCHMARK(oneChangePeer)
    ->Name("oneChange/raw_socket")
    ->Arg(1000)
    ->Iterations(3)
    ->UseManualTime();

}  // namespace
}  // namespace Tunnel
