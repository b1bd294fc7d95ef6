#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Toggle/Toggle.h"

namespace fs = std::filesystem;

class ToggleFile : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "toggle-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    directory = pattern;
    setenv("TOGGLE_DIR", directory.c_str(), 1);
  }
  void TearDown() override {
    unsetenv("TOGGLE_DIR");
    fs::remove_all(directory);
  }
  void contentsIs(std::string_view contents) {
    std::ofstream file(directory / "T.json", std::ios::binary);
    file << contents;
  }
  fs::path directory;
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
  EXPECT_FALSE(getToggleState("", "T.json", false));
  contentsIs("{}");
  EXPECT_FALSE(getToggleState("A", "T.json", false));
  contentsIs("{\"A\":false}");
  EXPECT_FALSE(getToggleState("A", "T.json", true));
  setenv("TOGGLE_DIR", "/nonexistent/directory", 1);
  EXPECT_TRUE(getToggleState("A", "T.json", true));
}

// Catches a damaged file that is taken in part, and an error that sends its reader to the
// wrong place.
TEST_F(ToggleFile, malformedFilesAreRefusedWithTheirPlace) {
  constexpr std::string_view textBehindNul("{\"A\": true}\n\0x", 14);
  const struct {
    std::size_t line, column;
    const char* reason;
    std::string_view contents;
  } rows[] = {
      {1, 1,  "not JSON",                            ""                                           },
      {1, 2,  "not JSON",                            "{"                                          },
      {3, 1,  "not JSON",                            "{\n  \"A\": true,\n}"                       },
      {2, 9,  "not JSON",                            "{\n\"A\": tru}"                             },
      {1, 4,  "not JSON",                            "{\"A\n\": true}"                            },
      {1, 3,  "not JSON",                            "{\"\xff\": true}"                           },
      {1, 1,  "not JSON",                            "\xef\xbb\xbf{}"                             },
      {1, 1,  "not a JSON object",                   "[]"                                         },
      {1, 26, "the value of \"C\" is not a boolean", "{\"A\\nB\": true, \"\\u0043\": 1}"          },
      {3, 3,  "the value of \"B\" is not a boolean",
       "{\"A\": true,\n \"B\":\n  \"true\"}"                                                      },
      {1, 7,  "the value of \"A\" is not a boolean", "{\"A\": [[[[true]]]]}"                      },
      {1, 7,  "the value of \"A\" is not a boolean", "{\"A\": 1e999999}"                          },
      {3, 13, "\"A\" stands here again",             "{\"A\": true,\n\n\"B\": false, \"A\": true}"},
      {2, 1,  "text behind the object",              "{}\n{}"                                     },
      {2, 1,  "text behind the object",              textBehindNul                                },
  };
  const std::string path = (directory / "T.json").string();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.contents);
    contentsIs(row.contents);
    for (const char* name : {"A", "another"}) {
      try {
        getToggleState(name, "T.json", true);
        ADD_FAILURE() << "taken";
      } catch (const Toggle::MalformedFileException& error) {
        const std::string head = path + ":" + std::to_string(row.line) + ":" +
                                 std::to_string(row.column) + ": " + row.reason;
        EXPECT_EQ(std::string(error.what()).substr(0, head.size()), head) << error.what();
        EXPECT_EQ(error.line(), row.line);
        EXPECT_EQ(error.column(), row.column);
      }
    }
  }
  // Nothing of the failure is kept.
  contentsIs("{\"A\": true}");
  EXPECT_TRUE(getToggleState("A", "T.json", false));
}

// Catches a file that is there but cannot be read and counts as absent.
TEST_F(ToggleFile, unreadableIsNotAbsent) {
  fs::create_directory(directory / "T.json");
  fs::create_symlink("loop", directory / "loop");
  std::ofstream(directory / "plain") << "{}";
  const std::pair<const char*, const char*> rows[] = {
      {"T.json",       "Is a directory"                   },
      {"loop",         "Too many levels of symbolic links"},
      {"plain/T.json", "Not a directory"                  },
  };
  for (const auto& row : rows)
    EXPECT_THAT(
        [&] { getToggleState("A", row.first, true); },
        testing::ThrowsMessage<std::runtime_error>((directory / row.first).string() +
                                                   ":0:0: cannot read: " + row.second));
}
