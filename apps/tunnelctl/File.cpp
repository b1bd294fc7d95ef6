#include "apps/tunnelctl/File.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "apps/tunnelctl/Output.h"

namespace Tunnelctl {

namespace {

[[noreturn]] void fail(const std::string& name, const char* call) {
  const int error = errno;
  throw Failure("FILE '" + printable(name) + "': cannot be written, " + call + ": " +
                std::strerror(error));
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd_; }
  // Some file systems tell only now that a file could not be written.
  bool close() { return ::close(std::exchange(fd_, -1)) == 0; }

 private:
  int fd_;
};

bool writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::write(fd, text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

int openRetried(const std::string& name, int flags) {
  int fd;
  do
    fd = ::open(name.c_str(), flags | O_CLOEXEC);
  while (fd < 0 && errno == EINTR);
  return fd;
}

mode_t modeOfNewFile() {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  return 0666 & ~mask;
}

}  // namespace

SignalsWait::SignalsWait() {
  sigset_t ends;
  sigemptyset(&ends);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP})
    sigaddset(&ends, signal);
  sigprocmask(SIG_BLOCK, &ends, &before_);
}

SignalsWait::~SignalsWait() {
  sigprocmask(SIG_SETMASK, &before_, nullptr);
}

std::string readFile(const std::string& name) {
  if (name == "-")
    return {std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
  const std::string error = "FILE '" + name + "': cannot be read";
  std::error_code ignored;
  if (std::filesystem::is_directory(name, ignored))
    throw Failure(error + ", it is a directory");
  std::ifstream file(name, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(file),
                   std::istreambuf_iterator<char>()};
  if (!file.is_open() || file.bad()) throw Failure(error);
  return text;
}

void replaceFile(const std::string& name, std::string_view text) {
  struct stat there;
  const bool exists = ::stat(name.c_str(), &there) == 0;
  if (!exists && errno != ENOENT) fail(name, "stat");
  if (exists && !S_ISREG(there.st_mode)) {
    Descriptor file(openRetried(name, O_WRONLY));
    if (file.get() < 0) fail(name, "open");
    if (!writeAll(file.get(), text)) fail(name, "write");
    return;
  }
  std::error_code error;
  const std::string target =
      exists ? std::filesystem::canonical(name, error).string() : name;
  if (error) throw Failure("FILE '" + printable(name) + "': " + error.message());
  const auto slash = target.rfind('/');
  const std::string directory =
      slash == target.npos ? "." : target.substr(0, slash == 0 ? 1 : slash);

  const SignalsWait wait;
  std::string aside = target + ".XXXXXX";
  Descriptor file(::mkostemp(aside.data(), O_CLOEXEC));
  if (file.get() < 0) fail(name, "mkostemp");
  const auto failAside = [&](const char* call) {
    const int reason = errno;
    ::unlink(aside.c_str());
    errno = reason;
    fail(name, call);
  };
  if (::fchmod(file.get(), exists ? there.st_mode & 07777 : modeOfNewFile()) != 0)
    failAside("fchmod");
  if (!writeAll(file.get(), text)) failAside("write");
  // The bytes are to be there before the name stands for them.
  if (::fsync(file.get()) != 0) failAside("fsync");
  if (!file.close()) failAside("close");
  if (::rename(aside.c_str(), target.c_str()) != 0) failAside("rename");
  Descriptor place(openRetried(directory, O_RDONLY | O_DIRECTORY));
  if (place.get() < 0 || ::fsync(place.get()) != 0) fail(name, "fsync of its directory");
}

}  // namespace Tunnelctl
