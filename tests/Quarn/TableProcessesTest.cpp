#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <thread>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Quarn/TableLayout.h"
#include "TableRecord.h"

using Quarn::RowState;
using Quarn::TableException;
using testing::HasSubstr;

namespace {

constexpr U64 keyCount = 1200;

// What a writer says before and after each change, in memory that outlives it.
struct Journal {
  struct Intent {
    U64 key, version;  // version 0: deleted
  };
  U64 version = 0;
  U64 done[keyCount] = {};  // version that stands in the table
  Intent intent{};
  U64 isIntended = 0;

  U64 changes = 0, walks = 0;
  U64 faults = 0;
  char fault[200] = {};
};

void put(U64& word, U64 value) {
  __atomic_store_n(&word, value, __ATOMIC_SEQ_CST);
}
U64 get(const U64& word) {
  return __atomic_load_n(&word, __ATOMIC_SEQ_CST);
}
void add(U64& word, U64 value) {
  __atomic_fetch_add(&word, value, __ATOMIC_SEQ_CST);
}

struct SharedJournal {
  SharedJournal()
      : journal(new (::mmap(nullptr,
                            sizeof(Journal),
                            PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS,
                            -1,
                            0)) Journal) {}
  ~SharedJournal() { ::munmap(journal, sizeof(Journal)); }
  Journal* operator->() const { return journal; }
  Journal* journal;
};

U32 sizeOf(U64 version) {
  return static_cast<U32>(version * 7919 % 17 == 0 ? 700 : version % 90);
}

// `traced`: stops before and after what the writer does, for the one who traces this process.
void change(
    Journal& journal, TestWriter& writer, U64 key, bool isDeletion, bool traced = false) {
  const U64 version = isDeletion ? 0 : journal.version + 1;
  if (!isDeletion) put(journal.version, version);
  journal.intent = {key, version};
  put(journal.isIntended, 1);
  const TestRecord record(key, version, sizeOf(version));
  if (traced) ::raise(SIGSTOP);
  if (isDeletion)
    writer.rowDel(key);
  else
    writer.rowIs(key, record);
  if (traced) ::raise(SIGSTOP);
  put(journal.done[key], version);
  put(journal.isIntended, 0);
  add(journal.changes, 1);
}

// What is wrong with a table whose writer stands still or is dead: a completed row that is lost
// or replaced, half a row, a row from nowhere. `adopt`: what was under way and is made is
// completed.
template <class Rows>
std::string wrongWith(Journal& journal, const Rows& rows, bool adopt) {
  const bool isIntended = get(journal.isIntended) == 1;
  std::map<U64, U64> seen;
  std::string wrong;
  rows.forEachRow([&](U64 key, const TestRecord& record) {
    if (!record.isWhole(key)) wrong = "half a row of key " + std::to_string(key);
    if (!seen.emplace(key, record.version).second)
      wrong = "key " + std::to_string(key) + " twice";
  });
  for (U64 key = 0; key < keyCount; ++key) {
    const auto found = seen.find(key);
    const U64 version = found == seen.end() ? 0 : found->second;
    if (version == journal.done[key]) continue;
    if (!isIntended || journal.intent.key != key || journal.intent.version != version)
      wrong = "key " + std::to_string(key) + " has version " + std::to_string(version) +
              ", not " + std::to_string(journal.done[key]);
    else if (adopt)
      put(journal.done[key], version);
  }
  return wrong;
}

template <class F>
pid_t forked(F&& f) {
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  try {
    f();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    ::_exit(2);
  }
  ::_exit(0);
}

int killed(pid_t pid) {
  int status = 0;
  ::kill(pid, SIGKILL);
  ::waitpid(pid, &status, 0);
  return status;
}

void writeUntilKilled(Journal& journal, std::string_view name, U64 seed) {
  TestWriter writer(name);
  wrongWith(journal, writer, true);
  put(journal.isIntended, 0);
  for (std::mt19937_64 random(seed);;)
    change(journal, writer, random() % keyCount, random() % 4 == 0);
}

// Every row that is read is whole, never older than what was read before, and once in a walk;
// those of the first `fixed` keys are always there. Until `stop`, or until killed.
void readRows(Journal& journal,
              std::string_view name,
              U64 seed,
              U64 keys = keyCount,
              U64 fixed = 0,
              const std::atomic<bool>* stop = nullptr) {
  std::mt19937_64 random(seed);
  std::vector<U64> newest(keys), changed;
  const auto fail = [&](const std::string& what) {
    std::snprintf(journal.fault, sizeof journal.fault, "%s", what.c_str());
    put(journal.faults, 1);
  };
  const auto see = [&](U64 key, const TestRecord& record) {
    if (!record.isWhole(key) || record.version < newest[key])
      fail("key " + std::to_string(key) + ", version " + std::to_string(record.version) +
           " after " + std::to_string(newest[key]));
    newest[key] = record.version;
  };
  try {
    const TestReader reader(name);
    U64 since = 0;
    do {
      TestRecord record;
      for (int i = 0; i < 1000; ++i) {
        const U64 key = random() % keys;
        const RowState state = reader.row(key, record);
        if (state == RowState::found)
          see(key, record);
        else if (key < fixed)
          fail("no key " + std::to_string(key));
      }
      std::vector<bool> seen(keys);
      reader.forEachRow([&](U64 key, const TestRecord& row) {
        see(key, row);
        if (seen[key]) fail("twice key " + std::to_string(key));
        seen[key] = true;
      });
      if (std::count(seen.begin(), seen.begin() + static_cast<long>(fixed), false) > 0)
        fail("a walk that passes a row over");
      reader.changedSince(since, changed, since);
      for (const U64 key : changed)
        if (reader.row(key, record) == RowState::found) see(key, record);
      if (stop)
        if (const Quarn::TableReport report = TestReader(name).verify(); !report.ok())
          fail(report.faults.front());
      add(journal.walks, 1);
    } while (!stop || !*stop);
  } catch (const std::exception& e) {
    fail(e.what());
  }
}

}  // namespace

