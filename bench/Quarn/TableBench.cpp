#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include "Quarn/Table.h"
#include "Tunnel/TunnelTableHivelTypes.h"

// A million rows of a tunnel table from one process to another. Beside it: the same records'
// bytes copied end to end into shared memory and out of it (`copy`), and a flat_hash_map of the
// records in one process, behind a shared mutex (`mutex_map`). The size is the number of rows.
//
//   publish   a new table is filled; time of all rows
//   readAll   another process walks and decodes them; time of all rows
//   readOne   another process decodes one at random, with the keys at hand
//   updates   a writer replaces rows as fast as it can while another process polls for what
//             changed and reads it: time of one change that the reader has seen
//
// What another process does, it measures itself, and hands over the time. Times are processor
// time of the one thread that works, but for updates, where two processes do: on the wall.

namespace Quarn {
namespace {

using Record = Tunnel::TunnelTable::TunnelTableEntry;
using Wall = std::chrono::steady_clock;
constexpr U64 rowCount = 1000000;

// Processor time of this thread: what it does never waits for anybody.
struct Clock {
  using time_point = double;
  static double now() {
    timespec time;
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
  }
};
double secondsSince(double start) {
  return Clock::now() - start;
}
double secondsSince(Wall::time_point start) {
  return std::chrono::duration<double>(Wall::now() - start).count();
}

void check(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "TableBench: %s\n", what);
  std::abort();
}

// Memory that a forked process shares with this one.
class SharedBytes {
 public:
  explicit SharedBytes(std::size_t size)
      : size_(size),
        at_(::mmap(
            nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {
    check(at_ != MAP_FAILED, "no shared memory");
  }
  ~SharedBytes() { ::munmap(at_, size_); }
  SharedBytes(const SharedBytes&) = delete;
  U8* get() const { return static_cast<U8*>(at_); }

 private:
  std::size_t size_;
  void* at_;
};

// Runs f in another process and gives what it returns.
template <class F>
double elsewhere(F&& f) {
  const SharedBytes result(4096);
  const pid_t pid = ::fork();
  check(pid >= 0, "fork");
  if (pid == 0) {
    const double value = f();
    std::memcpy(result.get(), &value, sizeof value);
    ::_exit(0);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "the other process failed");
  double value;
  std::memcpy(&value, result.get(), sizeof value);
  return value;
}

struct Rows {
  std::vector<U64> keys;  // in no order
  std::vector<Record> records;
  U64 bytes = 0;  // of all records' binary forms
};

Record recordOf(U64 i, U64 version) {
  Record record(Tunnel::TunnelTable::TunnelId(U64{9} << 40 | i),
                Tunnel::TunnelTable::TunnelEntryPref(static_cast<U8>(i)));
  record.entryMetricIs(static_cast<U32>(version));
  record.tepIs(Vantor::IpGenPrefix(
      Kop::stringPrintf("10.%lu.%lu.%lu/32", i >> 16 & 255, i >> 8 & 255, i & 255)));
  record.setName(Kop::stringPrintf("path-%lu", i));
  return record;
}

const Rows& rows() {
  static const Rows rows = [] {
    Rows made;
    for (U64 i = 0; i < rowCount; ++i) {
      made.records.push_back(recordOf(i, 1));
      made.keys.push_back(U64{9} << 40 | i);
      made.bytes += made.records.back().serializeLen();
    }
    return made;
  }();
  return rows;
}

// Keys of rows in an order that no cache foresees.
const std::vector<U64>& randomKeys() {
  static const std::vector<U64> keys = [] {
    std::vector<U64> shuffled = rows().keys;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937_64(7));
    return shuffled;
  }();
  return keys;
}

class Name {
 public:
  explicit Name(const char* what)
      : text_("/quarn-bench-" + std::to_string(::getpid()) + "-" + what) {
    TableWriter<Record>::remove(text_);
  }
  ~Name() { TableWriter<Record>::remove(text_); }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

void fill(TableWriter<Record>& writer) {
  const Rows& all = rows();
  for (U64 i = 0; i < rowCount; ++i)
    writer.rowIs(all.keys[i], all.records[i]);
}

// One filled table for all that only read.
struct Filled {
  Filled() : name("filled"), writer(name.text()) { fill(writer); }
  Name name;
  TableWriter<Record> writer;
};
Filled& filled() {
  static Filled table;
  return table;
}

void publishOurs(benchmark::State& state) {
  rows();
  for (auto _ : state) {
    const Name name("publish");
    const auto start = Clock::now();
    TableWriter<Record> writer(name.text());
    fill(writer);
    state.SetIterationTime(secondsSince(start));
    const TableStats stats = writer.stats();
    state.counters["bytes"] = static_cast<double>(stats.bytesUsed) / rowCount;
  }
}

// The forms of all records end to end.
U64 copyOut(U8* to) {
  const Rows& all = rows();
  U64 at = 0;
  for (const Record& record : all.records) {
    record.serialize(to + at);
    at += record.serializeLen();
  }
  return at;
}

const std::vector<U8>& plainBytes() {
  static const std::vector<U8> bytes = [] {
    std::vector<U8> made(rows().bytes);
    copyOut(made.data());
    return made;
  }();
  return bytes;
}

void publishCopy(benchmark::State& state) {
  const std::vector<U8>& from = plainBytes();
  for (auto _ : state) {
    const auto start = Clock::now();
    const SharedBytes to(from.size());
    std::memcpy(to.get(), from.data(), from.size());
    benchmark::ClobberMemory();
    state.SetIterationTime(secondsSince(start));
    state.counters["bytes"] = static_cast<double>(from.size()) / rowCount;
  }
}

struct MutexMap {
  void rowIs(U64 key, const Record& record) {
    const std::unique_lock lock(mutex);
    map.insert_or_assign(key, record);
  }
  bool row(U64 key, Record& out) const {
    const std::shared_lock lock(mutex);
    const auto found = map.find(key);
    if (found == map.end()) return false;
    out = found->second;
    return true;
  }
  mutable std::shared_mutex mutex;
  absl::flat_hash_map<U64, Record> map;
};

void publishMutexMap(benchmark::State& state) {
  const Rows& all = rows();
  for (auto _ : state) {
    const auto start = Clock::now();
    MutexMap map;
    for (U64 i = 0; i < rowCount; ++i)
      map.rowIs(all.keys[i], all.records[i]);
    state.SetIterationTime(secondsSince(start));
    state.counters["bytes"] =
        static_cast<double>(map.map.capacity() * (sizeof(std::pair<U64, Record>) + 1)) /
        rowCount;
  }
}

void readAllOurs(benchmark::State& state) {
  Filled& table = filled();
  for (auto _ : state)
    state.SetIterationTime(elsewhere([&table] {
      const TableReader<Record> reader(table.name.text());
      U64 seen = 0, metrics = 0;
      const auto walk = [&](U64, const Record& record) {
        ++seen;
        metrics += record.entryMetric();
      };
      reader.forEachRow(walk);  // maps the pages
      const auto start = Clock::now();
      reader.forEachRow(walk);
      const double time = secondsSince(start);
      check(seen == 2 * rowCount && metrics == 2 * rowCount, "rows are missing");
      return time;
    }));
}

void readAllCopy(benchmark::State& state) {
  const std::vector<U8>& bytes = plainBytes();
  const SharedBytes shared(bytes.size());
  std::memcpy(shared.get(), bytes.data(), bytes.size());
  for (auto _ : state)
    state.SetIterationTime(elsewhere([&] {
      std::vector<U8> to(bytes.size(), 1);
      std::memcpy(to.data(), shared.get(), bytes.size());
      const auto start = Clock::now();
      std::memcpy(to.data(), shared.get(), bytes.size());
      benchmark::ClobberMemory();
      return secondsSince(start);
    }));
}

// The same bytes, decoded one after the other.
void readAllDecode(benchmark::State& state) {
  const std::vector<U8>& bytes = plainBytes();
  const SharedBytes shared(bytes.size());
  std::memcpy(shared.get(), bytes.data(), bytes.size());
  for (auto _ : state)
    state.SetIterationTime(elsewhere([&] {
      double time = 0;
      for (int pass = 0; pass < 2; ++pass) {
        Record record;
        U64 metrics = 0;
        const auto start = Clock::now();
        for (U64 at = 0; at < bytes.size();) {
          const U32 length = record.deserializeLen(
              shared.get() + at,
              static_cast<U32>(std::min<U64>(bytes.size() - at, 1000)));
          record.deserialize(shared.get() + at, length);
          metrics += record.entryMetric();
          at += length;
        }
        time = secondsSince(start);
        check(metrics == rowCount, "rows are missing");
      }
      return time;
    }));
}

MutexMap& filledMap() {
  static MutexMap map;
  if (map.map.empty())
    for (U64 i = 0; i < rowCount; ++i)
      map.rowIs(rows().keys[i], rows().records[i]);
  return map;
}

void readAllMutexMap(benchmark::State& state) {
  const MutexMap& map = filledMap();
  for (auto _ : state) {
    U64 metrics = 0;
    Record record;
    const auto start = Clock::now();
    const std::shared_lock lock(map.mutex);
    for (const auto& [key, row] : map.map) {
      record = row;
      benchmark::DoNotOptimize(record);
      metrics += record.entryMetric();
    }
    state.SetIterationTime(secondsSince(start));
    check(metrics == rowCount, "rows are missing");
  }
}

constexpr U64 batch = 200000;  // reads of one measurement

void readOneOurs(benchmark::State& state) {
  Filled& table = filled();
  const std::vector<U64>& keys = randomKeys();
  for (auto _ : state)
    state.SetIterationTime(elsewhere([&] {
      const TableReader<Record> reader(table.name.text());
      Record record;
      reader.forEachRow([](U64, const Record&) {});  // maps the pages
      const auto start = Clock::now();
      for (U64 i = 0; i < batch; ++i)
        check(reader.row(keys[i], record) == RowState::found, "a row is missing");
      return secondsSince(start) / batch;
    }));
}

void readOneMutexMap(benchmark::State& state) {
  const MutexMap& map = filledMap();
  const std::vector<U64>& keys = randomKeys();
  for (auto _ : state) {
    Record record;
    const auto start = Clock::now();
    for (U64 i = 0; i < batch; ++i) {
      check(map.row(keys[i], record), "a row is missing");
      benchmark::DoNotOptimize(record);
    }
    state.SetIterationTime(secondsSince(start) / batch);
  }
}

void updatesOurs(benchmark::State& state) {
  Filled& table = filled();
  const std::vector<U64>& keys = randomKeys();
  static U32 version = 1;
  for (auto _ : state) {
    ++version;
    const SharedBytes flags(4096);
    auto* const ready = reinterpret_cast<std::atomic<U64>*>(flags.get());
    auto* const reread = ready + 1;
    constexpr U64 changes = 400000;
    const U64 first = table.writer.changeCount();
    const pid_t pid = ::fork();
    if (pid == 0) {
      const TableReader<Record> reader(table.name.text());
      reader.forEachRow([](U64, const Record&) {});
      ready->store(1);
      std::vector<U64> changed;
      U64 read = 0, walks = 0;
      Record record;
      for (U64 since = first; since < first + changes;) {
        if (!reader.changedSince(since, changed, since)) {
          ++walks;
          reader.forEachRow([](U64, const Record&) {});
        }
        for (const U64 key : changed)
          read += reader.row(key, record) == RowState::found &&
                  record.entryMetric() == version;
      }
      reread->store(read);
      ready->store(2 + walks);
      ::_exit(0);
    }
    while (ready->load() == 0)
      ::usleep(100);
    std::vector<Record> records;
    for (U64 i = 0; i < 1000; ++i)
      records.push_back(recordOf(i, version));
    const auto start = Wall::now();
    for (U64 i = 0; i < changes; ++i)
      table.writer.rowIs(keys[i], records[i % 1000]);
    state.counters["writer_ns"] = secondsSince(start) / changes * 1e9;
    while (ready->load() < 2)
      ::usleep(20);
    state.SetIterationTime(secondsSince(start) / changes);
    state.counters["walks"] = static_cast<double>(ready->load() - 2);
    int status = 0;
    ::waitpid(pid, &status, 0);
    check(table.writer.changeCount() == first + changes && reread->load() > 0,
          "no updates");
  }
  // The rows as the others expect them.
  fill(table.writer);
}

void updatesMutexMap(benchmark::State& state) {
  MutexMap& map = filledMap();
  const std::vector<U64>& keys = randomKeys();
  for (auto _ : state) {
    constexpr U64 changes = 400000;
    std::vector<Record> records;
    for (U64 i = 0; i < 1000; ++i)
      records.push_back(recordOf(i, 1));
    Record record;
    const auto start = Wall::now();
    for (U64 i = 0; i < changes; ++i) {
      map.rowIs(keys[i], records[i % 1000]);
      check(map.row(keys[i], record), "a row is missing");
    }
    state.SetIterationTime(secondsSince(start) / changes);
  }
}

#define TABLE_BENCH(function, name, iterations) \
  BENCHMARK(function)->Name(name)->UseManualTime()->Iterations(iterations)

TABLE_BENCH(publishOurs, "tablePublish/ours/1000000", 1)->Unit(benchmark::kMillisecond);
TABLE_BENCH(publishCopy, "tablePublish/copy/1000000", 1)->Unit(benchmark::kMillisecond);
TABLE_BENCH(publishMutexMap, "tablePublish/mutex_map/1000000", 1)
    ->Unit(benchmark::kMillisecond);
TABLE_BENCH(readAllOurs, "tableReadAll/ours/1000000", 2)->Unit(benchmark::kMillisecond);
TABLE_BENCH(readAllCopy, "tableReadAll/copy/1000000", 2)->Unit(benchmark::kMillisecond);
TABLE_BENCH(readAllDecode, "tableReadAll/decode/1000000", 2)
    ->Unit(benchmark::kMillisecond);
TABLE_BENCH(readAllMutexMap, "tableReadAll/mutex_map/1000000", 2)
    ->Unit(benchmark::kMillisecond);
TABLE_BENCH(readOneOurs, "tableReadOne/ours/1000000", 3);
TABLE_BENCH(readOneMutexMap, "tableReadOne/mutex_map/1000000", 3);
TABLE_BENCH(updatesOurs, "tableUpdates/ours/1000000", 1);
TABLE_BENCH(updatesMutexMap, "tableUpdates/mutex_map/1000000", 1);

}  // namespace
}  // namespace Quarn
