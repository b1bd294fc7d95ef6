#include "Hivel/Socket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace Hivel {

namespace {

constexpr int backlog = 128;

template <class Call>
auto retried(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty()) throw SocketException("the socket's path is empty");
  if (path.size() >= sizeof address.sun_path)
    throw SocketException(Kop::stringPrintf("socket path '%s' has %zu bytes, at most %zu",
                                            path.c_str(), path.size(),
                                            sizeof address.sun_path - 1));
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

Fd socketMake(const std::string& path) {
  Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd) throwSystem("socket for", path, errno);
  return fd;
}

int connectWith(const Fd& fd, const sockaddr_un& address) {
  return retried([&] {
    return ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address),
                     sizeof address);
  });
}

void makeDirectories(const std::string& path, U32 mode) {
  for (std::size_t at = path.find('/', 1); at != path.npos; at = path.find('/', at + 1)) {
    const std::string directory = path.substr(0, at);
    if (::mkdir(directory.c_str(), mode) == 0) {
      if (::chmod(directory.c_str(), mode) != 0) throwSystem("chmod", directory, errno);
    } else if (errno != EEXIST) {
      // A directory above may be there and not be ours to write: what counts is below.
      struct stat found;
      const int error = errno;
      if (::stat(directory.c_str(), &found) != 0) throwSystem("mkdir", directory, error);
    }
  }
}

}  // namespace

Fd::~Fd() {
  if (fd_ >= 0) ::close(fd_);
}

void throwSystem(const char* call, const std::string& operand, int error) {
  throw SocketException(std::string(call) + " " + operand + ": " + std::strerror(error));
}

Fd connectTo(const std::string& path) {
  const sockaddr_un address = addressOf(path);
  Fd fd = socketMake(path);
  if (connectWith(fd, address) != 0) throwSystem("connect", path, errno);
  return fd;
}

Fd epollMake() {
  Fd fd(::epoll_create1(EPOLL_CLOEXEC));
  if (!fd) throwSystem("epoll_create1", "", errno);
  return fd;
}

namespace {

void epollSet(const Fd& epoll, int op, const Fd& fd, U32 events, U64 key) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  if (::epoll_ctl(epoll.get(), op, fd.get(), &event) != 0)
    throwSystem("epoll_ctl", std::to_string(fd.get()), errno);
}

}  // namespace

void epollAdd(const Fd& epoll, const Fd& fd, U32 events, U64 key) {
  epollSet(epoll, EPOLL_CTL_ADD, fd, events, key);
}
void epollMod(const Fd& epoll, const Fd& fd, U32 events, U64 key) {
  epollSet(epoll, EPOLL_CTL_MOD, fd, events, key);
}

Listener::Listener(const std::string& path, U32 mode, U32 directoryMode)
    : path_(path), lockPath_(path + ".lock") {
  addressOf(path);  // refuses a path that cannot be bound before anything is made
  makeDirectories(path, directoryMode);
  lock();
  try {
    bindOrReplace();
    struct stat made;
    if (::stat(path_.c_str(), &made) != 0) throwSystem("stat", path_, errno);
    device_ = made.st_dev;
    inode_ = made.st_ino;
    // Until listen() is called nobody gets in, so the mode is in force from the start.
    if (::chmod(path_.c_str(), mode) != 0) throwSystem("chmod", path_, errno);
    if (::listen(fd_.get(), backlog) != 0) throwSystem("listen", path_, errno);
    spare_ = Fd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  } catch (...) {
    ::unlink(lockPath_.c_str());
    throw;
  }
}

Listener::~Listener() {
  struct stat found;
  if (::stat(path_.c_str(), &found) == 0 && found.st_dev == device_ &&
      found.st_ino == inode_)
    ::unlink(path_.c_str());
  ::unlink(lockPath_.c_str());
}

void Listener::lock() {
  for (;;) {
    lock_ = Fd(retried([&] {
      return ::open(lockPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    }));
    if (!lock_) throwSystem("open", lockPath_, errno);
    if (retried([&] { return ::flock(lock_.get(), LOCK_EX | LOCK_NB); }) != 0) {
      if (errno == EWOULDBLOCK)
        throw SocketException("another server listens on " + path_);
      throwSystem("flock", lockPath_, errno);
    }
    struct stat locked, named;
    if (::fstat(lock_.get(), &locked) != 0) throwSystem("fstat", lockPath_, errno);
    if (::stat(lockPath_.c_str(), &named) == 0 && named.st_ino == locked.st_ino &&
        named.st_dev == locked.st_dev)
      return;
  }
}

void Listener::bindOrReplace() {
  const sockaddr_un address = addressOf(path_);
  fd_ = socketMake(path_);
  const auto bind = [&] {
    return ::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  };
  if (bind() == 0) return;
  if (errno != EADDRINUSE) throwSystem("bind", path_, errno);
  struct stat found;
  if (::lstat(path_.c_str(), &found) == 0 && !S_ISSOCK(found.st_mode))
    throw SocketException("bind " + path_ + ": it exists and is not a socket");
  const Fd probe = socketMake(path_);
  if (connectWith(probe, address) == 0 || errno == EAGAIN)
    throw SocketException("another server listens on " + path_);
  if (errno != ECONNREFUSED && errno != ENOENT) throwSystem("connect", path_, errno);
  if (::unlink(path_.c_str()) != 0 && errno != ENOENT)
    throwSystem("unlink", path_, errno);
  if (bind() != 0) throwSystem("bind", path_, errno);
}

Fd Listener::accept(bool& resources) {
  resources = true;
  const auto take = [&] {
    return Fd(retried([&] {
      return ::accept4(fd_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    }));
  };
  Fd fd = take();
  if (fd || (errno != EMFILE && errno != ENFILE && errno != ENOMEM && errno != ENOBUFS))
    return fd;
  resources = false;
  spare_ = Fd();
  take();
  spare_ = Fd(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  return Fd();
}

Connection::Io Connection::receive() {
  const std::span<U8> room = frames.room(receivePiece);
  const ssize_t size =
      retried([&] { return ::recv(fd_.get(), room.data(), room.size(), MSG_DONTWAIT); });
  if (size > 0) {
    frames.arrived(static_cast<std::size_t>(size));
    bytesIn += static_cast<U64>(size);
    return static_cast<std::size_t>(size) < room.size() ? Io::blocked : Io::done;
  }
  if (size < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return Io::blocked;
  if (size < 0)
    reason_ = std::string("recv: ") + std::strerror(errno);
  else
    reason_ = frames.buffered() == 0 ? "the other side left"
                                     : "the other side left in the middle of a frame";
  return Io::closed;
}

Connection::Io Connection::send(std::size_t budget) {
  Kop::NboAttrLog::Out& out = stream.out();
  while (!out.empty() && budget > 0) {
    const std::size_t wanted = std::min(out.size(), budget);
    const ssize_t size = retried([&] {
      return ::send(fd_.get(), out.data(), wanted, MSG_NOSIGNAL | MSG_DONTWAIT);
    });
    if (size < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK) return Io::blocked;
      reason_ = std::string("send: ") + std::strerror(errno);
      return Io::closed;
    }
    out.consume(static_cast<std::size_t>(size));
    bytesOut += static_cast<U64>(size);
    budget -= static_cast<std::size_t>(size);
  }
  return Io::done;
}

}  // namespace Hivel
