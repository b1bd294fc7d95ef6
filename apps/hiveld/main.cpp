#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <systemd/sd-daemon.h>

#include "Hivel/Exception.h"
#include "Hivel/Server.h"
#include "Kop/Module.h"

// The state database as a daemon: a database and a server with signal handling. What it
// holds is what clients bring; which types it knows is what --types loads.

namespace {

struct Arguments {
  Hivel::ServerOptions server;
  std::vector<std::string> types;
  bool quiet = false;
};

constexpr int failed = 1, usage = 2;

U32 modeOf(const std::string& text) {
  if (text.empty() || text.size() > 4 || text.find_first_not_of("01234567") != text.npos)
    throw CLI::ValidationError("'" + text + "' is not an octal mode such as 0660");
  return static_cast<U32>(std::stoul(text, nullptr, 8));
}

// The exit status, or -1 to go on.
int parse(int argc, char** argv, Arguments& arguments) {
  CLI::App app{"Keeps the state of many processes and replicates it among them."};
  app.set_version_flag("--version", "hiveld " HIVELD_VERSION);
  Hivel::ServerOptions& server = arguments.server;
  server.socketPath = "/run/hivel/hivel.sock";
  app.add_option("--socket", server.socketPath, "Socket to listen on")
      ->type_name("PATH")
      ->capture_default_str();
  app.add_option("--types", arguments.types,
                 "Shared library whose types can be held; may be given again")
      ->type_name("LIB")
      ->allow_extra_args(false);
  app.add_option_function<std::string>(
         "--mode", [&](const std::string& text) { server.mode = modeOf(text); },
         "Mode of the socket, octal [0660]")
      ->type_name("MODE");
  app.add_option_function<std::string>(
         "--directory-mode",
         [&](const std::string& text) { server.directoryMode = modeOf(text); },
         "Mode of directories made for it, octal [0755]")
      ->type_name("MODE");
  app.add_option_function<std::vector<std::string>>(
         "--allow",
         [&](const std::vector<std::string>& rules) {
           for (const std::string& text : rules) {
             try {
               server.rules.push_back(Hivel::parseRule(text));
             } catch (const Kop::RangeException& e) {
               throw CLI::ValidationError(e.what());
             }
           }
         },
         "Who may do what: PREFIX:UID:RIGHTS, PREFIX and UID may be '*', RIGHTS are r, "
         "w, "
         "rw or -; the first rule that fits decides, and nobody else may do anything; "
         "may "
         "be given again")
      ->type_name("RULE")
      ->allow_extra_args(false);
  app.add_option("--max-connections", server.maxConnections, "Clients at a time")
      ->type_name("N")
      ->check(CLI::Range(1u, 65536u))
      ->capture_default_str();
  app.add_flag("--quiet", arguments.quiet, "Say only what went wrong");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : usage;
  }
  return -1;
}

bool load(const std::vector<std::string>& libraries) {
  for (const std::string& library : libraries) {
    if (!::dlopen(library.c_str(), RTLD_NOW | RTLD_GLOBAL)) {
      spdlog::error("cannot load types: {}", ::dlerror());
      return false;
    }
    spdlog::info("types from {}, {} modules known now", library, Kop::modules().size());
  }
  if (Kop::modules().empty())
    spdlog::warn("no types are known: clients can bring nothing (see --types)");
  return true;
}

void watch(int epoll, int fd) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  if (::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) != 0)
    throw Hivel::SocketException(std::string("epoll_ctl: ") + std::strerror(errno));
}

// Ends with the signal that asked for it.
int run(Hivel::Server& server, int signals) {
  const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll < 0)
    throw Hivel::SocketException(std::string("epoll_create1: ") + std::strerror(errno));
  watch(epoll, signals);
  watch(epoll, server.fd());
  for (;;) {
    epoll_event events[2];
    const int count =
        ::epoll_wait(epoll, events, std::size(events), server.wants() ? 0 : -1);
    if (count < 0 && errno != EINTR)
      throw Hivel::SocketException(std::string("epoll_wait: ") + std::strerror(errno));
    for (int i = 0; i < count; ++i) {
      signalfd_siginfo info;
      if (events[i].data.fd == signals &&
          ::read(signals, &info, sizeof info) == sizeof info) {
        ::close(epoll);
        return static_cast<int>(info.ssi_signo);
      }
    }
    server.process();
  }
}

}  // namespace

int main(int argc, char** argv) try {
  Arguments arguments;
  if (const int status = parse(argc, argv, arguments); status >= 0) return status;

  const auto log = spdlog::stderr_logger_st("hiveld");
  log->set_pattern("%Y-%m-%dT%H:%M:%S.%e %l: %v");
  log->set_level(arguments.quiet ? spdlog::level::warn : spdlog::level::info);
  spdlog::set_default_logger(log);

  // Blocked before anything is made, so that no signal leaves something behind.
  sigset_t set;
  ::sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP})
    ::sigaddset(&set, signal);
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
  ::signal(SIGPIPE, SIG_IGN);  // a log that nobody reads is no reason to end
  const int signals = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signals < 0) {
    spdlog::error("signalfd: {}", std::strerror(errno));
    return failed;
  }

  if (!load(arguments.types)) return failed;
  arguments.server.name = "hiveld";
  const std::string path = arguments.server.socketPath;
  Hivel::Database database;
  Hivel::Server server(database, std::move(arguments.server));
  server.onLog = [](bool isWarning, const std::string& line) {
    spdlog::log(isWarning ? spdlog::level::warn : spdlog::level::info, "{}", line);
  };
  spdlog::info("listening on {}", path);
  // Whoever starts us by a service manager goes on only now, when clients can connect.
  ::sd_notifyf(0, "READY=1\nSTATUS=listening on %s", path.c_str());
  const int signal = run(server, signals);
  ::sd_notify(0, "STOPPING=1");
  spdlog::info("ending on {}", ::sigabbrev_np(signal));
  return 0;
} catch (const std::exception& e) {
  spdlog::error("{}", e.what());
  return failed;
}
