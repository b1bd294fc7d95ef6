#include "apps/tunnelgen/CommandLine.h"

#include <algorithm>
#include <map>
#include <memory>
#include <ostream>

#include <CLI/CLI.hpp>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include "apps/agent/Places.h"
#include "apps/tunnelgen/Generator.h"

namespace Tunnelgen {

namespace {

using Tunnel::TunnelTable::TunnelType;

constexpr int failed = 1, usage = 2;

constexpr const char* footer = R"(
Routers are named as in the graph, with an 'n' before numbers. Router i, from 0, has the
loopback 10.0.0.1 + i and the node label 16000 + i; link l the addresses 100.64.0.0 + 2l and
+ 1 and the adjacency labels 100000 + 2l and + 1; interfaces are Ethernet1, Ethernet2, ... on
each router. A tunnel is called SOURCE-DESTINATION and has the cost of the path as metric.

Tunnels stay in the database when the command ends, unless --withdraw is given; started again
it takes them over. Status: 0, 1 failed, 2 wrong arguments; 0 too when a signal ended it.)";

struct Arguments {
  Settings settings;
  std::string kind = "srTunnel";
  double rate = 0, seconds = 0, timeout = 60;
  U32 changes = 0;
  bool dryRun = false, json = false;
};

TunnelType kindOf(const std::string& text) {
  std::string all;
  for (U32 i = 0; i < Tunnel::TunnelTable::maxTunnelType; ++i) {
    const auto type = static_cast<TunnelType>(i);
    if (!Agent::hasTable(type)) continue;
    const std::string name(Agent::tableTypeOf(type));
    if (name == text) return type;
    all += (all.empty() ? "" : ", ") + name;
  }
  throw CLI::ValidationError("--kind", "'" + text + "' is none of " + all);
}

void define(CLI::App& app, Arguments& a) {
  Settings& s = a.settings;
  app.name("tunnelgen");
  app.set_version_flag("--version", "tunnelgen " TUNNELGEN_VERSION);
  app.footer(footer);
  app.add_option("GRAPH", s.graph, "Graph of routers and links, in GraphML")->required();
  auto* const socket =
      app.add_option("--socket", s.socketPath,
                     "Publish to the state database that listens here; otherwise nothing "
                     "is published")
          ->type_name("PATH");
  app.add_flag("--dry-run", a.dryRun, "Publish nothing: compute and print counts")
      ->excludes(socket);
  app.add_option("--agent", s.agent, "Publish under this name")
      ->type_name("NAME")
      ->capture_default_str();
  app.add_option("--router", s.router,
                 "Only tunnels from this router, by name, identifier or label; otherwise "
                 "from all to all")
      ->type_name("NAME");
  app.add_option("--kind", a.kind, "Kind of the tunnels: srTunnel, ldpTunnel, ...")
      ->type_name("KIND")
      ->capture_default_str();
  app.add_option("--metric", s.metric,
                 "Metric of a link: its kilometres, or 1 [distance]")
      ->type_name("distance|hops")
      ->transform(CLI::CheckedTransformer(
                      std::map<std::string, Metric>{
                          {"distance", Metric::distance},
                          {"hops",     Metric::hops    }
  })
                      .description(""));
  app.add_option("--other-metric", s.otherMetric,
                 "Kilometres of a link whose ends have no coordinates")
      ->type_name("N")
      ->check(CLI::Range(1u, Topology::maxMetric))
      ->capture_default_str();
  app.add_option(
         "--stack", s.mesh.stack,
         "Labels to push: the destination's node label, or the adjacency labels of "
         "the whole path; of more than 16 links some share a node label [node]")
      ->type_name("node|explicit")
      ->transform(CLI::CheckedTransformer(
                      std::map<std::string, Stack>{
                          {"node",     Stack::node       },
                          {"explicit", Stack::adjacencies}
  })
                      .description(""));

  app.add_option("--fail-rate", a.rate,
                 "Links fail and return, so many changes per second; without a rate each "
                 "follows when the one before is acknowledged")
      ->type_name("N[/s]")
      ->transform([](std::string text) {
        if (text.ends_with("/s")) text.resize(text.size() - 2);
        return text;
      })
      ->check(CLI::Range(0.001, 1e6));
  app.add_option("--fail-seconds", a.seconds,
                 "For so long; without end unless this or --changes is given")
      ->type_name("T")
      ->check(CLI::Range(0.0, 1e9));
  app.add_option("--changes", a.changes,
                 "So many changes; links that are down then return as well")
      ->type_name("N");
  app.add_option("--down", s.down, "Links that are down at a time, at most")
      ->type_name("N")
      ->check(CLI::Range(1u, Topology::maxLinks))
      ->capture_default_str();
  app.add_option("--seed", s.seed, "Which links fail: the same for the same seed")
      ->type_name("S")
      ->capture_default_str();

  app.add_flag("--hold", s.hold, "Stay connected until a signal comes");
  app.add_flag("--withdraw", s.withdraw, "At the end delete all tunnels and tables");
  app.add_option("--timeout", a.timeout, "Seconds to wait for the database")
      ->type_name("T")
      ->check(CLI::Range(0.01, 86400.0))
      ->capture_default_str();
  app.add_flag("--verbose", s.verbose, "Tell of every change of a link");
  app.add_flag("--json", a.json, "One JSON object per line, times in seconds");
}

int fail(std::ostream& err, int status, std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  err << "tunnelgen: " << text << '\n';
  return status;
}

}  // namespace

int run(const std::vector<std::string>& arguments,
        std::ostream& out,
        std::ostream& err,
        const std::atomic<bool>& stop) {
  CLI::App app{
      "Publishes the tunnels of a network that it reads from a graph: shortest "
      "paths with their label stacks, while links fail and return."};
  Arguments a;
  try {
    define(app, a);
    try {
      app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
      a.settings.mesh.type = kindOf(a.kind);
    } catch (const CLI::ParseError& error) {
      if (error.get_exit_code() == 0) {
        app.exit(error, out, err);
        return 0;
      }
      return fail(err, usage, error.what());
    }
    if (app.count("--fail-rate")) a.settings.failRate = a.rate;
    if (app.count("--fail-seconds")) a.settings.failSeconds = a.seconds;
    if (app.count("--changes")) a.settings.changes = a.changes;
    a.settings.timeout = Seconds(a.timeout);

    const auto log = std::make_shared<spdlog::logger>(
        "tunnelgen", std::make_shared<spdlog::sinks::ostream_sink_st>(err, true));
    log->set_pattern("%Y-%m-%dT%H:%M:%S.%e %l: %v");
    spdlog::set_default_logger(log);

    Report report(out, a.json);
    Generator(a.settings, report, stop).run();
    out.flush();
    if (!out) return fail(err, failed, "standard output cannot be written");
    return 0;
  } catch (const std::exception& error) {
    out.flush();
    return fail(err, failed, error.what());
  }
}

}  // namespace Tunnelgen
