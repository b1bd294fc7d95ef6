#include <map>
#include <memory>
#include <random>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Quarn/TableLayout.h"
#include "TableRecord.h"

using Quarn::RowState;
using Quarn::TableException;
using testing::HasSubstr;
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

U32 randomSize(std::mt19937_64& random) {
  const U64 kind = random() % 100;
  if (kind < 80) return random() % 100;
  if (kind < 99) return random() % 3000;
  return random() % 200000;
}

}  // namespace

// Catches a row that is lost, kept, changed or given twice: by a search that ends too early, a
// deletion that cuts a run of the index, an index that is rebuilt, a slot in two uses, a
// recovery that miscounts, a ring that goes on at the wrong place.
TEST(Table, randomOperationsAgreeWithMap) {
  const TestName name("random");
  const U64 seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  Model model, followed;
  auto writer = std::make_unique<TestWriter>(name);
  auto reader = std::make_unique<TestReader>(name);
  U64 since = 0, version = 0, changes = 0;
  for (int step = 0; step < 60000; ++step) {
    const U64 range = step / 10000 % 2 ? 100000 : 300;
    const U64 key = random() % range, what = random() % 1000;
    if (what < 600) {
      const TestRecord record(key, ++version, randomSize(random));
      EXPECT_TRUE(writer->rowIs(key, record));
      EXPECT_FALSE(writer->rowIs(key, record));
      model[key] = record;
      ++changes;
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
      if (random() % 20 == 0) {
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
    if (step % 2000 == 0) {
      ASSERT_EQ(writer->rowCount(), model.size());
      ASSERT_EQ(reader->rowCount(), model.size());
      ASSERT_EQ(reader->changeCount(), changes);
      ASSERT_EQ(walked(*reader), model);
      ASSERT_EQ(walked(*writer), model);
      const Quarn::TableReport report = reader->verify();
      ASSERT_TRUE(report.ok()) << report.faults.front();
      ASSERT_EQ(report.rows, model.size());
    }
  }
}

namespace {

namespace Layout = Quarn::TableLayout;

// The bytes of a table in a file of memory, to be spoilt.
class Image {
 public:
  explicit Image(const std::string& table) : fd_(::memfd_create("image", MFD_CLOEXEC)) {
    const int from = ::shm_open(table.c_str(), O_RDONLY, 0);
    struct stat status {};
    ::fstat(from, &status);
    sound_.resize(static_cast<std::size_t>(status.st_size));
    EXPECT_EQ(::pread(from, sound_.data(), sound_.size(), 0), status.st_size);
    ::close(from);
    EXPECT_EQ(::ftruncate(fd_, status.st_size), 0);
    bytes_ = static_cast<U8*>(
        ::mmap(nullptr, sound_.size(), PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0));
    restore();
  }
  ~Image() {
    ::munmap(bytes_, sound_.size());
    ::close(fd_);
  }
  void restore() { std::memcpy(bytes_, sound_.data(), sound_.size()); }
  U64 size() const { return sound_.size(); }
  U8* at(U64 offset) { return bytes_ + offset; }
  U64 word(U64 offset) const { return Layout::load(bytes_ + offset); }
  int fd() const { return ::dup(fd_); }

 private:
  int fd_;
  std::vector<U8> sound_;
  U8* bytes_;
};

constexpr U64 imageRows = 200;

void fill(std::string_view name) {
  TestWriter writer(name);
  for (U64 key = 0; key < imageRows; ++key)
    writer.rowIs(key, TestRecord(key, key, static_cast<U32>(key)));
  for (U64 key = 0; key < imageRows; key += 5)
    writer.rowIs(key, TestRecord(key, key + 1, 10));
}

// Reads all there is of a spoilt table: whole rows or an exception. Whether something was said.
bool survives(Image& image) {
  bool said = false;
  try {
    const TestReader reader(image.fd(), "image");
    said = !reader.verify().ok();
    const auto see = [](U64 key, const TestRecord& record) {
      EXPECT_TRUE(record.isWhole(key));
    };
    TestRecord record;
    std::vector<U64> keys;
    for (U64 key = 0; key < imageRows; ++key) {
      try {
        const RowState state = reader.row(key, record);
        if (state == RowState::found) see(key, record);
        EXPECT_NE(state, RowState::busy);
      } catch (const TableException&) {
        said = true;
      }
    }
    U64 upTo;
    reader.changedSince(0, keys, upTo);
    reader.stats();
    reader.forEachRow(see);
  } catch (const TableException&) {
    said = true;
  }
  return said;
}

}  // namespace

// Catches a check that was left out, and an offset, a length or a count that is followed: each
// of these is one wrong word, and is named.
TEST(TableCorrupt, eachWrongWordIsNamed) {
  const TestName name("words");
  fill(name);
  Image image(name.text());
  const Layout::Index index =
      Layout::unpackedIndex(image.word(offsetof(Layout::Header, index)));
  U64 first = index.words();
  while (image.word(first) <= Layout::deletedWord)
    first += 8;
  const U64 slot = Layout::slotOf(image.word(first));
  const U64 nextArea = index.area + index.areaSize();
  const auto head = [&](U64 word) { return image.word(word); };
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
    image.restore();
    Layout::store(image.at(row.offset), row.value);
    std::string said;
    try {
      for (const std::string& fault : TestReader(image.fd(), "image").verify().faults)
        said += fault + "\n";
    } catch (const TableException& e) {
      said += e.what();
    }
    EXPECT_THAT(said, HasSubstr(row.said));
    EXPECT_TRUE(survives(image));
  }
  for (const U64 size :
       {U64{0}, U64{1}, U64{4095}, U64{4096}, U64{70000}, image.size() - 4096}) {
    const int fd = ::memfd_create("cut", MFD_CLOEXEC);
    image.restore();
    ASSERT_EQ(::pwrite(fd, image.at(0), size, 0), static_cast<ssize_t>(size));
    const U64 used = image.word(offsetof(Layout::Header, size));
    const auto open = [&] { TestReader reader(fd, "cut"); };
    if (size >= used)
      EXPECT_NO_THROW(open()) << size;
    else
      EXPECT_THROW(open(), TableException) << size;
  }
}

namespace {
struct OtherRecord : TestRecord {
  static constexpr std::string_view tableKind = "OtherRecord";
};
struct LongerRecord : TestRecord {
  using TestRecord::TestRecord;
  U32 serializeLen() const { return TestRecord::serializeLen() + 2; }
};
}  // namespace

// Catches an object of somebody else that is taken for a table, or overwritten, and a row that
// is given although it is no record.
TEST(TableOpen, refusals) {
  const TestName name("refused");
  const auto says = [](const std::string& text) {
    return testing::ThrowsMessage<TableException>(HasSubstr(text));
  };
  const auto read = [&] { TestReader reader(name); };
  const auto write = [&] { TestWriter writer(name); };
  EXPECT_THAT(read, says("shm_open: No such file"));
  fill(name);
  const auto other = says("its rows are 'TestRecord', not 'OtherRecord'");
  EXPECT_THAT([&] { Quarn::TableReader<OtherRecord> reader(name); }, other);
  EXPECT_THAT([&] { Quarn::TableWriter<OtherRecord> writer(name); }, other);
  {
    TestWriter writer(name);
    EXPECT_EQ(writer.rowCount(), imageRows);
    EXPECT_THAT(write, says("has a live writer, process " + std::to_string(::getpid())));
    EXPECT_THAT([&] { writer.rowIs(1, TestRecord(1, 1, 17 << 20)); },
                testing::ThrowsMessage<Kop::Exception>(HasSubstr("at most 16777216")));
  }
  Quarn::TableWriter<LongerRecord>(name).rowIs(1, LongerRecord(1, 1, 1));
  TestRecord record;
  EXPECT_THAT([&] { TestReader(name).row(1, record); },
              says("its length is not that of its content"));
  const int fd = ::shm_open(name.text().c_str(), O_RDWR, 0);
  const U64 wrong = ~U64{0};
  ASSERT_EQ(::pwrite(fd, &wrong, 8, static_cast<off_t>(Layout::areasOffset + 64)), 8);
  EXPECT_THAT(write, says("corrupt: index word"));
  ASSERT_EQ(::pwrite(fd, "GIF89a..", 8, 0), 8);
  ::close(fd);
  EXPECT_THAT(write, says("not a table"));
  EXPECT_THAT(read, says("not a table"));

  for (const std::string& bad : {std::string(), "/"s, "table"s, "//"s, "/a/b"s, "/."s,
                                 "/.."s, "/a\0b"s, std::string(256, '/')}) {
    EXPECT_THROW(TestReader{bad}, Kop::RangeException) << bad;
    EXPECT_THROW(TestWriter{bad}, Kop::RangeException) << bad;
  }
}

// Catches a mode that the umask narrows, and a table that is removed under its reader.
TEST(TableOpen, modeAndRemoval) {
  const TestName name("mode");
  const mode_t before = ::umask(077);
  for (const mode_t mode : {0640u, 0604u}) {
    TestWriter writer(name, {.mode = mode, .owner = ::geteuid(), .group = ::getegid()});
    struct stat status {};
    ASSERT_EQ(::stat(("/dev/shm" + name.text()).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, mode);
  }
  ::umask(before);
  TestReader reader(name);
  EXPECT_FALSE(reader.isRemoved());
  EXPECT_TRUE(TestWriter::remove(name));
  EXPECT_FALSE(TestWriter::remove(name));
  EXPECT_TRUE(reader.isRemoved());
  EXPECT_TRUE(reader.verify().ok());
}

// Catches a change that is half made when memory runs out, or SIGBUS in its place.
TEST(TableGrowth, fullMemoryLeavesTheTableAsItWas) {
  const TestName name("full");
  TestWriter writer(name);
  const TestReader reader(name);
  ::signal(SIGXFSZ, SIG_IGN);
  rlimit was;
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &was), 0);
  const rlimit narrow{4 << 20, was.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &narrow), 0);
  Model model;
  std::string said;
  std::mt19937_64 random(1);
  int refused = 0;
  for (U64 version = 1; refused < 300; ++version) {
    const U64 key = random() % 100000;
    const TestRecord record(key, version, static_cast<U32>(random() % 1500));
    const U64 changes = writer.changeCount();
    try {
      writer.rowIs(key, record);
      model[key] = record;
    } catch (const Kop::Exception& e) {
      said = e.what();
      ++refused;
      ASSERT_EQ(writer.changeCount(), changes);
    }
  }
  EXPECT_THAT(said, HasSubstr("posix_fallocate: File too large"));
  EXPECT_EQ(walked(reader), model);
  // What is there can still be deleted, and its room serves again.
  const auto [key, record] = *model.begin();
  EXPECT_TRUE(writer.rowDel(key));
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &was), 0);
  EXPECT_TRUE(writer.rowIs(key, record));
  EXPECT_TRUE(writer.rowIs(100001, TestRecord(100001, 1, 1000000)));
  model[100001] = TestRecord(100001, 1, 1000000);
  EXPECT_EQ(walked(reader), model);
  const Quarn::TableReport report = reader.verify();
  EXPECT_TRUE(report.ok()) << report.faults.front();
  // All at once: what is given up serves rows of other sizes.
  writer.rowDelAll();
  const U64 used = writer.stats().bytesUsed;
  for (U64 i = 0; i < 5000; ++i)
    writer.rowIs(i, TestRecord(i, 1, 200));
  EXPECT_EQ(writer.stats().bytesUsed, used);
  EXPECT_TRUE(reader.verify().ok());
}

