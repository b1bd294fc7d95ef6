#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "Quarn/TableLayout.h"
#include "TableRecord.h"
#include "tests/Support/Testing.h"

using Quarn::TableException;

namespace {

constexpr U64 keyCount = 1200;

// What a writer says before and after each change, in memory that outlives it.
struct Journal {
  struct Intent {
    U64 key, version;  // version 0: deleted
  };
  std::atomic<U64> version = 0;
  std::atomic<U64> done[keyCount] = {};  // version that stands in the table
  Intent intent{};
  std::atomic<bool> isIntended = false;
  std::atomic<U64> changes = 0, walks = 0;
};

Journal& sharedJournal() {
  return *new (::mmap(nullptr, sizeof(Journal), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Journal;
}

// `traced`: stops before and after what the writer does, for the one who traces this process.
void change(
    Journal& journal, TestWriter& writer, U64 key, bool isDeletion, bool traced = false) {
  const U64 version = isDeletion ? 0 : ++journal.version;
  journal.intent = {key, version};
  journal.isIntended = true;
  const U64 size = version * 7919 % 17 == 0 ? 700 : version % 90;
  if (traced) ::raise(SIGSTOP);
  if (isDeletion)
    writer.rowDel(key);
  else
    writer.rowIs(key, {key, version, static_cast<U32>(size)});
  if (traced) ::raise(SIGSTOP);
  journal.done[key] = version;
  journal.isIntended = false;
  ++journal.changes;
}

// In a table whose writer stands still or is dead no completed row is lost or replaced, and
// none is half a row or from nowhere. Whether what was under way is made; `adopt`: it is
// completed.
template <class Rows>
bool expectAsTold(Journal& journal, const Rows& rows, bool adopt = false) {
  std::map<U64, U64> seen;
  bool isMade = false;
  rows.forEachRow([&](U64 key, const TestRecord& record) {
    EXPECT_TRUE(record.isWhole(key)) << key;
    EXPECT_TRUE(seen.emplace(key, record.version).second) << "twice: " << key;
  });
  for (U64 key = 0; key < keyCount; ++key) {
    const U64 version = seen[key];
    if (version == journal.done[key]) continue;
    EXPECT_TRUE(journal.isIntended && journal.intent.key == key &&
                journal.intent.version == version)
        << "key " << key << " has version " << version << ", not " << journal.done[key];
    isMade = true;
    if (adopt) journal.done[key] = version;
  }
  if (adopt) journal.isIntended = false;
  return isMade;
}

pid_t forked(const std::function<void()>& f) noexcept {
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  f();
  ::_exit(0);
}

int killed(pid_t pid) {
  int status = 0;
  ::kill(pid, SIGKILL);
  ::waitpid(pid, &status, 0);
  return status;
}

// Every row that is read is whole, never older than what was read before, and once in a walk;
// those of the first `fixed` keys are always there. Until `stop`, a failure or a kill.
void readRows(Journal& journal,
              std::string_view name,
              U64 seed,
              U64 keys = keyCount,
              U64 fixed = 0,
              const std::atomic<bool>* stop = nullptr) {
  std::mt19937_64 random(seed);
  std::vector<U64> newest(keys), changed;
  const auto see = [&](U64 key, const TestRecord& record) {
    EXPECT_TRUE(record.isWhole(key) && record.version >= newest[key])
        << "key " << key << ", version " << record.version << " after " << newest[key];
    newest[key] = record.version;
  };
  const TestReader reader(name);
  const auto look = [&](U64 key) {
    TestRecord record;
    const Quarn::RowState state = reader.row(key, record);
    if (state == Quarn::RowState::found)
      see(key, record);
    else
      EXPECT_GE(key, fixed);
  };
  U64 since = 0;
  do {
    for (int i = 0; i < 1000; ++i)
      look(random() % keys);
    std::vector<bool> seen(keys);
    reader.forEachRow([&](U64 key, const TestRecord& row) {
      see(key, row);
      EXPECT_FALSE(seen[key]) << "twice: " << key;
      seen[key] = true;
    });
    const auto end = seen.begin() + static_cast<long>(fixed);
    EXPECT_EQ(std::count(seen.begin(), end, false), 0) << "passed over";
    reader.changedSince(since, changed, since);
    std::for_each(changed.begin(), changed.end(), look);
    if (stop) {
      EXPECT_EQ(faultsOf(TestReader(name)), "");
    }
    ++journal.walks;
  } while (!testing::Test::HasFailure() && (!stop || !*stop));
}

}  // namespace

// Catches a store in the wrong order, and a recovery that forgets: writers are killed at random
// instants, in recovery as well, while readers look at every row.
TEST(TableProcesses, killedWritersLoseNothing) {
  const time_t end = ::time(nullptr) + 8;  // on a busy machine
  const TestName name("killed");
  Journal& journal = sharedJournal();
  const U64 seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  { TestWriter writer(name); }
  std::vector<pid_t> readers;
  for (int i = 0; i < 2; ++i)
    readers.push_back(forked([&] { readRows(journal, name, seed + i); }));
  const TestReader reader(name);
  U64 round = 0;
  for (; round < 300 && ::time(nullptr) < end && !HasFailure(); ++round) {
    const U64 before = journal.changes, writerSeed = random();
    const pid_t writer = forked([&] {
      TestWriter mine(name);
      expectAsTold(journal, mine, true);
      for (std::mt19937_64 keys(writerSeed);;)
        change(journal, mine, keys() % keyCount, keys() % 4 == 0);
    });
    const timespec pause{0, static_cast<long>(random() % 3000000)};
    ::nanosleep(&pause, nullptr);
    // Not always at work yet.
    for (int i = 0; i < 1000 && round % 8 != 0 && journal.changes == before; ++i)
      ::sched_yield();
    EXPECT_EQ(killed(writer), SIGKILL);
    expectAsTold(journal, reader);
    if (round % 2 == 0) continue;
    const TestWriter recovered(name);
    expectAsTold(journal, recovered, true);
    EXPECT_EQ(faultsOf(reader), "");
  }
  for (const pid_t pid : readers)
    EXPECT_EQ(killed(pid), SIGKILL);
  EXPECT_GT(journal.changes, round);
  EXPECT_GT(journal.walks, 0u);
}

// Catches an access that is no atomic one, rows that go missing in a walk while the index is
// replaced under it, and a follower that loses a change.
TEST(TableThreads, readersBesideAWriterThatGrows) {
  const TestName name("threads");
  constexpr U64 fixed = 500, all = 20000;
  Journal& journal = sharedJournal();
  auto writer = std::make_unique<TestWriter>(name);
  for (U64 key = 0; key < fixed; ++key)
    writer->rowIs(key, {key, 1, static_cast<U32>(key % 50)});
  std::atomic<bool> stop = false;
  std::vector<std::thread> readers;
  for (U64 i = 0; i < 2; ++i)
    readers.emplace_back([&, i] { readRows(journal, name, i, all, fixed, &stop); });
  std::mt19937_64 random(99);
  U64 version = 1;
  for (U64 round = 0; round < 6 || (journal.walks < 4 && !HasFailure()); ++round) {
    for (U64 i = 0; i < 4000; ++i) {
      const U64 key = random() % (round % 2 ? all : fixed);
      writer->rowIs(key, {key, ++version, static_cast<U32>(random() % 300)});
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
}

namespace {

// The words that changes of a small table touch: all but what of the ring is far away.
struct Watched {
  explicit Watched(const TestName& name) {
    const int fd = ::open(name.path().c_str(), O_RDONLY);
    object =
        static_cast<const U8*>(::mmap(nullptr, 4 << 20, PROT_READ, MAP_SHARED, fd, 0));
    ::close(fd);
  }
  bool hasChanged(U64 used) {
    std::vector<U8> now(object, object + Quarn::TableLayout::ringOffset + 16 * 2048);
    now.insert(now.end(), object + Quarn::TableLayout::areasOffset, object + used);
    last.swap(now);
    return now != last;
  }
  const U8* object;
  std::vector<U8> last{};
};

}  // namespace

// Catches what random instants miss: the writer is stopped after each of its instructions, and
// whatever it has stored by then must do for readers and for the next writer.
TEST(TableProcesses, stoppedWriterAtEachInstruction) {
  const TestName name("stepped"), copy("copy");
  Journal& journal = sharedJournal();
  {
    TestWriter writer(name);
    for (U64 key = 0; key < 100; ++key)
      change(journal, writer, key, false);
  }
  const TestReader reader(name);
  const pid_t writer = forked([&] {
    TestWriter mine(name);
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) ::_exit(3);
    change(journal, mine, 5, false, true);    // another row
    change(journal, mine, 500, false, true);  // a new one
    change(journal, mine, 500, true, true);
    if (HOUSE_SANITIZED) return;  // which is a minute of instructions
    change(journal, mine, 7, true, true);
    change(journal, mine, 7, false, true);
    journal.version = 17 * 1000 - 1;  // a size that there was not: the object grows
    change(journal, mine, 501, false, true);
    change(journal, mine, 5, false, true);
  });
  int status = 0;
  ::waitpid(writer, &status, 0);
  if (!WIFSTOPPED(status)) GTEST_SKIP() << "this system lets nobody trace a process";
  Watched watched(name);
  U64 steps = 0, states = 0;
  bool isAtWork = false;
  for (; WIFSTOPPED(status) && !HasFailure(); ++steps) {
    if (watched.hasChanged(reader.stats().bytesUsed)) {
      SCOPED_TRACE(steps);
      ++states;
      expectAsTold(journal, reader);
      EXPECT_EQ(faultsOf(reader), "");
      // A copy: what its next writer would find now.
      std::filesystem::copy_file(name.path(), copy.path(),
                                 std::filesystem::copy_options::overwrite_existing);
      const TestReader theirs(copy);
      EXPECT_EQ(faultsOf(theirs), "");
      TestWriter next(copy);
      const bool isMade = expectAsTold(journal, next);
      EXPECT_GE(next.changeCount(), journal.changes + isMade) << "no follower is told";
      expectAsTold(journal, theirs);
      EXPECT_TRUE(next.rowIs(1000, {1000, 1, 70}));
      EXPECT_TRUE(next.rowDel(1000));
      EXPECT_EQ(faultsOf(theirs), "");
    }
    if (WSTOPSIG(status) == SIGSTOP) isAtWork = !isAtWork;
    ASSERT_EQ(
        ::ptrace(isAtWork ? PTRACE_SINGLESTEP : PTRACE_CONT, writer, nullptr, nullptr),
        0);
    ::waitpid(writer, &status, 0);
  }
  if (WIFSTOPPED(status)) killed(writer);
  EXPECT_EQ(status, 0) << "after " << steps << " instructions";
  expectAsTold(journal, reader);
  EXPECT_GT(states, 50u);
}

// Catches a second writer that is let in, one that is kept out by a dead one, and readers or
// writers that meet a table while it is made.
TEST(TableProcesses, oneWriterAndRacingCreators) {
  const TestName name("racing");
  int writers = 0;
  for (int round = 0; round < 15; ++round) {
    TestWriter::remove(name);
    std::vector<pid_t> children;
    for (int i = 0; i < 4; ++i)
      children.push_back(forked([&] {
        try {
          if (i % 2 != 0) ::_exit(faultsOf(TestReader(name)).empty() ? 0 : 1);
          TestWriter writer(name);
          writer.rowIs(1, {1, 1, 1});
          ::usleep(3000);
        } catch (const TableException& e) {
          const char* const refusal = i % 2 == 0 ? "has a live writer" : "No such file";
          if (!std::strstr(e.what(), refusal)) throw;
          ::_exit(10);
        }
      }));
    for (int i = 0; i < 4; ++i) {
      int status = 0;
      ::waitpid(children[static_cast<U32>(i)], &status, 0);
      EXPECT_TRUE(status == 0 || status == 10 << 8) << status;
      writers += i % 2 == 0 && status == 0;
    }
    // Whoever was killed in the middle of making it stands in nobody's way.
    TestWriter::remove(name);
    const pid_t creator = forked([&] { TestWriter writer(name); });
    ::usleep(static_cast<useconds_t>(round * 50));
    killed(creator);
    TestWriter writer(name);
    EXPECT_EQ(faultsOf(TestReader(name)), "");
  }
  EXPECT_GE(writers, 15);
}
