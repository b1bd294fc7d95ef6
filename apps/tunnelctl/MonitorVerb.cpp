#include <algorithm>
#include <csignal>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <ostream>
#include <set>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "Kop/Exception.h"
#include "apps/tunnelctl/Monitor.h"
#include "apps/tunnelctl/Session.h"
#include "apps/tunnelctl/Verbs.h"

namespace Tunnelctl {

namespace {

using Clock = std::chrono::steady_clock;
using Mount = Hivel::Mount;

// Local time of day for people, UTC for programs.
std::string timestamp(bool isJson) {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  std::tm parts{};
  if (isJson)
    gmtime_r(&seconds, &parts);
  else
    localtime_r(&seconds, &parts);
  char text[40];
  const std::size_t size =
      std::strftime(text, sizeof text, isJson ? "%Y-%m-%dT%H:%M:%S" : "%H:%M:%S", &parts);
  const auto fraction =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()) %
      std::chrono::seconds(1);
  char rest[8];
  std::snprintf(rest, sizeof rest, ".%03d", static_cast<int>(fraction.count()));
  return std::string(text, size) + rest + (isJson ? "Z" : "");
}

// Takes the signals that ask a process to end, as long as it stands: they then make fd()
// readable.
class StopSignals {
 public:
  StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, &before_);
    fd_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd_ < 0) throw Failure("signalfd failed");
  }
  ~StopSignals() {
    signalfd_siginfo taken;
    while (read(fd_, &taken, sizeof taken) > 0) {
    }
    close(fd_);
    sigprocmask(SIG_SETMASK, &before_, nullptr);
  }
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  int fd() const { return fd_; }

 private:
  sigset_t before_{};
  int fd_ = -1;
};

// Mounts every path below a prefix and tells what becomes of it: first what is there, then a
// mark, then each change.
class Monitor {
 public:
  Monitor(const Context& context, const MonitorOptions& options)
      : context_(context), options_(options), session_(context) {}

  int run() {
    const std::string prefix = readPrefix(options_.prefix);
    for (const Hivel::PathInfo& info : session_.paths(prefix))
      follow(info);
    session_.client().watch(prefix, [this](const Hivel::PathInfo& info, bool appeared) {
      if (appeared)
        follow(info);
      else
        leave(info.path);
    });
    session_.client().onState = [this](Hivel::Client::State state,
                                       const std::string& reason) {
      connectionChanged(state, reason);
    };
    const auto begin = Clock::now();
    while (!isOver(begin)) {
      while (session_.client().wants())
        session_.client().process();
      markWhenSettled(Clock::now() - begin > context_.timeout);
      context_.out.flush();
      if (isOver(begin)) break;
      if (!waitUntil(begin)) break;
      session_.client().process();
    }
    if (!options_.stateFile.empty()) writeState();
    context_.out.flush();
    return 0;
  }

 private:
  struct Followed {
    Mount* mount = nullptr;
    ChangeSink sink;
    std::unique_ptr<EntityWatch> watch;
    bool toldOfEntity = false;
  };

  bool isOver(Clock::time_point begin) const {
    if (options_.count && marked_ && changes_ >= *options_.count) return true;
    return options_.limit && Clock::now() - begin >= *options_.limit;
  }

