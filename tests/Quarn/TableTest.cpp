#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Quarn/TableLayout.h"
#include "TableRecord.h"
#include "tests/Support/Testing.h"

using Quarn::RowState;
using Quarn::TableException;
using testing::HasSubstr;
namespace Layout = Quarn::TableLayout;
using namespace std::string_literals;

namespace {

using Model = std::map<U64, TestRecord>;

template <class Rows>
Model walked(const Rows& rows) {
  Model model;
  rows.forEachRow([&model](U64 key, const TestRecord& record) {
    EXPECT_TRUE(model.emplace(key, record).second) << "twice: " << key;
  });
  return model;
}

}  // namespace

// Catches a row that is lost, kept, changed or given twice: by a search that ends too early, a
// deletion that cuts a run of the index, an index that is rebuilt, a slot in two uses, a
// recovery that miscounts, a ring that goes on at the wrong place, a change that is half made
// when memory runs out (or SIGBUS in its place).
TEST(Table, randomOperationsAgreeWithMap) {
  const TestName name("random");
  const U64 seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  Model model, followed;
  auto writer = std::make_unique<TestWriter>(name);
  auto reader = std::make_unique<TestReader>(name);
  U64 since = 0, version = 0, changes = 0, refused = 0;
  ::signal(SIGXFSZ, SIG_IGN);
  const rlimit narrow{4096, RLIM_INFINITY}, wide{RLIM_INFINITY, RLIM_INFINITY};
  for (int step = 0; step < 60000; step += Support::stride) {
    // In the end all keys are new, and shared memory does not grow.
    const bool isFull = step >= 50000;
    const U64 range = isFull ? ~U64{0} : step / 10000 % 2 ? 100000 : 300;
    const U64 key = random() % range, what = random() % 1000;
    if (what < 600) {
      const U64 most = step % 100 == 0 ? 200000 : step % 5 ? 100 : isFull ? 50000 : 3000;
      const TestRecord record{key, ++version, static_cast<U32>(random() % most)};
      ::setrlimit(RLIMIT_FSIZE, isFull ? &narrow : &wide);
      try {
        EXPECT_TRUE(writer->rowIs(key, record));
        EXPECT_FALSE(writer->rowIs(key, record));
        model[key] = record;
        ++changes;
      } catch (const TableException& e) {
        EXPECT_THAT(e.what(), HasSubstr("posix_fallocate: File too large"));
        ++refused;
      }
      ::setrlimit(RLIMIT_FSIZE, &wide);
    } else if (what < 960) {
      const bool was = model.erase(key) > 0;
      EXPECT_EQ(writer->rowDel(key), was);
      changes += was;
    } else if (what < 990) {
      TestRecord mine, theirs;
      const auto found = model.find(key);
      ASSERT_EQ(reader->row(key, theirs),
                found == model.end() ? RowState::absent : RowState::found);
      ASSERT_EQ(writer->row(key, mine), found != model.end());
      ASSERT_EQ(writer->rowHas(key), found != model.end());
      if (found != model.end()) {
        ASSERT_EQ(theirs, found->second);
        ASSERT_EQ(mine, found->second);
      }
    } else if (what < 993) {
      std::vector<U64> keys;
      U64 upTo;
      ASSERT_TRUE(reader->changedSince(since, keys, upTo));
      ASSERT_EQ(upTo - since, keys.size());
      ASSERT_EQ(upTo, changes);
      for (const U64 changed : keys) {
        TestRecord record;
        followed.erase(changed);
        if (reader->row(changed, record) == RowState::found) followed[changed] = record;
      }
      ASSERT_EQ(followed, model);
      since = upTo;
    } else if (what < 994) {
      if (random() % 10 == 0 && step < 30000) {
        writer->rowDelAll();
        changes += model.size();
        model.clear();
      }
      writer.reset();
      ASSERT_FALSE(reader->writerAlive());
      ASSERT_EQ(reader->writerPid(), 0);
      writer = std::make_unique<TestWriter>(name);
      ASSERT_TRUE(reader->writerAlive());
      ASSERT_EQ(reader->writerPid(), ::getpid());
    } else if (what < 995) {
      reader = std::make_unique<TestReader>(name);
    }
    if (step % 5000 == 0) {
      ASSERT_EQ(writer->rowCount(), model.size());
      ASSERT_EQ(reader->rowCount(), model.size());
      ASSERT_EQ(reader->changeCount(), changes);
      ASSERT_EQ(walked(*reader), model);
      ASSERT_EQ(walked(*writer), model);
      ASSERT_EQ(faultsOf(*reader), "");
      ASSERT_EQ(reader->verify().rows, model.size());
    }
  }
  EXPECT_GT(refused, 100u);
  // A walk may change and delete.
  writer->forEachRow([&](U64 key, const TestRecord&) {
    EXPECT_EQ(model.erase(key), 1u);
    writer->rowIs(key, {key, 0, 600});
    if (key % 2) writer->rowDel(key);
  });
  EXPECT_TRUE(model.empty());
  // What is given up at once serves rows of other sizes.
  writer->rowDelAll();
  const U64 used = writer->stats().bytesUsed, more = Layout::ringCount + 1;
  for (U64 i = 0; i < more; ++i)
    writer->rowIs(i % 5000, {i % 5000, i, 200});
  EXPECT_EQ(writer->stats().bytesUsed, used);
  EXPECT_EQ(faultsOf(*reader), "");
  // A follower is told when the ring no longer reaches back to it, or is of another table.
  std::vector<U64> keys;
  U64 upTo = 0;
  changes = reader->changeCount();
  EXPECT_FALSE(reader->changedSince(changes - more, keys, upTo));
  EXPECT_EQ(upTo, changes);
  EXPECT_FALSE(reader->changedSince(changes + 1, keys, upTo));
  EXPECT_TRUE(reader->changedSince(changes - Layout::ringCount, keys, upTo));
  ASSERT_EQ(keys.size(), Layout::ringCount);
  EXPECT_EQ(keys.front(), 1u);
}

