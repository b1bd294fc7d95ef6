#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Hivel/Database.h"
#include "Hivel/Status.h"

// Mounts paths of a server's database in this process.
//
// A path is mounted for reading, which gives a replica that follows the server's and refuses
// local writes, or for writing, which makes the server's follow an entity of this process.
// Either way the entity stays usable when the server is lost: the client tries again, mounts
// everything anew and brings both sides to the same state. What an application sees of it is
// a change of state.
//
// Host's loop:
//   for (;;) {
//     while (client.wants()) client.process();  // sends what this process wrote
//     wait until client.fd() is readable;
//     client.process();
//   }
// or wait() for programs without a loop. Nothing but the calls that take a timeout blocks.
//
// Threads  one, that of the entities. Callbacks come from process() only and may call
//          everything here but process(), wait() and the destructor.

namespace Hivel {

class Client;

using std::chrono::milliseconds;

struct MountOptions {  // what is mounted, and whether it is waited for
  // Writing: the entity; may be null with `adopt` when `type` is given or the path exists.
  // Reading: an entity to fill, or null to have it made.
  Kop::Ptr<Kop::Entity> entity;
  std::string type;  // qualified name; what the path must hold, or be made of
  // Reading a path that does not exist: wait for it, or be refused. After a reconnection it
  // is always waited for, since its writer may come back later than we.
  bool waits = true;
};

// One mounted path.
//
// Owner    the client; valid until it is unmounted.
class HIVEL_EXPORT Mount {
 public:
  enum class State : U8 {
    asking,      // not yet answered, or the server is lost
    waiting,     // for the path to appear
    catchingUp,  // between two states
    live,        // writing: may be written, and writes go out as they happen
    refused,     // reason() says why; nothing more happens
  };

  const std::string& path() const { return path_; }
  Mode mode() const { return mode_; }
  State state() const { return state_; }
  const std::string& reason() const { return reason_; }
  bool settled() const { return state_ == State::live || state_ == State::refused; }

  // Null until the type is known. Reading: a read-only proxy.
  const Kop::Ptr<Kop::Entity>& entity() const { return entity_; }
  U64 epoch() const { return epoch_; }  // raised by each new writer
  const std::string& writer() const {
    return writer_;
  }  // "name (pid 12, uid 0)" or empty

  // Told after state() changed.
  std::function<void(Mount&)> onState;

 private:
  friend class Client;
  friend struct ClientImpl;
  Mount() = default;

  std::string path_;
  Mode mode_ = Mode::read;
  State state_ = State::asking;
  std::string reason_;
  std::string writer_;
  Kop::Ptr<Kop::Entity> entity_;
  U64 epoch_ = 0;
};

struct ClientOptions {  // whom to connect to, how patiently
  std::string socketPath;
  std::string name = "client";  // told to the server; others are shown it
  bool reconnect = true;
  milliseconds retryMin{50};  // first delay; doubles up to
  milliseconds retryMax{5000};
  std::size_t highWater = 256 << 10;  // bytes waiting after which changes are only marked
  std::size_t maxFrameSize = 16 << 20;  // bytes of one frame from the server
};

class HIVEL_EXPORT Client {  // a connection, and the paths mounted over it
 public:
  enum class State : U8 {
    connecting,
    connected,
    lost,     // reason() says why; tried again when options say so
    refused,  // the server closed with a reason; tried again at the longest delay
  };

  explicit Client(ClientOptions options);  // begins to connect
  ~Client();  // what is not handed to the socket is lost; see drained()
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  int fd() const;      // an epoll descriptor, the same for the client's life
  bool wants() const;  // whether process() has something to do whatever fd() says
  void process();
  // Processes until the predicate holds. False when the time is over before.
  bool wait(const std::function<bool()>& predicate, milliseconds timeout);

  State state() const;
  const std::string& reason() const;
  const std::string& serverName() const;  // empty before the first connection
  std::function<void(State, const std::string& reason)> onState;

  // Each path at most once at a time.
  //
  // Errors   Kop::RangeException for a bad path, a missing entity or a type that is not
  //          registered here; RefusedException when this client has the path mounted.
  Mount& mount(std::string_view path, Mode mode, MountOptions options = {});
  // Ends the mount. What was written before is still sent, if the server is not lost; a
  // replica may be written when the server has agreed. The path stays on the server, unless
  // it is removed: that takes a mount for writing.
  void unmount(std::string_view path, bool remove = false);
  Mount* find(std::string_view path) const;  // null when not mounted

  // Mounts and waits until the mount is live. Gives up when the server cannot be reached.
  // Errors   RefusedException: the reason, or that the server did not answer in time.
  Mount& mountAndWait(std::string_view path,
                      Mode mode,
                      MountOptions options,
                      milliseconds timeout);

  // Everything written so far was handed to the socket. False while the server is lost.
  bool drained() const;
  // Calls back when the server has applied everything written so far by this client, with
  // false when it cannot: a path was refused. Survives reconnections.
  void sync(std::function<void(bool applied)> done);
  bool syncAndWait(milliseconds timeout);

  // Paths below a prefix. Asked again after a reconnection until it is answered.
  void list(std::string_view prefix,
            std::function<void(const std::vector<PathInfo>&)> done);
  // RefusedException when the server cannot be reached or does not answer in time.
  std::vector<PathInfo> listAndWait(std::string_view prefix, milliseconds timeout);
  // Told of each path that appears (also those there already) or disappears.
  using WatchId = U64;
  WatchId watch(std::string_view prefix,
                std::function<void(const PathInfo&, bool appeared)> watcher);
  void unwatch(WatchId id);

  void status(std::function<void(const ServerStatus&)> done);
  ServerStatus statusAndWait(milliseconds timeout);  // as listAndWait

 private:
  friend struct ClientImpl;
  std::unique_ptr<struct ClientImpl> impl_;
};

}  // namespace Hivel
