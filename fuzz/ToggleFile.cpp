#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "Check.h"
#include "Toggle/Toggle.h"

// A toggle file. Either it is refused for every name and default alike, or a toggle that
// stands in it does not depend on the default.

namespace {

// The directory of this process, gone with it.
struct Folder {
  std::filesystem::path path;
  Folder() {
    char name[] = "/tmp/togglesXXXXXX";
    FUZZ_CHECK(::mkdtemp(name));
    path = name;
    ::setenv("TOGGLE_DIR", name, 1);
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
};

enum class Answer { off, on, refused };

Answer ask(const char* name, bool dflt) {
  try {
    return getToggleState(name, "file.json", dflt) ? Answer::on : Answer::off;
  } catch (const Toggle::MalformedFileException&) {
    return Answer::refused;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static const Folder folder;
  std::ofstream(folder.path / "file.json", std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(bytes), static_cast<std::streamsize>(size));
  const Answer on = ask("A", true), off = ask("A", false);
  FUZZ_CHECK((on == Answer::refused) == (off == Answer::refused));
  FUZZ_CHECK(on == off || (on == Answer::on && off == Answer::off));
  FUZZ_CHECK((ask("no such toggle", true) == Answer::refused) == (on == Answer::refused));
  return 0;
}
