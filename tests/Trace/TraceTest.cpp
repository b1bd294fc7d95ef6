#include "Trace/Trace.h"
#include "tests/Support/Testing.h"

// Catches a text that is built although nobody wants it, and levels that are off by one.
TEST(TraceTest, textIsOnlyBuiltWhenItsLevelIsOn) {
  std::string lines;
  Trace::sinkIs([&](const Trace::Handle& handle, int level, std::string_view text) {
    lines += handle.name() + "/" + std::to_string(level) + " " + std::string(text) + "; ";
  });
  auto& handle = Trace::defaultHandle();
  int built = 0;
  const auto text = [&] { return "line " + std::to_string(++built); };
  handle.line(0, text);
  handle.levelIs(8);
  handle.line(9, text);
  EXPECT_EQ(built, 0);
  handle.line(8, text);
  handle.line(0, text);
  handle.line(8, "plain");
  EXPECT_EQ(lines, "default/8 line 1; default/0 line 2; default/8 plain; ");
  EXPECT_EQ(&handle, &Trace::handle("default"));
  Trace::sinkIs({});
  handle.levelIs(Trace::Handle::off);
}

// Catches a handle that does not get its level from the environment, an entry that spoils
// the others, and a default sink that writes elsewhere. Each row runs in a process of its
// own, because the environment is read once.
TEST(TraceEnvironmentDeathTest, levels) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const struct {
    const char* environment;
    int defaultLevel, tables;
    const char* output;
  } rows[] = {
      {"",                                -1, -1, "^$"                                 },
      {"tables/3,default/9",              9,  3,  "^default/8 text\n$"                 },
      {"default/3,default/8,tables/0",    8,  0,  "^default/8 text\n$"                 },
      {"default,tables/5",                -1, 5,
       "^TRACE: cannot read \"default\", want <name>/<level>\n$"                       },
      {"default/8x,tables/-1",            -1, -1, "\"default/8x\".*\n.*\"tables/-1\""  },
      {"/8,default/99999999999,tables/5", -1, 5,  "\"/8\".*\n.*\"default/99999999999\""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.environment);
    setenv("TRACE", row.environment, 1);
    EXPECT_EXIT(
        {
          Trace::defaultHandle().line(8, "text");
          const bool isRight = Trace::defaultHandle().level() == row.defaultLevel &&
                               Trace::handle("tables").level() == row.tables;
          std::_Exit(isRight ? 0 : 1);
        },
        testing::ExitedWithCode(0), row.output);
  }
  unsetenv("TRACE");
}

// Catches a sink that is entered twice at once, a line that is lost, and a handle that exists
// twice because two threads asked for it.
TEST(TraceThreads, linesReachTheSinkOneByOne) {
  constexpr int threadCount = 4, linesPerThread = 2000;
  int inside = 0, overlaps = 0, count = 0;  // the sink itself is what protects them
  std::set<const Trace::Handle*> handles;
  Trace::sinkIs([&](const Trace::Handle& handle, int, std::string_view) {
    overlaps += ++inside != 1;
    ++count;
    handles.insert(&handle);
    --inside;
  });
  std::atomic<bool> stop{false};
  std::thread flipper([&] {
    while (!stop)
      for (const int level : {8, 5})
        Trace::handle("threads").levelIs(level);
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < threadCount; ++t)
    threads.emplace_back([] {
      auto& handle = Trace::handle("threads");
      if (handle.level() < 5) handle.levelIs(5);
      for (int i = 0; i < linesPerThread; ++i)
        handle.line(5, [i] { return std::to_string(i); });
    });
  for (auto& thread : threads)
    thread.join();
  stop = true;
  flipper.join();
  Trace::sinkIs({});
  EXPECT_EQ(overlaps, 0);
  EXPECT_EQ(count, threadCount * linesPerThread);
  EXPECT_EQ(handles.size(), 1u);
}
