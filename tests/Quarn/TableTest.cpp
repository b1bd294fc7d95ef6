#include <cstdlib>
#include <map>
#include <memory>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TableRecord.h"

using Quarn::RowState;
using Quarn::TableException;
using testing::HasSubstr;

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
