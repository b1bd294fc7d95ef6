#pragma once

#include "Hivel/Client.h"
#include "Hivel/Protocol.h"
#include "Hivel/Server.h"
#include "TestTypes.h"
#include "tests/Kop/EntityDump.h"
#include "tests/Support/Process.h"
#include "tests/Support/Testing.h"

// Servers and clients over real sockets in a directory of their own.

namespace HivelTest {

using namespace std::literals;
using namespace Hivel;
using Bytes = std::vector<U8>;
using Garden::Plot;
using Kop::Ptr;
using Support::TempDir;

constexpr auto patience = 20s;

// Nothing, when there is no entity.
template <class T>
EntityDump dump(const Ptr<T>& entity) {
  return entity ? ::dump(*entity) : EntityDump();
}

// One random write among few keys, so that keys are deleted and come back.
void scribble(Plot& plot, std::minstd_rand& random);
Ptr<Plot> somePlot(const char* name = "p");
inline Ptr<Plot> plotOf(const Ptr<Kop::Entity>& entity) {
  return Ptr<Plot>(dynamic_cast<Plot*>(entity.get()));
}
inline bool isLive(const Mount& mount) {
  return mount.state() == Mount::State::live;
}

ServerOptions serverOptions(const TempDir& dir);
ClientOptions clientOptions(const TempDir& dir, const std::string& name = "test");

// Whatever has something to do.
class Loop {
 public:
  template <class Party>
  void add(Party& party) {
    parties_.emplace_back(&party, [&party] {
      party.process();
      return party.wants();
    });
  }
  void remove(const void* party) {
    std::erase_if(parties_, [&](const auto& each) { return each.first == party; });
  }
  // Runs everybody until the predicate holds; false when patience is over.
  bool until(const std::function<bool()>& predicate,
             std::chrono::milliseconds timeout = patience);
  void run(std::chrono::milliseconds time) {
    until([] { return false; }, time);
  }

 private:
  std::vector<std::pair<const void*, std::function<bool()>>> parties_;
};

// A connection that sends whatever a test likes.
class Raw {
 public:
  explicit Raw(const TempDir& dir, const std::string& bytes = {});
  ~Raw();
  Raw(const Raw&) = delete;
  Raw& operator=(const Raw&) = delete;
  // What has come until now; whether the other side has closed.
  bool receive();
  std::string error();  // the reason of an error frame among what came, or empty

 private:
  int fd_;
  FrameReader frames_{1 << 24};
};

// A server in this process, with what it logged, and clients under its loop.
class HivelServer : public testing::Test {
 protected:
  void serve(ServerOptions options);
  void serve() { serve(serverOptions(dir)); }
  Client& client(const std::string& name = "test");
  void ends(Client& client);
  static MountOptions all(const Ptr<Plot>& plot) { return {plot, {}, true}; }
  bool live(const Mount& mount) {
    return loop.until([&] { return mount.settled(); }) && isLive(mount);
  }
  std::string refusal(const Mount& mount);
  bool follows(const Mount& mount, const Ptr<Plot>& plot) {
    return loop.until(
        [&] { return isLive(mount) && dump(mount.entity()) == dump(plot); });
  }
  std::string errorOf(Raw& raw);  // with which the server closes
  bool synced(Client& client);    // whether the server has applied all that was written

  TempDir dir;
  std::vector<std::string> warnings;  // the server's end may add to them
  Database database;
  Loop loop;
  std::size_t highWater = 256 << 10;  // of clients
  std::unique_ptr<Server> server;
  std::vector<std::unique_ptr<Client>> clients;
};

template <class Message>
Bytes frameOf(const Message& message) {
  Kop::NboAttrLog::Out out;
  encode(out, message);
  return Bytes(out.data(), out.data() + out.size());
}

}  // namespace HivelTest
