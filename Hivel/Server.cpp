#include "Hivel/Server.h"

#include <charconv>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Hivel/ServerImpl.h"

namespace Hivel {

namespace {

constexpr int acceptsAtOnce = 16;
constexpr int piecesAtOnce = 4;  // of receivePiece, per connection and wake
constexpr std::size_t sendAtOnce = 1 << 20;
// What may wait for a client beside log messages: more of its requests are not read, and one
// that is told more by its watches is closed.
constexpr std::size_t answersLimit = 1 << 20;

}  // namespace

std::string Peer::text() const {
  return (name.empty() ? std::string("unnamed") : name) + " (pid " + std::to_string(pid) +
         ", uid " + std::to_string(uid) + ")";
}

Rule parseRule(std::string_view text) {
  const auto bad = [&](const std::string& what) {
    return Kop::RangeException("rule '" + std::string(text) + "': " + what +
                               "; write PREFIX:UID:RIGHTS, as in tunnel/decap:1000:rw");
  };
  const std::size_t first = text.find(':'), last = text.rfind(':');
  if (first == text.npos || first == last) throw bad("two ':' are needed");
  const std::string_view prefix = text.substr(0, first),
                         uid = text.substr(first + 1, last - first - 1),
                         rights = text.substr(last + 1);
  Rule rule;
  if (prefix != "*") {
    checkPath(prefix);
    rule.prefix = prefix;
  }
  if (uid != "*") {
    U32 number = 0;
    const auto [end, error] = std::from_chars(uid.begin(), uid.end(), number);
    if (error != std::errc() || end != uid.end())
      throw bad("'" + std::string(uid) + "' is no user number and not '*'");
    rule.uid = number;
  }
  if (rights != "r" && rights != "w" && rights != "rw" && rights != "-")
    throw bad("'" + std::string(rights) + "' is none of r, w, rw and -");
  rule.read = rights[0] == 'r';
  rule.write = rights.back() == 'w';
  return rule;
}

Server::Server(Database& database, ServerOptions options)
    : impl_(std::make_unique<Impl>(database, std::move(options), *this)) {}
Server::~Server() = default;

int Server::fd() const {
  return impl_->epoll.get();
}
bool Server::wants() const {
  return impl_->wants();
}
void Server::process() {
  impl_->process();
}
ServerStatus Server::status() const {
  return impl_->status();
}

Server::Impl::Impl(Database& db, ServerOptions&& given, Server& owner)
    : server(owner),
      database(db),
      options(std::move(given)),
      listener(options.socketPath, options.mode, options.directoryMode),
      epoll(epollMake()) {
  for (const Rule& rule : options.rules)
    checkPrefix(rule.prefix);
  epollAdd(epoll, listener.fd(), EPOLLIN, 0);
  for (const PathInfo& info : database.list()) {
    PathRecord& path = paths[info.path];
    path.entity = database.find(info.path);
    path.inDatabase = true;
  }
  watch = database.watch({}, [this](const Database::Event& e) { databaseEvent(e); });
}

Server::Impl::~Impl() {
  database.unwatch(watch);
  for (auto& [id, peer] : peers)
    fail(*peer, false, "the server ends");
  while (!peers.empty())
    close(*peers.begin()->second);
}

void Server::Impl::log(bool isWarning, const std::string& line) const {
  if (server.onLog) server.onLog(isWarning, line);
}

// ---- the loop ----

// What is under way at a connection whose descriptor will not say so by itself.
bool Server::Impl::isBusy(Peer& peer) const {
  if (!peer.out().empty()) return true;
  for (auto& [id, mount] : peer.mounts)
    if (mount.feeds() && (!mount.session->clean() || mount.pathStateDue)) return true;
  return false;
}

bool Server::Impl::isFull(const Peer& peer) const {
  return peer.connection.stream.out().size() > options.highWater + answersLimit;
}

bool Server::Impl::wants() const {
  for (const auto& [id, peer] : peers)
    if (peer->doomed || (!(peer->events & EPOLLOUT) && isBusy(*peer))) return true;
  return false;
}

void Server::Impl::process() {
  epoll_event events[64];
  const int count = ::epoll_wait(epoll.get(), events, std::size(events), 0);
  for (int i = 0; i < count; ++i) {
    const U64 key = events[i].data.u64;  // the kernel's structure is packed
    if (key == 0) {
      acceptAll();
    } else if (const auto at = peers.find(key); at != peers.end()) {
      if (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) receive(*at->second);
    }
  }
  for (auto& [id, peer] : peers)
    if (!peer->doomed) service(*peer);
  for (auto at = peers.begin(); at != peers.end();) {
    Peer& peer = *at->second;
    ++at;
    if (peer.doomed) close(peer);
  }
  // What was written for connections that had had their turn.
  for (auto& [id, peer] : peers)
    if (!peer->doomed && !(peer->events & EPOLLOUT) && isBusy(*peer)) service(*peer);
}

void Server::Impl::acceptAll() {
  for (int i = 0; i < acceptsAtOnce; ++i) {
    bool resources = true;
    Fd fd = listener.accept(resources);
    if (!resources) {
      ++turnedAway;
      log(true, "a connection was turned away: no descriptor is left");
    }
    if (!fd) return;
    ++accepted;
    auto peer = std::make_unique<Peer>(lastPeer + 1, std::move(fd), options);
    ucred who{};
    socklen_t size = sizeof who;
    if (::getsockopt(peer->connection.fd().get(), SOL_SOCKET, SO_PEERCRED, &who, &size) ==
        0) {
      peer->pid = static_cast<U32>(who.pid);
      peer->uid = who.uid;
    } else {
      peer->uid = ~U32{0};  // nobody that a rule names
    }
    encode(peer->out(), helloOf(options.name, 0));
    if (peers.size() >= options.maxConnections) {
      ++turnedAway;
      const std::string reason =
          "the server has its " + std::to_string(options.maxConnections) + " connections";
      log(true, "pid " + std::to_string(peer->pid) + " was turned away: " + reason);
      encode(peer->out(), Frame::Error{true, reason});
      peer->connection.send(sendAtOnce);
      continue;
    }
    peer->events = EPOLLIN;
    epollAdd(epoll, peer->connection.fd(), EPOLLIN, ++lastPeer);
    peers.emplace(lastPeer, std::move(peer));
  }
}

void Server::Impl::receive(Peer& peer) {
  for (int i = 0; i < piecesAtOnce && !peer.doomed; ++i) {
    if (isFull(peer)) return;
    const auto io = peer.connection.receive();
    if (io == Connection::Io::closed) {
      peer.doomed = true;
      peer.end = peer.connection.reason();
      return;
    }
    dispatch(peer);
    if (io == Connection::Io::blocked) return;
  }
}

// The client takes nothing any more; what it wrote before it left still counts.
void Server::Impl::drain(Peer& peer) {
  const std::string end = peer.connection.reason();
  for (auto io = Connection::Io::done; io == Connection::Io::done && !peer.doomed;) {
    peer.out().clear();
    io = peer.connection.receive();
    if (io != Connection::Io::closed) dispatch(peer);
  }
  peer.doomed = true;
  peer.end = end;
}

void Server::Impl::pump(Peer& peer) {
  for (auto& [id, mount] : peer.mounts) {
    if (!mount.feeds()) continue;
    const PathRecord& path = paths.at(mount.path);
    // That the path is between two states comes before the changes, that it no longer is,
    // behind the last of them.
    if (mount.pathStateDue && !path.settled) sendPathState(mount, path);
    mount.session->process();
    if (mount.pathStateDue) sendPathState(mount, path);
  }
}

void Server::Impl::service(Peer& peer) {
  pump(peer);
  if (peer.connection.send(sendAtOnce) == Connection::Io::closed) return drain(peer);
  // Requests that were left unread while too much was waiting.
  if (!isFull(peer)) dispatch(peer);
  if (peer.doomed) return;
  const U32 events =
      (isFull(peer) ? 0u : U32{EPOLLIN}) | (isBusy(peer) ? U32{EPOLLOUT} : 0u);
  if (events == peer.events) return;
  peer.events = events;
  epollMod(epoll, peer.connection.fd(), events, peer.id);
}

void Server::Impl::fail(Peer& peer, bool lasting, const std::string& reason) {
  if (peer.doomed) return;
  peer.doomed = true;
  peer.end = reason;
  peer.isFault = lasting;
  if (lasting) ++errors;
  encode(peer.out(), Frame::Error{lasting, reason});
}

void Server::Impl::close(Peer& peer) {
  log(peer.isFault, "connection " + std::to_string(peer.id) + ", " + peer.text() +
                        (peer.isFault ? ", closed: " : ", ended: ") + peer.end);
  peer.connection.send(~std::size_t{0});
  while (!peer.mounts.empty())
    drop(peer.mounts.begin()->second);
  peers.erase(peer.id);
}

ServerStatus Server::Impl::status() const {
  ServerStatus s;
  s.name = options.name;
  s.pid = static_cast<U32>(::getpid());
  s.uptime = static_cast<U64>(std::chrono::duration_cast<std::chrono::seconds>(
                                  std::chrono::steady_clock::now() - started)
                                  .count());
  s.accepted = accepted;
  s.turnedAway = turnedAway;
  s.refusals = refusals;
  s.errors = errors;
  for (const auto& [id, peer] : peers) {
    ConnectionStatus& c = s.connections.emplace_back();
    const auto& counters = peer->connection.stream.counters();
    c.id = id;
    c.client = peer->name;
    c.pid = peer->pid;
    c.uid = peer->uid;
    for (const auto& [number, mount] : peer->mounts)
      ++(mount.mode == Mode::read ? c.reads : c.writes);
    c.messagesIn = counters.messagesIn;
    c.messagesOut = counters.messagesOut;
    c.bytesIn = peer->connection.bytesIn;
    c.bytesOut = peer->connection.bytesOut;
    c.bytesWaiting = peer->connection.stream.out().size();
    c.coalesced = counters.coalesced;
    c.catchUps = counters.catchUps;
    c.refusals = peer->refusals;
  }
  for (const auto& [name, path] : paths) {
    PathStatus& p = s.paths.emplace_back();
    p.path = name;
    if (path.entity) p.type = typeNameOf(*path.entity);
    if (path.writer) p.writer = path.writer->peer.text();
    p.epoch = path.epoch;
    for (const PeerMount* mount : path.readers)
      ++(mount->feeds() ? p.readers : p.waiting);
    p.refusals = path.refusals;
  }
  return s;
}

}  // namespace Hivel
