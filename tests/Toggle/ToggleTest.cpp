#include "Toggle/Toggle.h"
#include "tests/Support/Process.h"
#include "tests/Support/Rows.h"
#include "tests/Support/Testing.h"

struct ToggleFile : testing::Test {
  ToggleFile() { setenv("TOGGLE_DIR", directory.path().c_str(), 1); }
  ~ToggleFile() override { unsetenv("TOGGLE_DIR"); }
  void contentsIs(std::string_view contents) const {
    std::ofstream(path, std::ios::binary) << contents;
  }
  const Support::TempDir directory;
  const std::string path = directory.path("T.json");
};

// Catches an answer that is kept from an earlier call, and a default that hides a toggle.
TEST_F(ToggleFile, statesAndDefaults) {
  EXPECT_TRUE(getToggleState("A", "T.json", true));  // no file
  EXPECT_FALSE(getToggleState("A", "T.json", false));
  contentsIs(" {\"A\" : true,\r\n\t\"B\":false, \"\\u00e4\": true } \n");
  EXPECT_TRUE(getToggleState("A", "T.json", false));
  EXPECT_FALSE(getToggleState("B", "T.json", true));
  EXPECT_TRUE(getToggleState("ä", "T.json", false));  // names are compared unescaped
  EXPECT_TRUE(getToggleState("a", "T.json", true));
  contentsIs("{\"A\":false}");
  EXPECT_FALSE(getToggleState("A", "T.json", true));
  setenv("TOGGLE_DIR", "/nonexistent/directory", 1);
  EXPECT_TRUE(getToggleState("A", "T.json", true));
}

// Catches a damaged file that is taken in part, and an error that sends its reader to the
// wrong place.
TEST_F(ToggleFile, malformedFilesAreRefusedWithTheirPlace) {
  auto rows = Support::rowsIn("Toggle/malformed.txt");
  rows.push_back({"1:3", "not JSON", "{\"\xff\": true}"});
  rows.push_back({"1:1", "not JSON", "\xef\xbb\xbf{}"});
  rows.push_back({"2:1", "text behind the object", std::string("{}\n\0x", 5)});
  for (const auto& row : rows) {
    SCOPED_TRACE(row[2]);
    contentsIs(row[2]);
    for (const char* name : {"A", "another"})
      try {
        getToggleState(name, "T.json", true);
        ADD_FAILURE() << "taken";
      } catch (const Toggle::MalformedFileException& error) {
        EXPECT_THAT(error.what(),
                    testing::StartsWith(path + ":" + row[0] + ": " + row[1]));
        EXPECT_EQ(std::to_string(error.line()) + ":" + std::to_string(error.column()),
                  row[0]);
      }
  }
  contentsIs("{\"A\": true}");  // nothing of the failure is kept
  EXPECT_TRUE(getToggleState("A", "T.json", false));
}

// Catches a file that is there but cannot be read and counts as absent.
TEST_F(ToggleFile, unreadableIsNotAbsent) {
  std::filesystem::create_directory(path);
  std::ofstream(directory.path("plain")) << "{}";
  const std::pair<const char*, const char*> rows[] = {
      {"T.json",       "Is a directory" },
      {"plain/T.json", "Not a directory"},
  };
  for (const auto& row : rows) {
    const auto error = directory.path(row.first) + ":0:0: cannot read: " + row.second;
    EXPECT_THAT([&] { getToggleState("A", row.first, true); },
                testing::ThrowsMessage<std::runtime_error>(error));
  }
}
