#include "Trace/Trace.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>

namespace Trace {

namespace {

void toStandardError(const Handle& handle, int level, std::string_view text) {
  std::string line = handle.name() + "/" + std::to_string(level) + " ";
  line += text;
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stderr);
}

// Everything there is one of. Never destroyed: other objects trace in their destructors.
class Registry {
 public:
  static Registry& get() {
    static Registry& registry = *new Registry;
    return registry;
  }

  Handle& handle(std::string_view name) {
    const std::lock_guard lock(handlesMutex_);
    const auto found = handles_.find(name);
    if (found != handles_.end()) return *found->second;
    const auto level = levels_.find(name);
    auto handle = std::make_unique<Handle>(
        std::string(name), level == levels_.end() ? Handle::off : level->second);
    return *handles_.emplace(name, std::move(handle)).first->second;
  }

  Sink sinkIs(Sink sink) {
    const std::lock_guard lock(sinkMutex_);
    std::swap(sink, sink_);
    return sink;
  }

  void write(const Handle& handle, int level, std::string_view text) {
    const std::lock_guard lock(sinkMutex_);
    if (sink_)
      sink_(handle, level, text);
    else
      toStandardError(handle, level, text);
  }

 private:
  Registry() {
    const char* levels = std::getenv("TRACE");
    if (!levels) return;
    for (std::string_view rest = levels; !rest.empty();) {
      const std::size_t comma = rest.find(',');
      const std::string_view entry = rest.substr(0, comma);
      rest.remove_prefix(comma == rest.npos ? rest.size() : comma + 1);
      if (!entryIs(entry))
        std::fprintf(stderr, "TRACE: cannot read \"%.*s\", want <name>/<level>\n",
                     static_cast<int>(entry.size()), entry.data());
    }
  }

  bool entryIs(std::string_view entry) {
    const std::size_t slash = entry.rfind('/');
    if (slash == entry.npos || slash == 0) return false;
    int level = 0;
    const char* end = entry.data() + entry.size();
    const auto [at, error] = std::from_chars(entry.data() + slash + 1, end, level);
    if (error != std::errc{} || at != end || level < 0) return false;
    levels_.insert_or_assign(std::string(entry.substr(0, slash)), level);
    return true;
  }

  std::mutex handlesMutex_;
  std::map<std::string, std::unique_ptr<Handle>, std::less<>> handles_;
  std::map<std::string, int, std::less<>> levels_;  // of the environment

  std::mutex sinkMutex_;
  Sink sink_;
};

}  // namespace

void Handle::write(int level, std::string_view text) const {
  Registry::get().write(*this, level, text);
}

Handle& handle(std::string_view name) {
  return Registry::get().handle(name);
}

Handle& defaultHandle() {
  static Handle& handle = Trace::handle("default");
  return handle;
}

Sink sinkIs(Sink sink) {
  return Registry::get().sinkIs(std::move(sink));
}

}  // namespace Trace
