#pragma once

#include "apps/agent/Publisher.h"
#include "tests/Support/Processes.h"
#include "tests/Support/PublishedPaths.h"
#include "tests/Support/Testing.h"

// Agents in this process beside a state database, and what readers see of them.

namespace AgentTest {

using namespace std::chrono_literals;
using namespace Tunnel::TunnelTable;
using Agent::Path;
using Agent::Publisher;
using Support::keyOf;
using Support::PathKey;
using Model = Support::Paths;  // what a source has told
using Vantor::IpGenAddr;
using Vantor::IpGenPrefix;

constexpr auto patience = 20s;

class Agents : public Support::WithDatabase {
 public:
  Publisher::Options options(const std::string& agent = "one") const;
  std::string shm(TunnelType type) const;
};

Path pathOf(TunnelType type, const std::string& name, U32 hops = 1, U32 salt = 0);
constexpr TunnelType typesOfPaths[] = {srTunnel, ldpTunnel, srTePolicyTunnel,
                                       rsvpLerTunnel};
// Few types and names, so that paths come back, and few endpoints, so that they compete.
Path randomPath(std::minstd_rand& random);

// A connection that reads everything.
struct Reader {
  explicit Reader(const Hivel::ClientOptions& options);

  // Waits until rows, hops, names, directory and RIB are those of the model. Empty, or what
  // is still different when patience is over.
  std::string differenceTo(const Model& model);
  bool wait(const std::function<bool()>& predicate) {
    return client.wait(predicate, patience);
  }
  std::string difference(const Model& model);
  std::string ribDifference(const std::vector<TunnelTableEntry>& rows);

  Hivel::Client client;
  Agent::TableDirectory directory;
  Agent::RibView rib;
  std::map<IpGenPrefix, std::vector<TunnelTableEntry>> before{};  // as it was found equal
  std::set<IpGenPrefix> touched{};                                // told of since
};

}  // namespace AgentTest
