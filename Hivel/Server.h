#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Hivel/Database.h"
#include "Hivel/Status.h"

// Offers a database to other processes on a Unix-domain stream socket.
//
// Any number of clients may read a path, one at a time may write it. A path that a client
// writes and that does not exist is made, from the type's name, and mounted in the database
// when the client's first state has arrived in full; it stays when the client leaves. While
// a client writes a path, the entity refuses writes of this process.
//
// Host's loop:
//   for (;;) {
//     while (server.wants()) server.process();  // sends what this process wrote
//     wait until server.fd() is readable;
//     server.process();
//   }
// Nothing here blocks, and no call handles more than a bounded amount per connection.
//
// Errors   only the constructor throws. What a client does wrong closes its connection, with
//          a reason that is told to it and to onLog.
// Owner    keeps a reference to the database; entities are shared with it.
// Threads  that of the database.

namespace Hivel {

// Who may do what below a prefix. The first rule that fits path and user decides; when no
// rule fits, both are refused. Paths that may not be read are not listed either.
struct Rule {
  std::string prefix;      // empty: everything
  std::optional<U32> uid;  // none: any user
  bool read = false;
  bool write = false;
};

// A rule as PREFIX:UID:RIGHTS; '*' for every path or user; r, w, rw or - for none.
// Errors   Kop::RangeException.
HIVEL_EXPORT Rule parseRule(std::string_view text);

struct ServerOptions {  // where to listen, whom to let do what
  std::string socketPath;
  U32 mode = 0660;           // of the socket
  U32 directoryMode = 0755;  // of the directories that are made for it
  std::string name = "hivel";
  std::vector<Rule> rules;  // empty: who may connect may do everything
  U32 maxConnections = 256;
  std::size_t highWater =
      256 << 10;  // bytes to a client after which changes are only marked
  std::size_t maxFrameSize = 16 << 20;  // bytes of one frame from a client
};

class HIVEL_EXPORT Server {  // a listening socket and its connections
 public:
  // Listens. A socket that nobody listens on any more is replaced; beside it stands a lock
  // file, "<socket>.lock", which decides between servers that start at the same time.
  //
  // Errors   SocketException: call, path, errno; "another server listens on <path>".
  Server(Database& database, ServerOptions options);
  // Closes the connections and removes the socket.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  int fd() const;      // an epoll descriptor, the same for the server's life
  bool wants() const;  // whether process() has something to do whatever fd() says
  void process();

  ServerStatus status() const;

  // One line per connection, mount, refusal and error. `isWarning` for refusals and errors.
  std::function<void(bool isWarning, const std::string& line)> onLog;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Hivel
