#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "Hivel/Server.h"
#include "Hivel/Socket.h"

// The inside of a server. Not installed.

namespace Hivel {

struct Peer;

// One mount of one connection.
struct PeerMount {
  enum class State : U8 {
    waiting,   // reads; for the path to appear
    reading,   // the session writes to the client
    adopting,  // likewise, before the client writes
    writing,   // the session reads from the client
    lost,      // the path went from under the writer, who has not yet said that it knows
  };
  U32 id;
  Peer& peer;
  std::string path;
  Mode mode;
  bool waits;
  std::string type;  // asked for; empty: any
  U64 clientRoot;    // identity of the client's root, 0: not known
  State state = State::waiting;
  bool pathStateDue = false;
  bool catchUpEnded = false;  // seen in the session, not yet acted upon
  std::unique_ptr<Kop::NboAttrLog::Session> session{};

  bool feeds() const {
    return session && (state == State::reading || state == State::adopting);
  }
  bool writes() const { return state == State::adopting || state == State::writing; }
};

// One connection.
struct Peer {
  Peer(U64 peerId, Fd fd, const ServerOptions& options)
      : id(peerId), connection(std::move(fd), options.highWater, maxHelloSize) {}

  U64 id;
  Connection connection;
  U32 pid = 0, uid = 0;
  std::string name;
  U64 instance = 0;
  bool hasHello = false;
  bool catchUpEnded = false;  // at one of its mounts
  bool doomed = false;        // closed at the end of process()
  std::string end;            // why
  bool isFault = false;       // of one of the two sides
  U32 events = 0;             // waited for
  U64 refusals = 0;
  std::set<std::string, std::less<>> modules{};  // that the client has
  std::map<U32, PeerMount> mounts{};
  std::map<U32, std::string> watches{};  // prefix by request

  Kop::NboAttrLog::Out& out() { return connection.stream.out(); }
  std::string text() const;  // "name (pid 12, uid 0)"
};

// What the server knows of a path that it offers, or that somebody waits for.
struct PathRecord {
  Kop::Ptr<Kop::Entity> entity;  // null: somebody waits for it
  bool inDatabase = false;       // false while its first writer brings it
  bool settled = true;
  U64 epoch = 0;
  U64 refusals = 0;
  PeerMount* writer = nullptr;
  std::vector<PeerMount*> readers;  // also the waiting ones
};

struct Server::Impl {
  Impl(Database& db, ServerOptions&& given, Server& owner);
  ~Impl();

  // Server.cpp: the socket and the loop.
  bool wants() const;
  void process();
  void acceptAll();
  void receive(Peer& peer);
  void drain(Peer& peer);
  void service(Peer& peer);
  void pump(Peer& peer);
  bool isBusy(Peer& peer) const;
  bool isFull(const Peer& peer) const;
  void close(Peer& peer);
  void fail(Peer& peer, bool lasting, const std::string& reason);
  void log(bool isWarning, const std::string& line) const;
  ServerStatus status() const;

  // ServerPeer.cpp: what clients ask.
  void dispatch(Peer& peer);
  void frame(Peer& peer, std::span<const U8> bytes);
  void hello(Peer& peer, const Frame::Hello& hello);
  void mount(Peer& peer, const Frame::Mount& request);
  void mountForWriting(PeerMount& mount, const Frame::Mount& request);
  void startWriting(PeerMount& mount, PathRecord& path);
  void startReading(PeerMount& mount, PathRecord& path);
  void adopted(Peer& peer, const Frame::Adopted& adopted);
  void unmount(Peer& peer, const Frame::Unmount& unmount);
  void list(Peer& peer, const Frame::List& list);
  bool isKnownTo(const Peer& peer, const Kop::Entity& root) const;
  void refuse(PeerMount& mount, const std::string& reason);
  void release(PeerMount& mount);
  void drop(PeerMount& mount);
  void forget(const std::string& path);
  void catchUpEnded(PeerMount& mount);
  void databaseEvent(const Database::Event& event);
  void tellPathState(PathRecord& path);
  void sendPathState(PeerMount& mount, const PathRecord& path);
  PeerMount& mountOf(Peer& peer, U32 id, const char* frame);
  bool isAllowed(const Peer& peer, std::string_view path, bool write) const;

  Server& server;
  Database& database;
  ServerOptions options;
  Listener listener;
  Fd epoll;
  Database::WatchId watch = 0;
  std::map<U64, std::unique_ptr<Peer>> peers;
  std::map<std::string, PathRecord, std::less<>> paths;
  U64 lastPeer = 0;
  U64 lastEpoch = 0;
  U64 accepted = 0, turnedAway = 0, refusals = 0, errors = 0;
  std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
};

}  // namespace Hivel
