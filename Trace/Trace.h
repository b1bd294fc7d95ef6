#pragma once

#include <atomic>
#include <concepts>
#include <functional>
#include <string>
#include <string_view>

// Marks what libTrace shows to others; everything else is hidden by the build.
#define TRACE_EXPORT [[gnu::visibility("default")]]

// Lines for whoever looks at a running process. Each handle has a level, off by default; a
// line of level n is written when the handle's level is n or above.
//
// The environment sets levels at start: TRACE="default/8" or "default/8,tables/3". An entry
// that cannot be read is named on standard error and passed over.
//
//   Trace::defaultHandle().line(8, [&] { return describe(entry); });
//
// Threads  everything here: any thread. A change of level is seen by other threads soon.

namespace Trace {

class TRACE_EXPORT Handle {  // a name for lines, and up to which level
 public:
  static constexpr int off = -1;

  Handle(std::string name, int level) : name_(std::move(name)), level_(level) {}
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  const std::string& name() const { return name_; }
  int level() const { return level_.load(std::memory_order_relaxed); }
  void levelIs(int level) { level_.store(level, std::memory_order_relaxed); }
  bool enabled(int level) const { return level <= this->level(); }

  void line(int level, std::string_view text) const {
    if (enabled(level)) [[unlikely]]
      write(level, text);
  }
  // The text is only built when the level is on.
  template <std::invocable Text>
  void line(int level, const Text& text) const {
    if (enabled(level)) [[unlikely]]
      write(level, text());
  }

 private:
  void write(int level, std::string_view text) const;

  const std::string name_;
  std::atomic<int> level_;
};

// Handles are made at their first use and live as long as the process.
TRACE_EXPORT Handle& handle(std::string_view name);
TRACE_EXPORT Handle& defaultHandle();  // handle("default")

// Where lines go; an empty one stands for standard error, as "<name>/<level> <text>\n" in one
// write. Lines of several threads reach it one after the other, so it must not trace. Returns
// the sink before.
using Sink = std::function<void(const Handle& handle, int level, std::string_view text)>;
TRACE_EXPORT Sink sinkIs(Sink sink);

}  // namespace Trace
