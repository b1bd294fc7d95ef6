#pragma once

// What nearly every test uses.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Support {

// The step of tests that do something many times: under a sanitizer, where it takes ten times as
// long, they do a part of it.
inline constexpr int stride = HOUSE_SANITIZED ? 7 : 1;

}  // namespace Support
