#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "apps/tunnelgen/Failures.h"
#include "apps/tunnelgen/Mesh.h"
#include "apps/tunnelgen/Report.h"

namespace Tunnelgen {

using Seconds = std::chrono::duration<double>;

struct Settings {
  std::string graph;
  std::string socketPath;  // empty: nothing is published
  std::string agent = "tunnelgen";
  std::string router;  // empty: all
  Mesh::Options mesh;
  Metric metric = Metric::distance;
  U32 otherMetric = 100;  // km, of links without a length

  // Links fail and return when any of the three is given.
  std::optional<double>
      failRate;  // changes per second; none: each when the one before is
                 // acknowledged
  std::optional<double> failSeconds;
  std::optional<U64> changes;  // none: until the time is over, or the command is stopped
  U32 down = 4;                // links at a time, at most
  U64 seed = 1;

  bool hold = false;      // stay until stopped
  bool withdraw = false;  // leave nothing
  bool verbose = false;
  Seconds timeout{60};  // for answers of the database

  bool fails() const { return failRate || failSeconds || changes; }
};

// Reads a graph, computes the mesh, publishes it and lets links fail, as the settings say.
//
// Errors   Failure, and what Agent::Publisher throws.
class Generator {
 public:
  Generator(Settings settings, Report& report, const std::atomic<bool>& stop);
  ~Generator();

  void run();

 private:
  struct Target;  // where tunnels go
  struct Nowhere;
  struct Database;

  void read();
  void compute();
  void publish();
  void failLinks();
  void change(Failures::Step step);
  // Until no more than `most` changes are not acknowledged.
  void answers(U64 most);
  // Lets the target work until the predicate holds, the time has come or all is stopped.
  bool wait(const std::function<bool()>& predicate,
            std::chrono::steady_clock::time_point end);

  Settings settings_;
  Report& report_;
  const std::atomic<bool>& stop_;
  Topology topology_;
  std::unique_ptr<Mesh> mesh_;
  std::unique_ptr<Target> target_;

  // Of the changes of links.
  U64 made_ = 0, told_ = 0, deleted_ = 0, outstanding_ = 0;
  bool isRefused_ = false;
  std::chrono::steady_clock::time_point waitsSince_;  // for the next acknowledgement
  Latencies latencies_;
};

}  // namespace Tunnelgen
