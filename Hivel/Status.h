#pragma once

#include <string>
#include <vector>

#include "Kop/Types.h"

// What a server tells of itself. Counters run from the start of the server or connection.

namespace Hivel {

struct ConnectionStatus {  // one client
  U64 id = 0;              // in order of acceptance, from 1
  std::string client;      // the name it gave
  U32 pid = 0, uid = 0;
  U32 reads = 0, writes = 0;            // paths mounted now
  U64 messagesIn = 0, messagesOut = 0;  // of the attribute log
  U64 bytesIn = 0, bytesOut = 0;        // on the socket
  U64 bytesWaiting = 0;                 // not yet taken by the socket
  U64 coalesced = 0;                    // changes that an unsent one covers
  U64 catchUps = 0;
  U64 refusals = 0;  // mounts refused
  bool operator==(const ConnectionStatus&) const = default;
};

struct PathStatus {  // one mounted path
  std::string path;
  std::string type;
  std::string
      writer;     // "name (pid 12, uid 0)"; empty: nobody writes, or the server's process
  U64 epoch = 0;  // raised by each new writer
  U32 readers = 0;
  U32 waiting = 0;  // readers that wait for the path to appear
  U64 refusals = 0;
  bool operator==(const PathStatus&) const = default;
};

struct ServerStatus {  // the server, its clients and its paths
  std::string name;
  U32 pid = 0;
  U64 uptime = 0;      // seconds
  U64 accepted = 0;    // connections
  U64 turnedAway = 0;  // connections over the limit
  U64 refusals = 0;    // mounts refused
  U64 errors = 0;      // connections closed for what their peer sent
  std::vector<ConnectionStatus> connections;
  std::vector<PathStatus> paths;
  bool operator==(const ServerStatus&) const = default;
};

}  // namespace Hivel