namespace {

constexpr U64 rowCount = 200;

void fill(std::string_view name) {
  TestWriter writer(name);
  for (U64 key = 0; key < rowCount; ++key)
    writer.rowIs(key, {key, key, static_cast<U32>(key)});
  for (U64 key = 0; key < rowCount; key += 5)
    writer.rowIs(key, {key, key + 1, 10});
}

// All that is said by who reads a spoilt table. The rows that it gives are whole.
std::string complaintsOf(const TestName& name) {
  std::string said;
  const auto attempt = [&](const auto& read) {
    try {
      read(TestReader(name));
    } catch (const TableException& e) {
      said += e.what();
    }
  };
  const auto see = [](U64 key, const TestRecord& record) {
    EXPECT_TRUE(record.isWhole(key));
  };
  attempt([&](const TestReader& table) { said += faultsOf(table); });
  attempt([&](const TestReader& table) { table.forEachRow(see); });
  for (U64 key = 0; key < rowCount; ++key)
    attempt([&](const TestReader& table) {
      TestRecord record;
      if (table.row(key, record) == RowState::found) see(key, record);
    });
  return said;
}

}  // namespace

// Catches a check that was left out, and an offset, a length or a count that is followed: each
// of these is one wrong word, and is named.
TEST(TableCorrupt, eachWrongWordIsNamed) {
  const TestName name("words");
  fill(name);
  const U64 size = std::filesystem::file_size(name.path());
  const int fd = ::open(name.path().c_str(), O_RDWR);
  U8* const image =
      static_cast<U8*>(::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  const auto head = [&](U64 offset) { return Layout::load(image + offset); };
  const Layout::Index index =
      Layout::unpackedIndex(head(offsetof(Layout::Header, index)));
  U64 first = index.words();
  while (head(first) <= Layout::deletedWord)
    first += 8;
  const U64 slot = Layout::slotOf(head(first));
  const U64 nextArea = index.area + index.areaSize();
  constexpr U64 sizeAt = offsetof(Layout::Header, size),
                rowsAt = offsetof(Layout::Header, rows),
                indexAt = offsetof(Layout::Header, index),
                changesAt = offsetof(Layout::Header, changes);
  const auto rowsAre200 = "the count of rows at offset 328 is 200";
  // clang-format off
  const struct {
    U64 offset, value;
    const char* said;
  } rows[] = {
      {0, 0x123456, "not a table: its first bytes"},
      {8, U64{1} << 32 | 0x04030201, "byte-order mark at offset 8 is 0x4030201"},
      {8, U64{2} << 32 | Layout::byteOrderMark, "version at offset 12 is 0x2, not 0x1"},
      {16, 0, "size of header"},
      {40, U64{1000} << 32 | 65536, "length of kind"},
      {64, 'X', "its rows are 'X"},
      {sizeAt, ~U64{0}, "size in use"},
      {sizeAt, head(sizeAt) + 1, "size in use"},
      {sizeAt, Layout::areasOffset, "size in use"},
      {indexAt, ~U64{0}, "index of 2^63 words"},
      {indexAt, 0, "index of 2^0 words"},
      {indexAt, head(indexAt) + (U64{1} << 36), "index of 2^11"},
      {rowsAt, 7, "count of rows"},
      {changesAt, 3, "has change number"},
      {Layout::ringOffset + 16, 99, "ring entry at offset 4112 has number 99, not 1"},
      {index.area, 0, "no area at offset 1052672"},
      {index.area + 8, 1, "no area at offset 1052672"},
      {index.area + 8, 3, "is in no area of its own"},
      {nextArea, ~U64{0} << 12, "no area at offset"},
      {nextArea + 8, 1 | 33 << 8, "no area at offset"},
      {first, ~U64{0}, "points to"},
      {first, head(first) + 1, rowsAre200},
      {first, head(first) & 0xffffffffff, "index word"},
      {first, 2, "points to 32,"},
      {first, Layout::emptyWord, rowsAre200},
      {index.words() + 1023 * 8, head(first), "two words of the index"},
      {slot, 0, "is being written"},
      {slot + 8, 77777, "is not that of key 0x12fd1"},
      {slot + 16, 1 << 24, "has a row of 16777216 bytes, the object has"},
      {slot + 16, ~U64{0}, "has a row of 4294967295 bytes"},
      {slot + 16, head(slot + 16) ^ 1, "checksum of the row"},
      {slot + 24, ~U64{0}, "checksum of the row"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.said);
    const U64 sound = head(row.offset);
    Layout::store(image + row.offset, row.value);
    EXPECT_THAT(complaintsOf(name), HasSubstr(row.said));
    Layout::store(image + row.offset, sound);
  }
  EXPECT_EQ(complaintsOf(name), "");
  const U64 used = head(sizeAt);
  for (const U64 cut : {used, used - 1, U64{70000}, U64{4096}, U64{4095}, U64{0}}) {
    ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(cut)), 0);
    const auto open = [&] { TestReader reader(::dup(fd), "cut"); };
    if (cut == used)
      EXPECT_NO_THROW(open());
    else
      EXPECT_THROW(open(), TableException) << cut;
  }
  ::close(fd);
}

