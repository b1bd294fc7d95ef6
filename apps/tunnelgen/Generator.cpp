#include "apps/tunnelgen/Generator.h"

#include <algorithm>
#include <thread>

#include <spdlog/fmt/fmt.h>
#include <spdlog/spdlog.h>

#include "apps/agent/Publisher.h"
#include "apps/tunnelgen/GraphMl.h"

namespace Tunnelgen {

using Clock = std::chrono::steady_clock;
using Hivel::milliseconds;
using Tunnel::TunnelTable::TunnelType;

namespace {

constexpr milliseconds longestWait{100};  // before the wish to stop is looked at again
// Changes told and not acknowledged, beyond which the next one waits.
constexpr U64 mostOutstanding = 256;

double secondsSince(Clock::time_point begin) {
  return Seconds(Clock::now() - begin).count();
}
milliseconds ceilOf(Seconds seconds) {
  return std::chrono::ceil<milliseconds>(seconds);
}
double rate(U64 count, double seconds) {
  return seconds > 0 ? static_cast<double>(count) / seconds : 0;
}
std::string shownRate(U64 count, double seconds) {
  return grouped(static_cast<U64>(rate(count, seconds))) + "/s";
}
double inMs(U64 microseconds) {
  return static_cast<double>(microseconds) / 1000;
}

}  // namespace

struct Generator::Target : Sink {
  virtual void work() = 0;  // what was told may go out
  virtual U64 sweep() = 0;  // tunnels of an earlier process that were not told
  // Calls back when the database has applied everything told so far.
  virtual void acknowledge(std::function<void(bool applied)> done) = 0;
  virtual bool wait(const std::function<bool()>& predicate, milliseconds most) = 0;
  virtual bool finish(bool withdraw) = 0;
};

struct Generator::Nowhere final : Target {
  void pathIs(const Agent::Path&) override {}
  void pathDel(TunnelType, const Kop::String&) override {}
  void work() override {}
  U64 sweep() override { return 0; }
  void acknowledge(std::function<void(bool)> done) override { done(true); }
  bool wait(const std::function<bool()>& predicate, milliseconds most) override {
    if (predicate()) return true;
    std::this_thread::sleep_for(most);
    return predicate();
  }
  bool finish(bool) override { return true; }
};

struct Generator::Database final : Target {
  explicit Database(const Settings& settings)
      : timeout(ceilOf(settings.timeout)), publisher([&] {
          Agent::Publisher::Options options;
          options.socketPath = settings.socketPath;
          options.agent = settings.agent;
          options.patience = timeout;
          return options;
        }()) {
    publisher.client().onState = [](Hivel::Client::State state,
                                    const std::string& reason) {
      if (state == Hivel::Client::State::connected)
        spdlog::info("the database is back");
      else if (state != Hivel::Client::State::connecting)
        spdlog::warn("the database is lost: {}", reason);
    };
  }

  void pathIs(const Agent::Path& path) override {
    publisher.pathIs(path);
    tick();
  }
  void pathDel(TunnelType type, const Kop::String& name) override {
    publisher.pathDel(type, name);
    tick();
  }
  // One change of a link may concern thousands of tunnels: the database gets to work on the
  // first while the last are told.
  void tick() {
    constexpr U32 often = 512;
    if (++told % often == 0) work();
  }
  void work() override { publisher.client().process(); }
  U64 sweep() override { return publisher.sweep(); }
  void acknowledge(std::function<void(bool)> done) override {
    publisher.converged();
    publisher.client().sync(std::move(done));
    work();
  }
  bool wait(const std::function<bool()>& predicate, milliseconds most) override {
    return publisher.client().wait(predicate, most);
  }
  bool finish(bool withdraw) override {
    return withdraw ? publisher.withdraw(timeout) : publisher.finish(timeout);
  }