// Catches a store in the wrong order, and a recovery that forgets: writers are killed at random
// instants, in recovery as well, while readers look at every row.
TEST(TableProcesses, killedWritersLoseNothing) {
  const time_t end = ::time(nullptr) + 8;  // on a busy machine
  const TestName name("killed");
  const SharedJournal journal;
  const U64 seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  { TestWriter writer(name); }
  std::vector<pid_t> readers;
  for (int i = 0; i < 2; ++i)
    readers.push_back(forked([&] { readRows(*journal.journal, name, seed + i); }));
  const TestReader reader(name);
  std::string wrong;
  int round = 0;
  for (; round < 300 && ::time(nullptr) < end && wrong.empty() && !get(journal->faults);
       ++round) {
    const pid_t writer =
        forked([&] { writeUntilKilled(*journal.journal, name, random() + round); });
    random();
    const U64 before = get(journal->changes);
    const timespec pause{0, static_cast<long>(random() % 3000000)};
    ::nanosleep(&pause, nullptr);
    // Not always at work yet.
    for (int i = 0; i < 1000 && round % 8 != 0 && get(journal->changes) == before; ++i)
      ::sched_yield();
    ASSERT_TRUE(WIFSIGNALED(killed(writer)));
    wrong = wrongWith(*journal.journal, reader, false);
    if (!wrong.empty() || round % 2 == 0) continue;
    const TestWriter recovered(name);
    wrong = wrongWith(*journal.journal, recovered, true);
    put(journal->isIntended, 0);
    const Quarn::TableReport report = reader.verify();
    if (!report.ok()) wrong = report.faults.front();
  }
  for (const pid_t pid : readers)
    EXPECT_TRUE(WIFSIGNALED(killed(pid)));
  EXPECT_EQ(wrong, "");
  EXPECT_STREQ(journal->fault, "");
  EXPECT_GT(journal->changes, static_cast<U64>(round));
  EXPECT_GT(journal->walks, 0u);
}

