#include "Harness.h"
#include "Hivel/Exception.h"
#include "tests/Support/Testing.h"

namespace HivelTest {
namespace {

// Catches a path that is taken although it breaks the grammar, or refused although it keeps
// it, and an error that does not say which path was meant.
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
      {std::string("a\0b", 3), "path 'a\\x00b' has a byte other than"},
      {std::string(1025, 'a'), "longer than 1024 bytes"},
  };
  // clang-format on
  for (const auto& row : rows)
    EXPECT_THAT([&] { checkPath(row.path); }, testing::ThrowsMessage<Kop::RangeException>(
                                                  testing::HasSubstr(row.message)));
  for (const char* path : {"a", "tunnel/decap/config", "A.b_c-9", "..", "-/_"})
    EXPECT_NO_THROW(checkPath(path)) << path;
  EXPECT_NO_THROW(checkPrefix(""));
}

// Catches a prefix that covers a neighbour with the same beginning, a list that stops at one
// that stands between, a second entity that takes a mounted path, and a lost or doubled event.
TEST(DatabaseMount, holdsOneEntityPerPathListsAndTells) {
  Database db;
  std::string told;
  db.watch("a/b", [&](const Database::Event& event) {
    told += (event.mounted ? "+" : "-") + event.path;
  });
  const auto plot = Plot::PlotIs("p");
  for (const char* path : {"a/b", "a", "a-x", "a/bc", "ab", "a/b/c", "b"})
    db.mount(path, plot);
  const auto paths = [&](const char* prefix) {
    std::string text;
    for (const auto& info : db.list(prefix))
      text += info.path + ":" + info.type.substr(8) + " ";
    return text;
  };
  EXPECT_EQ(paths("a"), "a:Plot a/b:Plot a/b/c:Plot a/bc:Plot ");
  EXPECT_EQ(paths("a/b"), "a/b:Plot a/b/c:Plot ");
  EXPECT_EQ(paths("c"), "");
  EXPECT_EQ(db.list("").size(), 7u);
  EXPECT_THROW(db.mount("a/b", Plot::PlotIs("s")), RefusedException);
  EXPECT_THROW(db.mount("x", nullptr), Kop::RangeException);
  EXPECT_EQ(db.find("a/b"), plot);
  EXPECT_TRUE(db.unmount("a/b"));
  EXPECT_FALSE(db.unmount("a/b"));
  EXPECT_EQ(told, "+a/b+a/b/c-a/b");
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