  milliseconds timeout;
  Agent::Publisher publisher;
  U32 told = 0;
};

Generator::Generator(Settings settings, Report& report, const std::atomic<bool>& stop)
    : settings_(std::move(settings)), report_(report), stop_(stop) {}

Generator::~Generator() = default;

void Generator::run() {
  read();
  compute();
  if (settings_.socketPath.empty())
    target_ = std::make_unique<Nowhere>();
  else
    target_ = std::make_unique<Database>(settings_);
  if (!settings_.socketPath.empty()) publish();
  if (settings_.fails() && !stop_) failLinks();
  if (settings_.hold && !stop_) {
    report_.event("holding", "until a signal comes", Fields());
    wait([] { return false; }, Clock::time_point::max());
  }
  if (stop_) spdlog::info("ending on a signal");
  if (!target_->finish(settings_.withdraw))
    throw Failure("the database did not acknowledge everything within " +
                  fmt::format("{:g} s", settings_.timeout.count()));
}

void Generator::read() {
  const auto begin = Clock::now();
  topology_ = readGraphMl(settings_.graph);
  topology_.metricIs(settings_.metric, settings_.otherMetric);
  const double seconds = secondsSince(begin);
  const U64 routers = topology_.routers.size(), links = topology_.links.size();
  const U64 parallel = topology_.parallelCount(), placeless = topology_.placelessCount();
  const U64 self = topology_.selfLinkCount;
  std::string text = settings_.graph + ": " + counted(routers, "router", "routers") +
                     ", " + counted(links, "link", "links");
  if (parallel > 0) text += ", " + grouped(parallel) + " of them parallel";
  if (placeless > 0)
    text += ", " + counted(placeless, "router", "routers") + " without a place";
  if (self > 0) text += ", " + counted(self, "edge", "edges") + " to itself left out";
  report_.event("read", text + "; " + shownTime(seconds),
                {
                    {"graph",               settings_.graph},
                    {"routers",             routers        },
                    {"links",               links          },
                    {"parallelLinks",       parallel       },
                    {"routersWithoutPlace", placeless      },
                    {"selfLinks",           self           },
                    {"seconds",             seconds        }
  });
}

void Generator::compute() {
  const auto begin = Clock::now();
  if (!settings_.router.empty())
    settings_.mesh.router = topology_.router(settings_.router);
  mesh_ = std::make_unique<Mesh>(topology_, settings_.mesh);
  const double seconds = secondsSince(begin);
  const Mesh::Counts counts = mesh_->count();
  report_.event("computed",
                fmt::format("{}, {}, {} label{}at most {} in a stack; {}",
                            counted(counts.tunnels, "tunnel", "tunnels"),
                            counted(counts.nextHops, "next hop", "next hops"),
                            grouped(counts.labels), counts.labels == 1 ? ", " : "s, ",
                            counts.mostLabels, shownTime(seconds)),
                {
                    {"tunnels",    counts.tunnels   },
                    {"nextHops",   counts.nextHops  },
                    {"labels",     counts.labels    },
                    {"mostLabels", counts.mostLabels},
                    {"seconds",    seconds          }
  });
}

void Generator::publish() {
  const auto begin = Clock::now();
  constexpr U64 atOnce = 1024;
  U64 told = 0;
  struct Counter final : Sink {
    explicit Counter(Sink& to, U64& count) : to(to), count(count) {}
    void pathIs(const Agent::Path& path) override {
      to.pathIs(path);
      ++count;
    }
    void pathDel(TunnelType, const Kop::String&) override {}
    Sink& to;
    U64& count;
  } counter(*target_, told);
  U64 from = 0;
  do
    from = mesh_->tell(counter, from, atOnce);
  while (from != 0 && !stop_);
  if (stop_) return;
  const U64 swept = target_->sweep();
  const double seconds = secondsSince(begin);

  std::optional<bool> applied;
  target_->acknowledge([&](bool is) { applied = is; });
  wait([&] { return applied.has_value(); },
       Clock::now() + std::chrono::duration_cast<Clock::duration>(settings_.timeout));
  if (stop_) return;
  if (!applied.value_or(false))
    throw Failure(
        fmt::format("the database did not acknowledge the tunnels within {:g} s",
                    settings_.timeout.count()));
  const double acknowledged = secondsSince(begin);
  std::string text = counted(told, "tunnel", "tunnels") + " in " + shownTime(seconds) +
                     ", " + shownRate(told, seconds) + "; acknowledged after " +
                     shownTime(acknowledged) + ", " + shownRate(told, acknowledged);
  if (swept > 0) text += "; " + grouped(swept) + " of an earlier run deleted";
  const double perSecond = rate(told, seconds);
  const double acknowledgedPerSecond = rate(told, acknowledged);
  report_.event("published", text,
                {
                    {"tunnels",               told                 },
                    {"deleted",               swept                },
                    {"seconds",               seconds              },
                    {"tunnelsPerSecond",      perSecond            },
                    {"acknowledgedSeconds",   acknowledged         },
                    {"acknowledgedPerSecond", acknowledgedPerSecond}
  });
}

bool Generator::wait(const std::function<bool()>& predicate, Clock::time_point end) {
  for (;;) {
    if (stop_) return false;
    if (!report_.isWritten()) throw Failure("standard output cannot be written");
    const auto left = end - Clock::now();
    if (left <= Clock::duration::zero()) {
      target_->work();
      return predicate();
    }
    const auto slice =
        left < longestWait ? std::chrono::ceil<milliseconds>(left) : longestWait;
    if (target_->wait(predicate, slice)) return true;
  }
}

void Generator::change(Failures::Step step) {
  const auto begin = Clock::now();
  const Mesh::Change change = mesh_->linkIs(step.link, step.up, *target_);
  const double told = secondsSince(begin);
  ++made_;
  told_ += change.told;
  deleted_ += change.deleted;
  if (outstanding_++ == 0) waitsSince_ = Clock::now();
  target_->acknowledge([this, begin, step, change, told](bool applied) {
    --outstanding_;
    waitsSince_ = Clock::now();
    if (!applied) isRefused_ = true;
    const auto time = Clock::now() - begin;
    latencies_.add(static_cast<U64>(
        std::chrono::duration_cast<std::chrono::microseconds>(time).count()));
    if (!settings_.verbose) return;
    const Link& link = topology_.links[step.link];
    const std::string& a = topology_.routers[link.ends[0]].name;
    const std::string& b = topology_.routers[link.ends[1]].name;
    const double seconds = Seconds(time).count();
    report_.event(
        "link",
        fmt::format("{} {}-{} {}: {} changed, {} deleted; told in {}, "
                    "acknowledged after {}",
                    step.link, a, b, step.up ? "returns" : "fails",
                    counted(change.told, "tunnel", "tunnels"), grouped(change.deleted),
                    shownTime(told), shownTime(seconds)),
        {
            {"link",                U64(step.link)               },
            {"ends",                a + "-" + b                  },
            {"change",              step.up ? "returns" : "fails"},
            {"changed",             change.told                  },
            {"deleted",             change.deleted               },
            {"seconds",             told                         },
            {"acknowledgedSeconds", seconds                      }
    });
  });
}

void Generator::answers(U64 most) {
  const auto patience = std::chrono::duration_cast<Clock::duration>(settings_.timeout);
  while (outstanding_ > 0 && !stop_) {
    if (isRefused_) throw Failure("the database refused a change");
    if (Clock::now() - waitsSince_ >= patience)
      throw Failure(fmt::format("the database did not acknowledge a change within {:g} s",
                                settings_.timeout.count()));
    if (outstanding_ <= most) return;
    const U64 before = outstanding_;
    wait([&] { return outstanding_ < before; }, waitsSince_ + patience);
  }
}

void Generator::failLinks() {
  if (topology_.links.empty()) throw Failure("no link that could fail");
  Failures failures(static_cast<U32>(topology_.links.size()), settings_.down,
                    settings_.seed);
  const auto begin = Clock::now();
  const auto after = [&](double seconds) {
    return begin + std::chrono::duration_cast<Clock::duration>(Seconds(seconds));
  };
  const auto isOver = [&] {
    return stop_ || (settings_.changes && made_ >= *settings_.changes) ||
           (settings_.failSeconds && secondsSince(begin) >= *settings_.failSeconds);
  };
  const auto never = [] { return false; };
  while (!isOver()) {
    if (settings_.failRate) {
      const auto due = after(static_cast<double>(made_) / *settings_.failRate);
      const auto last = settings_.failSeconds ? after(*settings_.failSeconds) : due;
      wait(never, std::min(due, last));
      answers(mostOutstanding);
      if (isOver()) break;
    }
    change(failures.next());
    if (!settings_.failRate) answers(0);
  }
  const U64 wanted = made_;
  while (!stop_)
    if (const auto step = failures.nextRestored()) {
      change(*step);
      answers(settings_.failRate ? mostOutstanding : 0);
    } else {
      break;
    }
  answers(0);

  const double seconds = secondsSince(begin);
  const U64 tunnels = told_ + deleted_;
  const double perSecond = rate(made_, seconds), tunnelRate = rate(tunnels, seconds);
  const auto at = [&](double share) { return inMs(latencies_.percentile(share)); };
  report_.event(
      "changed",
      fmt::format("{} in {}, {:.1f}/s: {} told, {} deleted, {}",
                  counted(made_, "link", "links"), shownTime(seconds),
                  rate(made_, seconds), counted(told_, "tunnel", "tunnels"),
                  grouped(deleted_), shownRate(tunnels, seconds)) +
          (made_ > wanted ? ", with " + grouped(made_ - wanted) + " to end with none down"
                          : "") +
          (failures.downCount() > 0 ? ", " + grouped(failures.downCount()) + " left down"
                                    : ""),
      {
          {"changes",          made_                    },
          {"restoredAtEnd",    made_ - wanted           },
          {"leftDown",         U64(failures.downCount())},
          {"told",             told_                    },
          {"deleted",          deleted_                 },
          {"seconds",          seconds                  },
          {"changesPerSecond", perSecond                },
          {"tunnelsPerSecond", tunnelRate               }
  });
  if (latencies_.count() == 0) return;
  const double p50 = at(0.5), p90 = at(0.9), p99 = at(0.99);
  const double most = inMs(latencies_.most());
  const auto shown = [](double ms) { return shownTime(ms / 1000); };
  report_.event("latency",
                "from a change to its acknowledgement: median " + shown(p50) + ", 90 % " +
                    shown(p90) + ", 99 % " + shown(p99) + ", most " + shown(most),
                {
                    {"count",  latencies_.count()},
                    {"p50Ms",  p50               },
                    {"p90Ms",  p90               },
                    {"p99Ms",  p99               },
                    {"mostMs", most              }
  });
}

}  // namespace Tunnelgen
