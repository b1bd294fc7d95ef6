#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <sys/types.h>

#include "Hivel/Client.h"
#include "Hivel/Protocol.h"
#include "Hivel/Server.h"
#include "TestTypes.h"
#include "tests/Kop/EntityDump.h"

// Servers, clients and daemons over real sockets in a directory of their own.

namespace HivelTest {

using namespace std::chrono_literals;
using Bytes = std::vector<U8>;
using Garden::Plot;
using Garden::Shed;
using Hivel::Client;
using Hivel::Database;
using Hivel::Mode;
using Hivel::Mount;
using Hivel::Server;
using Kop::Ptr;

constexpr auto patience = 20s;

// A directory that goes with all it holds.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  std::string path(const std::string& name) const { return path_ + "/" + name; }
  std::vector<std::string> names() const;

 private:
  std::string path_;
};

// Nothing, when there is no entity.
template <class T>
EntityDump dump(const Ptr<T>& entity) {
  return entity ? ::dump(*entity) : EntityDump();
}

// One random write among few keys, so that keys are deleted and come back.
void scribble(Plot& plot, std::minstd_rand& random);
Ptr<Plot> plotOf(Mount& mount);

Hivel::ServerOptions serverOptions(const TempDir& dir);
Hivel::ClientOptions clientOptions(const TempDir& dir, const std::string& name = "test");

// Whatever has a descriptor and something to do.
class Loop {
 public:
  template <class Party>
  void add(Party& party) {
    parties_.push_back({&party, party.fd(), [&party] {
                          party.process();
                          return party.wants();
                        }});
  }
  void remove(const void* party);
  // Runs everybody until the predicate holds; false when patience is over.
  bool until(const std::function<bool()>& predicate,
             std::chrono::milliseconds timeout = patience);
  void run(std::chrono::milliseconds time) {
    until([] { return false; }, time);
  }

 private:
  struct Party {
    const void* key;
    int fd;
    std::function<bool()> process;
  };
  std::deque<Party> parties_;
};

// A connection that sends whatever a test likes.
class Raw {
 public:
  explicit Raw(const std::string& path);
  ~Raw();
  Raw(const Raw&) = delete;
  Raw& operator=(const Raw&) = delete;
  void send(const Bytes& bytes) const;
  template <class Message>
  void say(const Message& message) const {
    Kop::NboAttrLog::Out out;
    Hivel::encode(out, message);
    send(Bytes(out.data(), out.data() + out.size()));
  }
  // What has come until now; whether the other side has closed.
  bool receive();
  auto next() { return frames_.next(); }  // a frame without its length
  // The reason of an error frame among what came, or empty.
  std::string error();

 private:
  int fd_;
  Hivel::FrameReader frames_{1 << 24};
};

// A process of hiveld.
class Daemon {
 public:
  explicit Daemon(const std::string& log) : log_(log) {}
  ~Daemon();
  void start(const std::vector<std::string>& arguments);
  void startServing(const std::string& socket);  // and waits until it answers
  void signal(int signal) const;
  int wait();  // exit status, or minus the signal that ended it
  std::string log() const;

 private:
  std::string log_;
  pid_t pid_ = -1;
};

}  // namespace HivelTest
