#include "tests/Support/Processes.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Quarn/Table.h"
#include "Tunnel/TunnelTableHivelTypes.h"
#include "apps/agent/Places.h"

namespace Support {

using namespace std::chrono_literals;

std::string contents(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool eventually(const std::function<bool()>& holds) {
  const auto end = std::chrono::steady_clock::now() + 20s;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

Process::Process(const std::vector<std::string>& command, const std::string& output)
    : output_(output) {
  std::vector<char*> argv;
  for (const std::string& word : command)
    argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  // Not left to the child: what an earlier command said must not be read as this one's.
  std::filesystem::remove(output + ".out");
  std::filesystem::remove(output + ".err");
  pid_ = ::fork();
  if (pid_ != 0) return;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const auto into = [&](const char* ending, int fd) {
    ::dup2(::open((output + ending).c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600), fd);
  };
  into(".out", STDOUT_FILENO);
  into(".err", STDERR_FILENO);
  ::execv(argv[0], argv.data());
  ::_exit(127);
}

int Process::join() {
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

testing::AssertionResult Process::says(const std::string& words) const {
  if (eventually([&] { return said().find(words) != std::string::npos; }))
    return testing::AssertionSuccess();
  return testing::AssertionFailure() << "'" << words << "' is not in\n" << said();
}

WithDatabase::WithDatabase() {
  char name[] = "/tmp/databaseXXXXXX";
  if (!::mkdtemp(name)) std::abort();
  directory_ = name;
  socket_ = directory_ + "/hivel.sock";
}

WithDatabase::~WithDatabase() {
  using namespace Tunnel::TunnelTable;
  daemon_.reset();
  for (U32 number = 0; number <= maxTunnelType; ++number)
    if (const auto type = static_cast<TunnelType>(number); Agent::hasTable(type))
      Quarn::TableWriter<TunnelTableEntry>::remove(Agent::shmName(
          socket_, Agent::tablePath(std::string(Agent::tableNameOf(type)))));
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

void WithDatabase::startDaemon() {
  daemon_ = startCommand("hiveld", {"--socket", socket_, "--types",
                                    HOUSE_LIB_DIR "/libTunnelHivelTypes.so.0", "--types",
                                    HOUSE_LIB_DIR "/libLinuxTunnel.so.0"});
  ASSERT_TRUE(daemon_->says("listening"));
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