// Catches a follower that is told that it missed nothing.
TEST(TableRing, saysWhenItNoLongerReachesBack) {
  const TestName name("ring");
  TestWriter writer(name);
  const TestReader reader(name);
  for (U64 i = 1; i <= Layout::ringCount + 10; ++i)
    writer.rowIs(i % 3, TestRecord(i % 3, i, 4));
  std::vector<U64> keys;
  U64 upTo = 0;
  EXPECT_FALSE(reader.changedSince(9, keys, upTo));
  EXPECT_EQ(upTo, Layout::ringCount + 10);
  EXPECT_TRUE(reader.changedSince(10, keys, upTo));
  ASSERT_EQ(keys.size(), Layout::ringCount);
  EXPECT_EQ(keys.front(), 11 % 3);
  EXPECT_FALSE(reader.changedSince(upTo + 1, keys, upTo));  // of another table
}

// Catches a walk that goes on over rows that are no longer where it is.
TEST(TableDeath, walkThatAddsRows) {
  const TestName name("walk");
  TestWriter writer(name);
  for (U64 key = 0; key < 700; ++key)
    writer.rowIs(key, TestRecord(key, 1, 8));
  U64 given = 0;
  writer.forEachRow([&](U64 key, const TestRecord&) {
    writer.rowIs(key, TestRecord(key, 2, 600));
    if (key % 2) writer.rowDel(key);
    ++given;
  });
  EXPECT_EQ(given, 700u);
  EXPECT_EQ(writer.rowCount(), 350u);
  EXPECT_DEATH(writer.forEachRow([&](U64 key, const TestRecord&) {
    for (U64 i = 0; i < 1000; ++i)
      writer.rowIs(10000 + key + i, TestRecord(1, 1, 1));
  }),
               "generation == writer.generation");
}
