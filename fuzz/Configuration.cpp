#include "apps/tunnelctl/Configuration.h"

#include <string_view>

#include "Check.h"

// A configuration file as a whole: a plan, or an error that names file and line.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  try {
    const auto plan = Tunnelctl::parseConfiguration(text, "file");
    for (const auto& path : plan.paths)
      FUZZ_CHECK(path.remove || path.entity.type);
  } catch (const Tunnelctl::ConfigurationError& error) {
    FUZZ_CHECK(std::string_view(error.what()).starts_with("file:"));
  }
  return 0;
}
