#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "Hivel/Server.h"
#include "apps/agent/Publisher.h"

// Paths told to a publisher whose server is another process, beside the least that a program
// could do with them: to keep each in a hash map by its name. The size is the number of
// paths. Time is the processor's in the calls alone; the client runs between them, outside
// the clock.
//
//   heap     bytes per path that the process holds: next hops, names, the publisher's own
//   table    bytes per path of the table in shared memory
//   applied  seconds from the first call until the server has everything

namespace Agent {
namespace {

using Clock = std::chrono::steady_clock;
using Tunnel::TunnelTable::srTunnel;

constexpr auto patience = std::chrono::minutes(5);

double processorSeconds() {
  timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

constexpr std::size_t batchCount = 1000;

// A server in a process of its own. Started before this process makes an entity.
class Database {
 public:
  Database() {
    char name[] = "/tmp/agentbenchXXXXXX";
    if (!::mkdtemp(name)) std::abort();
    directory_ = name;
    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ != 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(1);
    Hivel::Database database;
    Hivel::ServerOptions options;
    options.socketPath = socketPath();
    Hivel::Server server(database, std::move(options));
    for (;;) {
      while (server.wants())
        server.process();
      pollfd waited{server.fd(), POLLIN, 0};
      ::poll(&waited, 1, -1);
      server.process();
    }
  }
  ~Database() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
  std::string socketPath() const { return directory_ + "/sock"; }

 private:
  std::string directory_;
  pid_t pid_ = -1;
};

Database& database() {
  static Database database;
  return database;
}

std::unique_ptr<Publisher> connect() {
  Publisher::Options options;
  options.socketPath = database().socketPath();
  options.agent = "bench";
  options.patience = patience;
  while (::access(options.socketPath.c_str(), F_OK) != 0)
    ::usleep(1000);
  return std::make_unique<Publisher>(options);
}

void pathIs(Path& path, U32 i, U32 salt) {
  char name[40];
  std::snprintf(name, sizeof name, "10.%u.%u.%u/32", i >> 16, i >> 8 & 255, i & 255);
  path.type = srTunnel;
  path.name = name;
  path.endpoint = Vantor::IpGenPrefix(Vantor::IpGenAddr::fromIpv4(0x0a000000 + i), 32);
  path.metric = 10 + salt;
  path.nextHops.resize(1);
  const U32 labels[] = {16'000 + i % 8000, 24'000 + salt % 1000};
  path.nextHops[0] = {Vantor::IpGenAddr::fromIpv4(0xc0a80000 + i % 200),
                      Vantor::IntfId::fromValue(1 + i % 64),
                      Vantor::MplsLabelOperation(Vantor::push, labels)};
}

// Gives `count` paths to `tell`; the processor's seconds that it took for them.
template <class Tell, class Between>
double tellAll(U32 count, U32 salt, Tell&& tell, Between&& between) {
  static std::vector<Path> batch(batchCount);
  double seconds = 0;
  for (U32 i = 0; i < count; i += batchCount) {
    for (U32 k = 0; k < batchCount; ++k)
      pathIs(batch[k], i + k, salt);
    const double begin = processorSeconds();
    for (const Path& path : batch)
      tell(path);
    seconds += processorSeconds() - begin;
    between();
  }
  return seconds;
}

double tellAll(Publisher& publisher, U32 count, U32 salt) {
  return tellAll(
      count, salt, [&](const Path& path) { publisher.pathIs(path); },
      [&] {
        if (publisher.client().wants()) publisher.client().process();
      });
}

enum Told { fresh, equal, changed };

// A publisher that was told the paths, with the last salt.
struct Kept {
  ~Kept() {
    if (publisher) publisher->withdraw(patience);
  }
  Publisher& with(U32 count) {
    if (publisher && publisher->pathCount() != count) drop();
    if (!publisher) {
      publisher = connect();
      tellAll(*publisher, count, 0);
      publisher->finish(patience);
    }
    return *publisher;
  }
  void drop() {
    if (publisher) publisher->withdraw(patience);
    publisher.reset();
  }
  std::unique_ptr<Publisher> publisher;
};

Kept& kept() {
  database();  // goes after it
  static Kept kept;
  return kept;
}

template <Told told>
void publish(benchmark::State& state) {
  const U32 count = static_cast<U32>(state.range(0));
  static U32 salt = 0;
  double applied = 0, heap = 0, table = 0;
  for (auto _ : state) {
    std::unique_ptr<Publisher> own;
    Publisher* publisher = nullptr;
    if constexpr (told == fresh) {
      kept().drop();
      own = connect();
      publisher = own.get();
    } else {
      publisher = &kept().with(count);
      publisher->mark();
      if constexpr (told == equal) tellAll(*publisher, count, salt);
      publisher->finish(patience);
      if constexpr (told == changed) ++salt;
    }
    const std::size_t before = ::mallinfo2().uordblks + ::mallinfo2().hblkhd;
    const auto begin = Clock::now();
    state.SetIterationTime(tellAll(*publisher, count, told == fresh ? 0 : salt));
    publisher->finish(patience);
    applied = std::chrono::duration<double>(Clock::now() - begin).count();
    if constexpr (told == fresh) {
      const std::size_t after = ::mallinfo2().uordblks + ::mallinfo2().hblkhd;
      heap = static_cast<double>(after - before) / count;
      table = static_cast<double>(publisher->tableStats(srTunnel)->bytesUsed) / count;
      own->withdraw(patience);
    }
  }
  state.SetItemsProcessed(state.iterations() * count);
  state.counters["applied"] = applied;
  if (told != fresh) return;
  state.counters["heap"] = heap;
  state.counters["table"] = table;
}

// The peer keeps each path by name and tells whether it changed.
template <Told told>
void keepInMap(benchmark::State& state) {
  const U32 count = static_cast<U32>(state.range(0));
  std::unordered_map<std::string, Path> map;
  U32 salt = 0;
  const auto tell = [&](const Path& path) {
    const auto [at, isNew] =
        map.try_emplace(std::string(std::string_view(path.name)), path);
    if (!isNew && !(at->second == path)) at->second = path;
  };
  const auto nothing = [] {};
  double heap = 0;
  if (told != fresh) tellAll(count, salt, tell, nothing);
  for (auto _ : state) {
    if (told == fresh) {
      map = {};
      const std::size_t before = ::mallinfo2().uordblks + ::mallinfo2().hblkhd;
      state.SetIterationTime(tellAll(count, salt, tell, nothing));
      const std::size_t after = ::mallinfo2().uordblks + ::mallinfo2().hblkhd;
      heap = static_cast<double>(after - before) / count;
    } else {
      if (told == changed) ++salt;
      state.SetIterationTime(tellAll(count, salt, tell, nothing));
    }
  }
  state.SetItemsProcessed(state.iterations() * count);
  if (told == fresh) state.counters["heap"] = heap;
}

// An agent that starts again on its rows: the clock runs until it may be told paths.
void startAgain(benchmark::State& state) {
  const U32 count = static_cast<U32>(state.range(0));
  for (auto _ : state) {
    kept().with(count);
    kept().publisher.reset();
    const double begin = processorSeconds();
    kept().publisher = connect();
    state.SetIterationTime(processorSeconds() - begin);
    if (kept().publisher->pathCount() != count) state.SkipWithError("paths were lost");
  }
  state.SetItemsProcessed(state.iterations() * count);
}

#define SIZES Arg(100'000)->Arg(500'000)->UseManualTime()->Unit(benchmark::kMillisecond)
BENCHMARK(publish<fresh>)->Name("pathNew/ours")->SIZES;
BENCHMARK(keepInMap<fresh>)->Name("pathNew/map")->SIZES;
BENCHMARK(publish<equal>)->Name("pathEqual/ours")->SIZES;
BENCHMARK(keepInMap<equal>)->Name("pathEqual/map")->SIZES;
BENCHMARK(publish<changed>)->Name("pathChanged/ours")->SIZES;
BENCHMARK(keepInMap<changed>)->Name("pathChanged/map")->SIZES;
BENCHMARK(startAgain)->Name("pathsAgain/ours")->SIZES;

}  // namespace
}  // namespace Agent
