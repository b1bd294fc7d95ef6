#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>

// What every fuzz target has.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

// An input for which this does not hold is a finding.
#define FUZZ_CHECK(expression)                                                      \
  do {                                                                              \
    if (!(expression)) {                                                            \
      std::fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #expression); \
      std::abort();                                                                 \
    }                                                                               \
  } while (false)