  // Until the client or the stop descriptor is readable. False when asked to stop.
  bool waitUntil(Clock::time_point begin) {
    pollfd fds[2] = {
        {session_.client().fd(), POLLIN, 0},
        {stop_.fd(),             POLLIN, 0}
    };
    int timeout = marked_ ? -1 : 100;
    if (options_.limit) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(
          *options_.limit - (Clock::now() - begin));
      const int milliseconds =
          static_cast<int>(std::clamp<long>(left.count(), 0, 3600 * 1000));
      timeout = timeout < 0 ? milliseconds : std::min(timeout, milliseconds);
    }
    poll(fds, 2, timeout);  // an interrupted wait is a wait that ended early
    return (fds[1].revents & POLLIN) == 0;
  }

  void follow(const Hivel::PathInfo& info) {
    if (followed_.contains(info.path)) return;
    Followed& followed = followed_[info.path];
    followed.sink = [this, path = info.path](const Change& change) {
      tell(path, change);
    };
    Hivel::MountOptions options;
    if (Kop::findType(info.type)) {
      options.type = info.type;
    } else {
      note(info.path, "skipped",
           "type " + info.type + " is not known here; --types loads it");
      return;
    }
    followed.mount = &session_.client().mount(info.path, Hivel::Mode::read, options);
    followed.mount->onState = [this](Mount& mount) { mountChanged(mount); };
    mountChanged(*followed.mount);
  }

  void leave(const std::string& path) {
    const auto found = followed_.find(path);
    if (found == followed_.end()) return;
    const bool wasTold = found->second.toldOfEntity;
    if (found->second.mount) session_.client().unmount(path);
    followed_.erase(found);
    if (wasTold && marked_) {
      note(path, "removed", "");
      ++changes_;
    }
  }

  void mountChanged(Mount& mount) {
    const auto found = followed_.find(mount.path());
    if (found == followed_.end() || found->second.mount != &mount) return;
    Followed& followed = found->second;
    if (mount.state() == Mount::State::refused) {
      note(mount.path(), "refused", mount.reason());
      return;
    }
    if (mount.state() != Mount::State::live || !marked_) return;
    if (followed.watch && followed.watch->entity() == mount.entity()) return;
    followed.watch.reset();
    note(mount.path(), followed.toldOfEntity ? "replaced" : "appeared",
         std::string(typeOf(*mount.entity()).name));
    ++changes_;
    watch(followed, true);
  }

  void watch(Followed& followed, bool tellContents) {
    followed.toldOfEntity = true;
    followed.watch = std::make_unique<EntityWatch>(followed.mount->entity(), "",
                                                   followed.sink, tellContents);
  }

  // The snapshot, once everything that was there at the start has arrived.
  void markWhenSettled(bool timeIsOver) {
    if (marked_) return;
    if (!timeIsOver)
      for (const auto& [path, followed] : followed_)
        if (followed.mount && !followed.mount->settled()) return;
    marked_ = true;
    for (const std::string& path : sortedPaths()) {
      Followed& followed = followed_[path];
      if (!followed.mount || followed.mount->state() != Mount::State::live) continue;
      Kop::Entity& entity = *followed.mount->entity();
      if (context_.style.json) {
        Json event = eventOf(path, "snapshot");
        event.add("state", stateOf(path, entity));
        print(event);
      } else {
        printState(context_.out, context_.style, path, entity);
      }
      watch(followed, false);
    }
    if (context_.style.json)
      print(eventOf("", "mark"));
    else
      context_.out << context_.style.paint(Style::faint, "-- " + timestamp(false) +
                                                             "  changes from here on")
                   << '\n';
  }

  std::vector<std::string> sortedPaths() const {
    std::vector<std::string> paths;
    for (const auto& [path, followed] : followed_)
      paths.push_back(path);
    std::sort(paths.begin(), paths.end(), naturalLess);
    return paths;
  }

  void tell(const std::string& path, const Change& change) {
    ++changes_;
    if (context_.style.json) {
      Json event = eventOf(path, "change");
      Json members = changeJson(change);
      for (std::size_t i = 0; i < members.items.size(); ++i)
        event.add(std::move(members.names[i]), std::move(members.items[i]));
      print(event);
      return;
    }
    context_.out << timestamp(false) << "  " << path << "  "
                 << changeLine(context_.style, change) << '\n';
  }

  // Something about a path as a whole.
  void note(const std::string& path, const char* what, const std::string& detail) {
    if (context_.style.json) {
      Json event = eventOf(path, what);
      if (!detail.empty()) event.add("detail", Json::string(detail));
      print(event);
      return;
    }
    context_.out << timestamp(false) << "  " << path << "  "
                 << context_.style.paint(Style::heading, what)
                 << (detail.empty() ? "" : "  " + detail) << '\n';
  }

  void connectionChanged(Hivel::Client::State state, const std::string& reason) {
    using State = Hivel::Client::State;
    const bool isUp = state == State::connected;
    if (state == State::connecting || isUp == isUp_) return;
    isUp_ = isUp;
    if (context_.style.json) {
      Json event = eventOf("", isUp ? "connected" : "lost");
      if (!isUp) event.add("detail", Json::string(reason));
      print(event);
      return;
    }
    context_.out << context_.style.paint(
                        Style::faint,
                        "-- " + timestamp(false) +
                            (isUp ? "  connected again"
                                  : "  connection lost: " + reason + "; trying again"))
                 << '\n';
  }

  static Json eventOf(const std::string& path, const char* what) {
    Json event = Json::object();
    event.add("time", Json::string(timestamp(true)));
    event.add("event", Json::string(what));
    if (!path.empty()) event.add("path", Json::string(path));
    return event;
  }
  // One event is one line, whatever the style says of JSON's looks.
  void print(const Json& event) { context_.out << writeJson(event, false) << '\n'; }

  // What is held now, as `show -j /` prints it.
  void writeState() const {
    Json records = Json::array();
    for (const std::string& path : sortedPaths()) {
      const Followed& followed = followed_.at(path);
      if (followed.watch) records.push(stateOf(path, *followed.watch->entity()));
    }
    std::ofstream file(options_.stateFile, std::ios::binary | std::ios::trunc);
    printJson(file, context_.style, records);
    file.close();
    if (!file) throw Failure("--state '" + options_.stateFile + "': cannot be written");
  }

  const Context& context_;
  const MonitorOptions& options_;
  StopSignals stop_;
  Session session_;
  std::map<std::string, Followed> followed_;
  bool marked_ = false;
  bool isUp_ = true;
  U64 changes_ = 0;
};

}  // namespace

int monitor(const Context& context, const MonitorOptions& options) {
  try {
    return Monitor(context, options).run();
  } catch (const Kop::Exception& error) {
    throw Failure(error.what());
  }
}

}  // namespace Tunnelctl