// Catches an access that is no atomic one, rows that go missing in a walk while the index is
// replaced under it, and a follower that loses a change.
TEST(TableThreads, readersBesideAWriterThatGrows) {
  const TestName name("threads");
  constexpr U64 fixed = 500, all = 20000;
  const SharedJournal journal;
  auto writer = std::make_unique<TestWriter>(name);
  for (U64 key = 0; key < fixed; ++key)
    writer->rowIs(key, TestRecord(key, 1, static_cast<U32>(key % 50)));
  std::atomic<bool> stop = false;
  std::vector<std::thread> readers;
  for (U64 i = 0; i < 2; ++i)
    readers.emplace_back(
        [&, i] { readRows(*journal.journal, name, i, all, fixed, &stop); });
  std::mt19937_64 random(99);
  U64 version = 1;
  for (U64 round = 0; round < 6 || (get(journal->walks) < 4 && !get(journal->faults));
       ++round) {
    for (U64 i = 0; i < 4000; ++i) {
      const U64 key = random() % (round % 2 ? all : fixed);
      writer->rowIs(key, TestRecord(key, ++version, static_cast<U32>(random() % 300)));
      if (const U64 other = random() % all; other >= fixed && i % 2)
        writer->rowDel(other);
    }
    if (round % 3 == 2) {
      writer.reset();
      writer = std::make_unique<TestWriter>(name);
    }
  }
  stop = true;
  for (std::thread& reader : readers)
    reader.join();
  EXPECT_STREQ(journal->fault, "");
}

namespace {

// A copy of a table under another name: what its next writer would find now.
void copyTable(const std::string& from, const std::string& to) {
  const int in = ::shm_open(from.c_str(), O_RDONLY, 0);
  const int out = ::shm_open(to.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
  struct stat status;
  ASSERT_TRUE(in >= 0 && out >= 0 && ::fstat(in, &status) == 0);
  const std::size_t size = static_cast<std::size_t>(status.st_size);
  ASSERT_EQ(::ftruncate(out, status.st_size), 0);
  void* const source = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, in, 0);
  ASSERT_NE(source, MAP_FAILED);
  ASSERT_EQ(::pwrite(out, source, size, 0), static_cast<ssize_t>(size));
  ::munmap(source, size);
  ::close(in);
  ::close(out);
}

// The words that changes of a small table touch: all but what of the ring is far away.
struct Watched {
  explicit Watched(const std::string& name) {
    const int fd = ::shm_open(name.c_str(), O_RDONLY, 0);
    object = static_cast<const U8*>(::mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0));
    ::close(fd);
  }
  ~Watched() { ::munmap(const_cast<U8*>(object), size); }
  bool hasChanged(U64 used) {
    constexpr U64 ringEnd = Quarn::TableLayout::ringOffset + 16 * 2048;
    const U64 areas = Quarn::TableLayout::areasOffset;
    std::vector<U8> now(object, object + ringEnd);
    now.insert(now.end(), object + areas, object + used);
    const bool differs = now != last;
    last = std::move(now);
    return differs;
  }
  static constexpr std::size_t size = 4 << 20;
  const U8* object;
  std::vector<U8> last;
};

}  // namespace

