#include "Harness.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace HivelTest {

namespace {

// Strings and entities pass between threads in some tests.
const bool threadSafe = (Kop::threadSafePtrsIs(true), true);

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

}  // namespace

TempDir::TempDir() {
  char name[] = "/tmp/hivelXXXXXX";
  if (!::mkdtemp(name)) throw std::runtime_error("mkdtemp");
  path_ = name;
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

void scribble(Plot& plot, std::minstd_rand& random) {
  const auto below = [&](U32 limit) { return static_cast<U32>(random() >> 8) % limit; };
  const Kop::String bed("bed" + std::to_string(below(12)));
  switch (below(10)) {
    case 0: plot.titleIs(Kop::String(std::to_string(below(1000)))); break;
    case 1:
    case 2:
    case 3: plot.noteIs(below(60), Kop::String(std::string(below(40), 'n'))); break;
    case 4: plot.noteDel(below(60)); break;
    case 5: plot.bedIs(bed)->areaIs(below(5)); break;
    case 6: plot.bedIs(bed)->plantIs(static_cast<U16>(below(8)), below(2) != 0); break;
    case 7:
      if (const auto at = plot.bed(bed)) at->plantDel(static_cast<U16>(below(8)));
      break;
    case 8: plot.bedDel(bed); break;
    default:
      if (below(40) == 0) plot.noteDelAll();
  }
}

Ptr<Plot> plotOf(Mount& mount) {
  return Ptr<Plot>(dynamic_cast<Plot*>(mount.entity().get()));
}

Hivel::ServerOptions serverOptions(const TempDir& dir) {
  Hivel::ServerOptions options;
  options.socketPath = dir.path("hivel.sock");
  return options;
}
Hivel::ClientOptions clientOptions(const TempDir& dir, const std::string& name) {
  Hivel::ClientOptions options;
  options.socketPath = dir.path("hivel.sock");
  options.name = name;
  options.retryMin = 5ms;
  options.retryMax = 50ms;
  return options;
}

void Loop::remove(const void* party) {
  std::erase_if(parties_, [&](const Party& each) { return each.key == party; });
}

bool Loop::until(const std::function<bool()>& predicate,
                 std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    bool busy = false;
    for (const Party& party : parties_)
      busy = party.process() || busy;
    if (predicate()) return true;
    if (std::chrono::steady_clock::now() >= end) return false;
    if (busy) continue;
    std::vector<pollfd> waited;
    for (const Party& party : parties_)
      waited.push_back({party.fd, POLLIN, 0});
    ::poll(waited.data(), waited.size(), 5);
  }
}

Raw::Raw(const std::string& path)
    : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  const sockaddr_un address = addressOf(path);
  if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    throw std::runtime_error("connect");
}
Raw::~Raw() {
  ::close(fd_);
}
void Raw::send(const Bytes& bytes) const {
  if (::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(bytes.size()))
    throw std::runtime_error("send");
}
bool Raw::receive() {
  for (;;) {
    const auto room = frames_.room(1 << 16);
    const ssize_t size = ::recv(fd_, room.data(), room.size(), 0);
    if (size <= 0) return size == 0 || errno != EAGAIN;
    frames_.arrived(static_cast<std::size_t>(size));
  }
}
std::string Raw::error() {
  while (const auto frame = frames_.next())
    if (frame->front() == static_cast<U8>(Hivel::FrameKind::error))
      return Hivel::decode<Hivel::Frame::Error>(*frame).reason;
  return {};
}

Daemon::~Daemon() {
  if (pid_ < 0) return;
  ::kill(pid_, SIGKILL);
  wait();
}
void Daemon::start(const std::vector<std::string>& arguments) {
  std::vector<std::string> words{HOUSE_BIN_DIR "/hiveld"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ == 0) {
    const int fd = ::open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    ::dup2(fd, STDOUT_FILENO);
    ::dup2(fd, STDERR_FILENO);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
}
void Daemon::startServing(const std::string& socket) {
  start({"--socket", socket, "--types", HIVEL_TEST_TYPES});
  const sockaddr_un address = addressOf(socket);
  const auto end = std::chrono::steady_clock::now() + patience;
  while (std::chrono::steady_clock::now() < end) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool answers =
        ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    if (answers) return;
    std::this_thread::sleep_for(5ms);
  }
  throw std::runtime_error("hiveld does not answer:\n" + log());
}
void Daemon::signal(int signal) const {
  ::kill(pid_, signal);
}
int Daemon::wait() {
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}
std::string Daemon::log() const {
  std::ostringstream text;
  text << std::ifstream(log_).rdbuf();
  return text.str();
}

}  // namespace HivelTest
