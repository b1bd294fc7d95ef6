#include "tests/Support/Processes.h"

#include "Quarn/Table.h"
#include "Tunnel/TunnelTableHivelTypes.h"
#include "apps/agent/Places.h"
#include "tests/Support/Rows.h"
#include "tests/Support/Testing.h"

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

std::unique_ptr<Process> WithDatabase::startDaemonAt(const std::string& socket,
                                                     const std::string& types) {
  auto daemon = start("hiveld --socket " + socket + " " + types);
  EXPECT_TRUE(daemon->says("listening"));
  return daemon;
}

std::unique_ptr<Process> WithDatabase::shell(const std::string& line) {
  ::setenv("HIVEL_SOCKET", socket_.c_str(), 1);
  ::setenv("EXAMPLES", HOUSE_SOURCE_DIR "/examples", 1);
  return std::make_unique<Process>(
      "PATH='" HOUSE_BIN_DIR "':$PATH; cd " + directory_ + "; " + line,
      directory_ + "/run" + std::to_string(++runs_));
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