// Catches what random instants miss: the writer is stopped after each of its instructions, and
// whatever it has stored by then must do for readers and for the next writer.
TEST(TableProcesses, stoppedWriterAtEachInstruction) {
  const TestName name("stepped"), copy("copy");
  const SharedJournal journal;
  {
    TestWriter writer(name);
    for (U64 key = 0; key < 100; ++key)
      change(*journal.journal, writer, key, false);
  }
  const TestReader reader(name);
  const pid_t writer = forked([&] {
    TestWriter mine(name);
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) ::_exit(3);
    Journal& j = *journal.journal;
    change(j, mine, 5, false, true);    // another row
    change(j, mine, 500, false, true);  // a new one
    change(j, mine, 500, true, true);
    change(j, mine, 7, true, true);
    change(j, mine, 7, false, true);
    j.version = 17 * 1000 - 1;  // a size that there was not: the object grows
    change(j, mine, 501, false, true);
    change(j, mine, 5, false, true);
  });
  int status = 0;
  ::waitpid(writer, &status, 0);
  if (!WIFSTOPPED(status)) GTEST_SKIP() << "this system lets nobody trace a process";
  Watched watched(name.text());
  std::string wrong;
  const auto soundness = [&wrong](const TestReader& table) {
    const Quarn::TableReport report = table.verify();
    if (!report.ok() && wrong.empty()) wrong = report.faults.front();
  };
  U64 steps = 0, states = 0;
  bool isAtWork = false;
  for (; WIFSTOPPED(status) && wrong.empty(); ++steps) {
    if (watched.hasChanged(reader.stats().bytesUsed)) {
      ++states;
      wrong = wrongWith(*journal.journal, reader, false);
      soundness(reader);
      copyTable(name.text(), copy.text());
      const TestReader theirs(copy);
      soundness(theirs);
      TestWriter next(copy);
      if (wrong.empty()) wrong = wrongWith(*journal.journal, next, false);
      if (wrong.empty()) wrong = wrongWith(*journal.journal, theirs, false);
      EXPECT_TRUE(next.rowIs(1000, TestRecord(1000, 1, 70)));
      EXPECT_TRUE(next.rowDel(1000));
      soundness(theirs);
    }
    if (WSTOPSIG(status) == SIGSTOP) isAtWork = !isAtWork;
    ASSERT_EQ(
        ::ptrace(isAtWork ? PTRACE_SINGLESTEP : PTRACE_CONT, writer, nullptr, nullptr),
        0);
    ::waitpid(writer, &status, 0);
  }
  if (WIFSTOPPED(status)) killed(writer);
  EXPECT_EQ(wrong, "") << "after " << steps << " instructions";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(wrongWith(*journal.journal, reader, false), "");
  EXPECT_GT(states, 50u);
}

// Catches a second writer that is let in, one that is kept out by a dead one, and readers or
// writers that meet a table while it is made.
TEST(TableProcesses, oneWriterAndRacingCreators) {
  const TestName name("racing");
  const auto outcome = [&](bool writes) {
    try {
      if (writes) {
        TestWriter writer(name);
        writer.rowIs(1, TestRecord(1, 1, 1));
        const timespec pause{0, 3000000};
        ::nanosleep(&pause, nullptr);
      } else {
        TestReader reader(name);
        return reader.verify().ok() ? 0 : 4;
      }
      return 0;
    } catch (const TableException& e) {
      const std::string_view what = e.what();
      if (what.find("has a live writer") != what.npos) return 10;
      if (what.find("shm_open: No such file") != what.npos) return 11;
      std::fprintf(stderr, "%s\n", e.what());
      return 5;
    }
  };
  int writers = 0;
  for (int round = 0; round < 15; ++round) {
    TestWriter::remove(name);
    std::vector<pid_t> children;
    for (int i = 0; i < 4; ++i)
      children.push_back(forked([&] { ::_exit(outcome(i % 2 == 0)); }));
    for (int i = 0; i < 4; ++i) {
      int status = 0;
      ::waitpid(children[i], &status, 0);
      ASSERT_TRUE(WIFEXITED(status));
      const int code = WEXITSTATUS(status);
      ASSERT_TRUE(code == 0 || code == (i % 2 == 0 ? 10 : 11)) << code;
      writers += i % 2 == 0 && code == 0;
    }
    // Whoever was killed in the middle of making it stands in nobody's way.
    TestWriter::remove(name);
    const pid_t creator = forked([&] { TestWriter writer(name); });
    ::usleep(static_cast<useconds_t>(round * 50));
    killed(creator);
    TestWriter writer(name);
    ASSERT_TRUE(TestReader(name).verify().ok());
    try {
      TestWriter second(name);
      FAIL() << "a second writer";
    } catch (const TableException& e) {
      EXPECT_THAT(e.what(),
                  HasSubstr("has a live writer, process " + std::to_string(::getpid())));
    }
  }
  EXPECT_GE(writers, 15);
}
