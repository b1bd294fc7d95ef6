#include "tests/Support/Processes.h"

#include <fstream>

#include "Quarn/Table.h"
#include "Tunnel/TunnelTableHivelTypes.h"
#include "apps/agent/Places.h"

namespace Support {

using namespace std::chrono_literals;

WithDatabase::~WithDatabase() {
  using namespace Tunnel::TunnelTable;
  daemon_.reset();
  for (U32 number = 0; number <= maxTunnelType; ++number)
    if (const auto type = static_cast<TunnelType>(number); Agent::hasTable(type))
      Quarn::TableWriter<TunnelTableEntry>::remove(Agent::shmName(
          socket_, Agent::tablePath(std::string(Agent::tableNameOf(type)))));
}

std::unique_ptr<Process> WithDatabase::startDaemonAt(
    const std::string& socket, const std::vector<std::string>& types) {
  std::vector<std::string> arguments = {"--socket", socket};
  for (const std::string& library : types)
    arguments.insert(arguments.end(), {"--types", HOUSE_LIB_DIR "/" + library});
  auto daemon = startCommand("hiveld", arguments);
  EXPECT_TRUE(daemon->says("listening"));
  return daemon;
}

std::unique_ptr<Process> WithDatabase::startCommand(
    const std::string& name, const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {name[0] == '/' ? name : HOUSE_BIN_DIR "/" + name};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return std::make_unique<Process>(command,
                                   directory_ + "/run" + std::to_string(++runs_));
}

std::string WithDatabase::file(const std::string& name, const std::string& text) const {
  std::ofstream(directory_ + "/" + name, std::ios::binary) << text;
  return directory_ + "/" + name;
}

Hivel::ClientOptions WithDatabase::clientOptions(const std::string& name) const {
  Hivel::ClientOptions options;
  options.socketPath = socket_;
  options.name = name;
  options.retryMax = 50ms;
  return options;
}

}  // namespace Support
