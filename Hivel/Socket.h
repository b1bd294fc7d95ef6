#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include "Hivel/Exception.h"
#include "Hivel/Protocol.h"
#include "Kop/NboAttrLogSa.h"

// System calls of server and client, wrapped. Not installed.

namespace Hivel {

// A descriptor, closed with its owner.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Fd();
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// SocketException "<call> <operand>: <text of errno>".
[[noreturn]] void throwSystem(const char* call, const std::string& operand, int error);

// Connects without blocking; SocketException.
Fd connectTo(const std::string& path);

Fd epollMake();
// What is waited for; `key` comes back with the event. EPOLLHUP and EPOLLERR always do.
void epollAdd(const Fd& epoll, const Fd& fd, U32 events, U64 key);
void epollMod(const Fd& epoll, const Fd& fd, U32 events, U64 key);

// A listening socket in the file system.
//
// The lock file beside it decides between servers: its holder alone removes a socket that
// nobody answers on. It is removed by its holder while it is locked; who locks a file that
// has lost its name meanwhile begins again.
class Listener {
 public:
  // Makes missing directories. Errors   SocketException.
  Listener(const std::string& path, U32 mode, U32 directoryMode);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  const Fd& fd() const { return fd_; }
  // The next connection, or none. False in `resources` when descriptors ran out: the
  // connection was then dropped, so that the listener does not stay readable for ever.
  Fd accept(bool& resources);

 private:
  void lock();
  void bindOrReplace();

  std::string path_, lockPath_;
  Fd lock_, fd_, spare_;
  U64 device_ = 0, inode_ = 0;  // of the socket's file
};

// One connection: a stream of the attribute log and frames over a socket.
class Connection {
 public:
  enum class Io : U8 {
    done,     // the budget is used up
    blocked,  // nothing more now
    closed,   // by the peer, or broken: reason() says it
  };
  Connection(Fd fd, std::size_t highWater, std::size_t maxFrameSize)
      : stream(highWater), frames(maxFrameSize), fd_(std::move(fd)) {}

  const Fd& fd() const { return fd_; }
  const std::string& reason() const { return reason_; }

  // Takes one piece of what has arrived into `frames`.
  Io receive();
  // Hands up to `budget` bytes to the socket.
  Io send(std::size_t budget);

  Kop::NboAttrLog::Stream stream;
  FrameReader frames;
  U64 bytesIn = 0, bytesOut = 0;

 private:
  Fd fd_;
  std::string reason_;
};

constexpr std::size_t receivePiece = 64 << 10;  // bytes

}  // namespace Hivel
