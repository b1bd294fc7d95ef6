#include "tests/Support/Process.h"

#include <iterator>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/Support/Testing.h"

namespace Support {

using namespace std::chrono_literals;

std::string contents(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<unsigned char> bytesIn(const std::string& file) {
  const std::string text = contents(HOUSE_SOURCE_DIR "/" + file);
  if (text.empty()) throw std::runtime_error(file + " cannot be read");
  return {text.begin(), text.end()};
}

bool eventually(const std::function<bool()>& holds) {
  const auto end = std::chrono::steady_clock::now() + 20s;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{AF_UNIX, {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

TempDir::TempDir() : path_("/tmp/houseXXXXXX") {
  if (!::mkdtemp(path_.data())) std::abort();
}
TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}
std::vector<std::string> TempDir::names() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(path_))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

Process::Process(const std::string& line, const std::string& output) : output_(output) {
  // Not left to the child: what an earlier command said must not be read as this one's.
  std::filesystem::remove(output + ".out");
  std::filesystem::remove(output + ".err");
  const std::string shell = "{ " + line + "\n} >" + output + ".out 2>" + output + ".err";
  pid_ = ::fork();
  if (pid_ != 0) return;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::execl("/bin/sh", "sh", "-c", shell.c_str(), nullptr);
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

ServiceManager::ServiceManager(const std::string& path)
    : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  const sockaddr_un address = addressOf(path);
  EXPECT_EQ(::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const timeval limit{20, 0};
  ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
}
ServiceManager::~ServiceManager() {
  ::unsetenv("NOTIFY_SOCKET");
  ::close(fd_);
}
std::string ServiceManager::told() const {
  char text[256];
  return {text, static_cast<std::size_t>(
                    std::max<ssize_t>(::recv(fd_, text, sizeof text, 0), 0))};
}

}  // namespace Support
