#include <chrono>
#include <csignal>
#include <functional>
#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#include <systemd/sd-daemon.h>

#include "apps/agent/Publisher.h"
#include "apps/fpmagent/CommandLine.h"
#include "apps/fpmagent/Listener.h"
#include "apps/fpmagent/Replay.h"

// The agent as a whole: a source of paths, the publisher, and the loop that serves both.

namespace Fpm {
namespace {

namespace asio = boost::asio;
using boost::system::error_code;

class Published : public PathSink {
 public:
  explicit Published(Agent::Publisher& to) : to_(to) {}
  void pathIs(const Agent::Path& path) override { to_.pathIs(path); }
  void pathDel(Agent::TunnelType type, const Kop::String& name) override {
    to_.pathDel(type, name);
  }
  void mark() override { to_.mark(); }
  U64 sweep() override { return to_.sweep(); }
  void converged() override { to_.converged(); }

 private:
  Agent::Publisher& to_;
};

void setLog(const std::string& level) {
  const auto log = spdlog::stderr_logger_st("fpmagent");
  log->set_pattern("%Y-%m-%dT%H:%M:%S.%e %l: %v");
  log->set_level(spdlog::level::from_str(level));
  spdlog::set_default_logger(log);
}

Agent::Publisher::Options publisherOptions(const Arguments& arguments) {
  Agent::Publisher::Options options;
  options.socketPath = arguments.socket;
  options.agent = arguments.agent;
  options.table = arguments.table;
  options.patience = arguments.timeout;
  return options;
}

Session::Options sessionOptions(const Arguments& arguments) {
  Session::Options options = arguments.session;
  options.state.onRefused = [](const std::string& text) {
    spdlog::warn("refused: {}", text);
  };
  options.onConverged = [](U64 deleted) {
    spdlog::info("the daemon has told everything; {} stale paths deleted", deleted);
  };
  if (spdlog::should_log(spdlog::level::debug))
    options.onMessage = [](const Message& message) {
      spdlog::debug("{}", text(message));
    };
  return options;
}

class Program {
 public:
  explicit Program(const Arguments& arguments)
      : arguments_(arguments),
        // A signal is noticed from here on; until the loop runs it waits.
        signals_(loop_, SIGTERM, SIGINT, SIGHUP),
        status_(loop_),
        publisher_(publisherOptions(arguments)),
        sink_(publisher_),
        session_(sessionOptions(arguments)),
        database_(loop_, publisher_.client().fd()) {
    signals_.async_wait([this](error_code error, int signal) {
      if (error) return;
      spdlog::info("ending on {}", ::sigabbrev_np(signal));
      ended_ = true;
    });
    publisher_.client().onState = [](Hivel::Client::State state, const std::string& why) {
      if (state == Hivel::Client::State::connected)
        spdlog::info("the state database is connected");
      else if (state != Hivel::Client::State::connecting)
        spdlog::warn("the state database is lost: {}", why);
    };
    watchDatabase();
    if (arguments.statusInterval.count() != 0) tellState();
  }
  ~Program() { database_.release(); }  // it is the client's
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  int run() {
    if (arguments_.replay.empty())
      listen();
    else
      replay();
    // Whoever starts us by a service manager goes on only now, when a daemon can connect.
    ::sd_notify(0, "READY=1");
    while (!ended_) {
      loop_.run_one();
      serveDatabase();
    }
    ::sd_notify(0, "STOPPING=1");
    if (const Session* const session = current())
      spdlog::info("the daemon told {}", session->state().summary());
    return end() && good_ ? 0 : exitFailed;
  }

 private:
  void listen() {
    listener_ = std::make_unique<Listener>(loop_, sink_, session_, arguments_.address,
                                           arguments_.port);
    spdlog::info("listening on {} port {}", std::string(arguments_.address.stringValue()),
                 listener_->port());
  }
  void replay() {
    replay_ = std::make_unique<Replay>(
        loop_, sink_, session_,
        Replay::Options{arguments_.replay, arguments_.pace, [this](bool whole) {
                          good_ = whole;
                          if (!whole || !arguments_.hold) ended_ = true;
                        }});
  }
  const Session* current() const {
    return replay_ ? &replay_->session() : listener_ ? listener_->session() : nullptr;
  }

  void watchDatabase() {
    database_.async_wait(asio::posix::descriptor_base::wait_read,
                         [this](error_code error) {
                           if (error) return;
                           publisher_.client().process();
                           watchDatabase();
                         });
  }
  void serveDatabase() {
    while (publisher_.client().wants())
      publisher_.client().process();
  }
  void tellState() {
    status_.expires_after(arguments_.statusInterval);
    status_.async_wait([this](error_code error) {
      if (error) return;
      if (const Session* const session = current())
        spdlog::info("{}; {} of them stale", session->state().summary(),
                     publisher_.staleCount());
      tellState();
    });
  }

  bool end() {
    const bool done = arguments_.remove ? publisher_.withdraw(arguments_.timeout)
                                        : publisher_.finish(arguments_.timeout);
    if (!done) spdlog::error("the state database did not confirm everything in time");
    return done;
  }

  const Arguments& arguments_;
  asio::io_context loop_;
  asio::signal_set signals_;
  asio::steady_timer status_;
  Agent::Publisher publisher_;
  Published sink_;
  Session::Options session_;
  asio::posix::stream_descriptor database_;
  std::unique_ptr<Listener> listener_;
  std::unique_ptr<Replay> replay_;
  bool ended_ = false;
  bool good_ = true;
};

}  // namespace

int run(const Arguments& arguments) {
  setLog(arguments.log);
  std::signal(SIGPIPE, SIG_IGN);  // a log that nobody reads is no reason to end
  Program program(arguments);
  return program.run();
}

}  // namespace Fpm