namespace {
struct OtherRecord : TestRecord {
  static constexpr std::string_view tableKind = "OtherRecord";
};
struct LongerRecord : TestRecord {
  U32 serializeLen() const { return TestRecord::serializeLen() + 2; }
};
}  // namespace

// Catches an object of somebody else that is taken for a table, or overwritten, a row that is
// given although it is no record, a mode that the umask narrows, and a table that is removed
// under its reader.
TEST(TableOpen, refusalsModeAndRemoval) {
  const TestName name("refused");
  const auto expectSaid = [](const auto& call, const std::string& text) {
    EXPECT_THAT(call, testing::ThrowsMessage<Kop::Exception>(HasSubstr(text)));
  };
  const auto read = [&] { TestReader reader(name); };
  const auto write = [&] { TestWriter writer(name); };
  expectSaid(read, "shm_open: No such file");
  fill(name);
  const std::string other = "its rows are 'TestRecord', not 'OtherRecord'";
  expectSaid([&] { Quarn::TableReader<OtherRecord> reader(name); }, other);
  expectSaid([&] { Quarn::TableWriter<OtherRecord> writer(name); }, other);
  const mode_t before = ::umask(077);
  for (const mode_t mode : {0640u, 0604u}) {
    TestWriter writer(name, {.mode = mode, .owner = ::geteuid(), .group = ::getegid()});
    EXPECT_EQ(writer.rowCount(), rowCount);
    EXPECT_EQ(std::filesystem::status(name.path()).permissions(),
              std::filesystem::perms(mode));
    expectSaid(write, "has a live writer, process " + std::to_string(::getpid()));
    TestRecord huge{1, 1, 17 << 20};
    expectSaid([&] { writer.rowIs(1, huge); }, "at most 16777216");
  }
  ::umask(before);
  LongerRecord longer;
  Quarn::TableWriter<LongerRecord>(name).rowIs(1, longer);
  const TestReader reader(name);
  expectSaid([&] { reader.row(1, longer); }, "its length is not that of its content");
  const int fd = ::open(name.path().c_str(), O_RDWR);
  const U64 wrong = ~U64{0};
  ASSERT_EQ(::pwrite(fd, &wrong, 8, static_cast<off_t>(Layout::areasOffset + 64)), 8);
  expectSaid(write, "corrupt: index word");
  ASSERT_EQ(::pwrite(fd, "GIF89a..", 8, 0), 8);
  ::close(fd);
  expectSaid(write, "not a table");
  expectSaid(read, "not a table");
  EXPECT_FALSE(reader.isRemoved());
  EXPECT_TRUE(TestWriter::remove(name));
  EXPECT_FALSE(TestWriter::remove(name));
  EXPECT_TRUE(reader.isRemoved());

  for (const std::string& bad : {""s, "/"s, "table"s, "//"s, "/a/b"s, "/."s, "/.."s,
                                 "/a\0b"s, std::string(256, '/')}) {
    EXPECT_THROW(TestReader{bad}, Kop::RangeException) << bad;
    EXPECT_THROW(TestWriter{bad}, Kop::RangeException) << bad;
  }
}

// Catches a walk that goes on over rows that are no longer where it is.
TEST(TableDeath, walkThatAddsRows) {
  const TestName name("walk");
  TestWriter writer(name);
  writer.rowIs(0, {});
  const auto addRows = [&](U64, const TestRecord&) {
    for (U64 key = 1; key < 1000; ++key)
      writer.rowIs(key, {});
  };
  EXPECT_DEATH(writer.forEachRow(addRows), "generation == writer.generation");
}
