#include <gtest/gtest.h>

#include "Harness.h"
#include "Hivel/Database.h"
#include "Hivel/Exception.h"

namespace HivelTest {
namespace {

// Catches a path that is taken although it breaks the grammar, or refused although it keeps
// it, and an error that does not say which path was meant.
TEST(PathGrammar, acceptsWhatItShould) {
  for (const char* path :
       {"a", "tunnel/decap/config", "A.b_c-9", "a/b/c/d/e", "..", "-/_"})
    EXPECT_NO_THROW(Hivel::checkPath(path)) << path;
  EXPECT_NO_THROW(Hivel::checkPrefix(""));
}
TEST(PathGrammar, saysWhatIsWrong) {
  // clang-format off
  const struct {
    std::string path, message;
  } rows[] = {
      {"", "path '' is empty"},
      {"/a", "path '/a' begins with '/'"},
      {"a/", "path 'a/' ends with '/'"},
      {"a//b", "path 'a//b' has an empty part"},
      {"a b", "path 'a b' has a byte other than"},
      {"a\n", "path 'a\\n' has a byte other than"},
      {std::string("a\0b", 3), "path 'a\\x00b' has a byte other than"},
      {"a/\xc3\xa4", "has a byte other than"},
      {std::string(1025, 'a'), "longer than 1024 bytes"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    try {
      Hivel::checkPath(row.path);
      ADD_FAILURE() << "accepted";
    } catch (const Kop::RangeException& e) {
      EXPECT_NE(std::string(e.what()).find(row.message), std::string::npos) << e.what();
    }
  }
}

// Catches a prefix that covers a neighbour with the same beginning, and a list that stops at
// one that stands between.
TEST(DatabaseList, coversWholePartsOnly) {
  Database db;
  for (const char* path : {"a/b", "a", "a-x", "ab", "a/b/c", "b"})
    db.mount(path, Plot::PlotIs("p"));
  const auto paths = [&](const char* prefix) {
    std::string text;
    for (const auto& info : db.list(prefix))
      text += info.path + " ";
    return text;
  };
  EXPECT_EQ(paths("a"), "a a/b a/b/c ");
  EXPECT_EQ(paths("a/b"), "a/b a/b/c ");
  EXPECT_EQ(paths(""), "a a-x a/b a/b/c ab b ");
  EXPECT_EQ(paths("c"), "");
  EXPECT_EQ(db.list("b").at(0).type, "Garden::Plot");
}

// Catches a second entity that takes a mounted path, and a lost or doubled event.
TEST(DatabaseMount, holdsOneEntityPerPathAndTells) {
  Database db;
  std::string told;
  const auto id = db.watch("x", [&](const Database::Event& event) {
    told += (event.mounted ? "+" : "-") + event.path;
    EXPECT_TRUE(event.entity);
  });
  const auto plot = Plot::PlotIs("p");
  db.mount("x/1", plot);
  db.mount("xy", plot);
  EXPECT_THROW(db.mount("x/1", Shed::ShedIs("s")), Hivel::RefusedException);
  EXPECT_THROW(db.mount("x/2", nullptr), Kop::RangeException);
  EXPECT_EQ(db.find("x/1"), plot);
  EXPECT_TRUE(db.unmount("x/1"));
  EXPECT_FALSE(db.unmount("x/1"));
  EXPECT_EQ(db.find("x/1"), nullptr);
  db.unwatch(id);
  db.mount("x/1", plot);
  EXPECT_EQ(told, "+x/1-x/1");
}

// Catches a watcher that is called after it was removed, or while the list moves under it.
TEST(DatabaseMount, watchersMayChangeEverything) {
  Database db;
  Database::WatchId second = 0;
  U32 seconds = 0, nested = 0;
  const auto first = db.watch("", [&](const Database::Event& event) {
    db.unwatch(second);
    if (event.path == "a") db.mount("b", event.entity);
    db.watch("", [&](const Database::Event&) { ++nested; });
  });
  second = db.watch("", [&](const Database::Event&) { ++seconds; });
  db.mount("a", Plot::PlotIs("p"));
  EXPECT_EQ(seconds, 0u);
  EXPECT_EQ(db.count(), 2u);
  db.unwatch(first);
  const U32 before = nested;
  db.unmount("b");
  EXPECT_EQ(nested, before + 2);  // one watcher was added per event
}

}  // namespace
}  // namespace HivelTest
