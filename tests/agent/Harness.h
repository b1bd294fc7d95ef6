#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

#include "apps/agent/Directory.h"
#include "apps/agent/Publisher.h"

// A state database in a process of its own, agents, and what readers see of them.

namespace AgentTest {

using namespace std::chrono_literals;
using namespace Tunnel::TunnelTable;
using Agent::NextHop;
using Agent::Path;
using Agent::Publisher;
using Vantor::IpGenAddr;
using Vantor::IpGenPrefix;

constexpr auto patience = 20s;

// Runs in a child process that ends with this one.
pid_t forkedRun(const std::function<void()>& run);
void killAndWait(pid_t pid);

// A server; its directory, socket and the tables made under it go with it.
class Database {
 public:
  Database();
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  void start();
  void kill();  // as in a crash: nothing is kept
  std::string socketPath() const { return directory_ + "/sock"; }
  Publisher::Options options(const std::string& agent = "one") const;
  std::string shm(TunnelType type) const;

 private:
  std::string directory_;
  pid_t pid_ = -1;
};

// What a source has told, by type and name.
using Model = std::map<std::pair<TunnelType, std::string>, Path>;
inline std::pair<TunnelType, std::string> keyOf(const Path& path) {
  return {path.type, std::string(path.name)};
}

Path pathOf(TunnelType type, const std::string& name, U32 hops = 1, U32 salt = 0);
// Few types and names, so that paths come back, and few endpoints, so that they compete.
Path randomPath(std::minstd_rand& random);

// A connection that reads everything.
class Reader {
 public:
  explicit Reader(const Database& database, const std::string& agent = "one");

  // Waits until rows, hops, names, directory and RIB are those of the model. Empty, or what
  // is still different when patience is over.
  std::string differenceTo(const Model& model);
  bool wait(const std::function<bool()>& predicate) {
    return client_.wait(predicate, patience);
  }

 private:
  std::string agent_;
  Hivel::Client client_;

 public:
  Agent::TableDirectory directory;
  Agent::RibView rib;

 private:
  std::string difference(const Model& model);
  std::string hopDifference(const std::vector<TunnelTableEntry>& rows,
                            const Model& model);
  std::string nameDifference(const std::vector<TunnelTableEntry>& rows);
  std::string ribDifference(const std::vector<TunnelTableEntry>& rows);

  using Rib = std::map<IpGenPrefix, std::vector<TunnelTableEntry>>;
  Rib before_;                       // as it was found equal the last time
  std::set<IpGenPrefix> touched_{};  // told of since
};

}  // namespace AgentTest
