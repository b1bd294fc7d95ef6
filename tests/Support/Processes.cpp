#include "tests/Support/Processes.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>

#include "Quarn/Table.h"
#include "Tunnel/TunnelTableHivelTypes.h"
#include "apps/agent/Places.h"
#include "tests/Support/Rows.h"

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

std::unique_ptr<Process> WithDatabase::shell(const std::string& line) {
  ::setenv("HIVEL_SOCKET", socket_.c_str(), 1);
  ::setenv("EXAMPLES", HOUSE_SOURCE_DIR "/examples", 1);
  return startCommand("/bin/sh", {"-c", "PATH='" HOUSE_BIN_DIR "':$PATH; cd " +
                                            directory_ + "; " + line});
}

namespace {

std::string squeezed(const std::string& text) {
  std::istringstream words(text);
  std::string all;
  for (std::string word; words >> word;)
    all += (all.empty() ? "" : " ") + word;
  return all;
}

}  // namespace

void WithDatabase::play(const std::string& rows) {
  for (const auto& row : rowsIn(rows)) {
    SCOPED_TRACE(row[0]);
    const auto process = shell(row[0]);
    EXPECT_EQ(process->join(), std::stoi(row.at(1))) << process->said();
    for (std::size_t i = 2; i < row.size(); ++i)
      EXPECT_THAT(squeezed(process->said()), testing::HasSubstr(squeezed(row[i])));
  }
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
