#include "apps/tunnelctl/Session.h"

#include <algorithm>
#include <cstdlib>

#include "Hivel/Exception.h"
#include "Kop/Exception.h"

namespace Tunnelctl {

std::string defaultSocketPath() {
  const char* const path = std::getenv("HIVEL_SOCKET");
  return path && *path ? path : "/run/hivel/hivel.sock";
}

Session::Session(const Context& context)
    : context_(context), client_([&] {
        Hivel::ClientOptions options;
        options.socketPath = context.socketPath;
        options.name = "tunnelctl";
        return options;
      }()) {
  using State = Hivel::Client::State;
  client_.wait([&] { return client_.state() != State::connecting; }, context.timeout);
  if (client_.state() == State::connected) return;
  const std::string reason =
      client_.state() == State::connecting ? "no answer" : client_.reason();
  throw Failure("no state database at " + printable(context.socketPath) + ": " + reason);
}

std::vector<Hivel::PathInfo> Session::paths(std::string_view prefix) {
  try {
    auto paths = client_.listAndWait(readPrefix(prefix), context_.timeout);
    std::sort(paths.begin(), paths.end(),
              [](const auto& a, const auto& b) { return naturalLess(a.path, b.path); });
    return paths;
  } catch (const Hivel::RefusedException& error) {
    throw Failure(error.what());
  }
}

void Session::settle(const std::vector<Hivel::Mount*>& mounts) {
  const auto allSettled = [&] {
    return std::all_of(mounts.begin(), mounts.end(),
                       [](auto* m) { return m->settled(); });
  };
  client_.wait(allSettled, context_.timeout);
  for (const Hivel::Mount* mount : mounts) {
    if (mount->state() == Hivel::Mount::State::refused)
      throw Failure(mount->path() + ": " + mount->reason());
    if (!mount->settled())
      throw Failure(mount->path() + ": the server did not answer in time");
  }
}

void Session::sync() {
  if (!client_.syncAndWait(context_.timeout))
    throw Failure("the server did not confirm in time what was written");
}

std::string readPrefix(std::string_view text) {
  while (text.starts_with('/'))
    text.remove_prefix(1);
  while (text.ends_with('/'))
    text.remove_suffix(1);
  try {
    Hivel::checkPrefix(text);
  } catch (const Kop::RangeException& error) {
    throw UsageError(std::string("PATH: ") + error.what());
  }
  return std::string(text);
}

}  // namespace Tunnelctl
