#include <algorithm>

#include "Hivel/ServerImpl.h"
#include "Kop/Module.h"

// What the server does with the frames of its clients.

namespace Hivel {

using Kop::NboAttrLog::Session;

namespace {

constexpr std::size_t maxMounts = 4096;   // of one connection
constexpr std::size_t maxWatches = 1024;  // of one connection

}  // namespace

// Anything wrong ends the connection and nothing else.
void Server::Impl::dispatch(Peer& peer) {
  try {
    while (!peer.doomed && !isFull(peer)) {
      const auto bytes = peer.connection.frames.next();
      if (!bytes) return;
      frame(peer, *bytes);
    }
  } catch (const Kop::Exception& e) {
    fail(peer, true, e.what());
  } catch (const std::exception& e) {
    fail(peer, true, std::string("the server failed: ") + e.what());
  }
}

void Server::Impl::frame(Peer& peer, std::span<const U8> bytes) {
  const U8 kind = bytes[0];
  if (!peer.hasHello) {
    if (kind != static_cast<U8>(FrameKind::hello))
      throw ProtocolException(Kop::stringPrintf(
          "not a peer of this protocol: the first frame has kind %u, not %u", kind,
          static_cast<U8>(FrameKind::hello)));
    return hello(peer, decodeHello(bytes));
  }
  if (kind <= maxLogKind) {
    peer.connection.stream.received(bytes);
    // A session cannot be ended from within itself, so what it saw is acted upon here.
    if (std::exchange(peer.catchUpEnded, false))
      for (auto& [id, mount] : peer.mounts)
        if (mount.catchUpEnded) catchUpEnded(mount);
    return;
  }
  switch (static_cast<FrameKind>(kind)) {
    case FrameKind::mount: return mount(peer, decode<Frame::Mount>(bytes));
    case FrameKind::adopted: return adopted(peer, decode<Frame::Adopted>(bytes));
    case FrameKind::unmount: return unmount(peer, decode<Frame::Unmount>(bytes));
    case FrameKind::list: return list(peer, decode<Frame::List>(bytes));
    case FrameKind::unwatch:
      peer.watches.erase(decode<Frame::Unwatch>(bytes).number);
      return;
    case FrameKind::sync:
      return encode(peer.out(), Frame::Synced{decode<Frame::Sync>(bytes).number});
    case FrameKind::status:
      return encode(peer.out(),
                    Frame::StatusIs{decode<Frame::Status>(bytes).number, status()});
    case FrameKind::error: {
      peer.doomed = peer.isFault = true;
      peer.end = "the client says: " + printable(decode<Frame::Error>(bytes).reason);
      return;
    }
    default:
      throw ProtocolException(
          frameName(kind)
              ? Kop::stringPrintf("a client sends no %s frame now", frameName(kind))
              : Kop::stringPrintf("unknown frame kind %u", kind));
  }
}

void Server::Impl::hello(Peer& peer, const Frame::Hello& hello) {
  checkHello(helloOf(options.name, 0), hello);
  peer.name = printable(hello.name, maxNameSize);
  peer.instance = hello.instance;
  for (const auto& module : hello.modules)
    peer.modules.insert(module.name);
  peer.hasHello = true;
  peer.connection.frames.maxFrameSizeIs(options.maxFrameSize);
  log(false, "connection " + std::to_string(peer.id) + " from " + peer.text());
  // A client that comes back may be here before its old connection's end was noticed.
  for (auto& [id, other] : peers)
    if (hello.instance != 0 && other.get() != &peer &&
        other->instance == hello.instance && other->pid == peer.pid &&
        other->uid == peer.uid && !other->doomed) {
      fail(*other, false, "the client has come back on another connection");
      while (!other->mounts.empty())
        drop(other->mounts.begin()->second);
    }
}

bool Server::Impl::isAllowed(const Peer& peer, std::string_view path, bool write) const {
  if (options.rules.empty()) return true;
  for (const Rule& rule : options.rules)
    if (isCovered(path, rule.prefix) && (!rule.uid || *rule.uid == peer.uid))
      return write ? rule.write : rule.read;
  return false;
}

// ---- mounting ----

// Whether the client can make such an entity. Digests of modules that both have are equal.
bool Server::Impl::isKnownTo(const Peer& peer, const Kop::Entity& root) const {
  const Kop::TypeRecord& type = Kop::typeRecord(root.fwkType());
  const Kop::ModuleDescriptor* const module = Kop::moduleOf(type);
  return type.entity && type.entity->make && module &&
         peer.modules.contains(module->name);
}

void Server::Impl::refuse(PeerMount& mount, const std::string& reason) {
  Peer& peer = mount.peer;
  ++refusals;
  ++peer.refusals;
  if (const auto at = paths.find(mount.path); at != paths.end()) ++at->second.refusals;
  log(true, "refused " + peer.text() + " to " +
                (mount.mode == Mode::read ? "read " : "write ") + printable(mount.path) +
                ": " + reason);
  encode(peer.out(), Frame::Refused{mount.id, reason});
  drop(mount);
}

void Server::Impl::mount(Peer& peer, const Frame::Mount& request) {
  if (peer.mounts.size() >= maxMounts)
    throw ProtocolException(Kop::stringPrintf("more than %zu mounts", maxMounts));
  for (const auto& [id, other] : peer.mounts)
    if (other.path == request.path && other.state != PeerMount::State::lost)
      throw ProtocolException("path '" + printable(request.path) +
                              "' is mounted twice by one client");
  const auto [at, isNew] = peer.mounts.try_emplace(
      request.mount, PeerMount{request.mount, peer, request.path, request.mode,
                               request.waits, request.type, request.rootIdentity});
  if (!isNew)
    throw ProtocolException(Kop::stringPrintf("mount %u is given twice", request.mount));
  PeerMount& mount = at->second;
  const bool writes = request.mode != Mode::read;
  try {
    checkPath(request.path);
  } catch (const Kop::RangeException& e) {
    return refuse(mount, e.what());
  }
  if (!isAllowed(peer, request.path, writes))
    return refuse(mount, "uid " + std::to_string(peer.uid) + " may not " +
                             (writes ? "write" : "read") + " this path");
  if (writes) return mountForWriting(mount, request);

  const auto known = paths.find(request.path);
  const bool isThere = known != paths.end() && known->second.inDatabase;
  if (!isThere && !request.waits) return refuse(mount, "nothing is mounted there");
  PathRecord& path = paths[request.path];
  path.readers.push_back(&mount);
  if (isThere) return startReading(mount, path);
  encode(peer.out(), Frame::Waiting{mount.id});
}

void Server::Impl::mountForWriting(PeerMount& mount, const Frame::Mount& request) {
  const auto known = paths.find(mount.path);
  const bool exists = known != paths.end() && known->second.entity;
  std::string type = mount.type;
  if (exists) {
    PathRecord& path = known->second;
    const std::string there(typeNameOf(*path.entity));
    if (path.writer) return refuse(mount, "it is written by " + path.writer->peer.text());
    if (database.writers(mount.path) != Database::Writers::remote)
      return refuse(mount, "it is written by the server's own process");
    if (!type.empty() && type != there)
      return refuse(mount, "it holds an entity of type " + there + ", not " +
                               printable(type, maxNameSize));
    if (!isKnownTo(mount.peer, *path.entity))
      return refuse(mount, "it holds an entity of type " + there +
                               ", which the client does not know");
    type = there;
  } else if (type.empty()) {
    return refuse(mount, "nothing is mounted there and no type is given");
  }
  Kop::Ptr<Kop::Entity> entity = exists ? known->second.entity : nullptr;
  if (!exists) {
    const Kop::TypeRecord* const record = Kop::findType(type);
    if (!record || !record->entity || !record->entity->make)
      return refuse(mount, "the server has no type " + printable(type, maxNameSize) +
                               " that can be a root");
    entity = record->entity->make(
        request.rootName.empty() ? lastPart(mount.path) : Kop::String(request.rootName));
  }
  PathRecord& path = paths[mount.path];
  path.entity = entity;
  path.writer = &mount;
  path.epoch = ++lastEpoch;
  Frame::Mounted answer{
      mount.id, type,        std::string(std::string_view(entity->name())), 0, path.epoch,
      {},       path.settled};
  log(false, mount.peer.text() + " writes " + mount.path);
  if (exists && mount.mode == Mode::adopt) answer.rootIdentity = entity->identity();
  encode(mount.peer.out(), answer);
  if (mount.mode == Mode::adopt) {
    mount.state = PeerMount::State::adopting;
    if (exists) {
      Session::readOnlyIs(*entity, true);
      mount.session = std::make_unique<Session>(mount.peer.connection.stream, entity,
                                                Session::writes);
      mount.session->resync();
    }
  } else {
    startWriting(mount, path);
  }
  tellPathState(path);
}

void Server::Impl::startWriting(PeerMount& mount, PathRecord& path) {
  if (mount.clientRoot == 0)
    throw ProtocolException("the root of mount " + std::to_string(mount.id) +
                            ", which is to be written, has no identity");
  mount.session.reset();
  mount.session = std::make_unique<Session>(mount.peer.connection.stream, path.entity,
                                            Session::reads, mount.clientRoot);
  mount.state = PeerMount::State::writing;
  mount.session->onCatchUp = [this, &mount](bool begins, bool) {
    if (mount.state != PeerMount::State::writing) return;
    if (!begins) {
      mount.catchUpEnded = mount.peer.catchUpEnded = true;
    } else if (PathRecord& written = paths.at(mount.path); written.settled) {
      written.settled = false;
      tellPathState(written);
    }
  };
}

void Server::Impl::adopted(Peer& peer, const Frame::Adopted& adopted) {
  PeerMount& mount = mountOf(peer, adopted.mount, "adopted");
  if (mount.state == PeerMount::State::lost) return;
  if (mount.state != PeerMount::State::adopting)
    throw ProtocolException("adopted frame for a path that is not being adopted");
  mount.clientRoot = adopted.rootIdentity;
  startWriting(mount, paths.at(mount.path));
}

void Server::Impl::catchUpEnded(PeerMount& mount) {
  mount.catchUpEnded = false;
  if (mount.state != PeerMount::State::writing) return;
  PathRecord& path = paths.at(mount.path);
  path.settled = true;
  if (path.inDatabase) return tellPathState(path);
  try {
    database.mount(mount.path, path.entity, Database::Writers::remote);
  } catch (const Kop::Exception& e) {
    mount.state = PeerMount::State::lost;
    path.writer = nullptr;
    encode(mount.peer.out(), Frame::Gone{mount.id, e.what()});
  }
}

void Server::Impl::startReading(PeerMount& mount, PathRecord& path) {
  const std::string there(typeNameOf(*path.entity));
  if (!mount.type.empty() && mount.type != there)
    return refuse(mount, "it holds an entity of type " + there + ", not " +
                             printable(mount.type, maxNameSize));
  Peer& peer = mount.peer;
  if (!isKnownTo(peer, *path.entity))
    return refuse(mount, "it holds an entity of type " + there +
                             ", which the client does not know");
  encode(peer.out(),
         Frame::Mounted{
             mount.id, there, std::string(std::string_view(path.entity->name())),
             path.entity->identity(), path.epoch,
             path.writer ? path.writer->peer.text() : std::string(), path.settled});
  // With the root's name at the client known, a message from there is told from garbage.
  const bool named = mount.clientRoot != 0;
  mount.session = std::make_unique<Session>(peer.connection.stream, path.entity,
                                            named ? Session::both : Session::writes,
                                            mount.clientRoot);
  mount.session->remoteReadOnlyIs(true);
  mount.state = PeerMount::State::reading;
  mount.pathStateDue = false;
  mount.session->resync();
  log(false, peer.text() + " reads " + mount.path);
}

// ---- leaving ----

PeerMount& Server::Impl::mountOf(Peer& peer, U32 id, const char* frame) {
  const auto at = peer.mounts.find(id);
  if (at == peer.mounts.end())
    throw ProtocolException(
        Kop::stringPrintf("%s frame for the unknown mount %u", frame, id));
  return at->second;
}

// Takes the mount out of its path. The state a writer leaves stays, as it is.
void Server::Impl::release(PeerMount& mount) {
  const auto at = paths.find(mount.path);
  if (at == paths.end()) return;
  PathRecord& path = at->second;
  std::erase(path.readers, &mount);
  if (path.writer == &mount) {
    path.writer = nullptr;
    mount.session.reset();
    Session::readOnlyIs(*path.entity, false);
    if (!path.inDatabase)
      path.entity = nullptr;
    else
      tellPathState(path);
  }
  forget(mount.path);
}

void Server::Impl::drop(PeerMount& mount) {
  release(mount);
  if (mount.state == PeerMount::State::lost && mount.session)
    Session::readOnlyIs(*mount.session->root(), false);
  mount.peer.mounts.erase(mount.id);
}

void Server::Impl::forget(const std::string& name) {
  const auto at = paths.find(name);
  if (at != paths.end() && !at->second.entity && !at->second.writer &&
      at->second.readers.empty())
    paths.erase(at);
}

void Server::Impl::unmount(Peer& peer, const Frame::Unmount& unmount) {
  // A refusal may have crossed the client's wish to leave.
  if (!peer.mounts.contains(unmount.mount))
    return encode(peer.out(), Frame::Unmounted{unmount.mount});
  PeerMount& mount = mountOf(peer, unmount.mount, "unmount");
  const std::string path = mount.path;
  const bool removes = unmount.remove && mount.state == PeerMount::State::writing &&
                       paths.at(path).inDatabase;
  log(false, peer.text() + " leaves " + path);
  drop(mount);
  if (removes) database.unmount(path);
  encode(peer.out(), Frame::Unmounted{unmount.mount});
}

// ---- changes of paths ----

void Server::Impl::databaseEvent(const Database::Event& event) {
  for (auto& [id, peer] : peers) {
    if (peer->doomed || !isAllowed(*peer, event.path, false)) continue;
    for (const auto& [request, prefix] : peer->watches)
      if (isCovered(event.path, prefix))
        encode(peer->out(), Frame::ListEntry{request, event.mounted, event.path,
                                             std::string(typeNameOf(*event.entity))});
    if (isFull(*peer)) fail(*peer, true, "more waits for the client than it reads");
  }
  if (event.mounted) {
    PathRecord& path = paths[event.path];
    if (path.writer && path.entity != event.entity) {
      // This process was faster than a client that brings the same path.
      PeerMount& writer = *path.writer;
      path.writer = nullptr;
      writer.state = PeerMount::State::lost;
      encode(writer.peer.out(),
             Frame::Gone{writer.id, "the server's own process has mounted it"});
    }
    path.entity = event.entity;
    path.inDatabase = true;
    path.settled = true;
    const std::vector<PeerMount*> readers = path.readers;
    for (PeerMount* const mount : readers)
      if (mount->state == PeerMount::State::waiting) {
        Peer& peer = mount->peer;
        try {
          startReading(*mount, path);
        } catch (const Kop::Exception& e) {
          fail(peer, true, e.what());
        }
      }
    return;
  }
  const auto at = paths.find(event.path);
  if (at == paths.end()) return;
  PathRecord& path = at->second;
  path.entity = nullptr;
  path.inDatabase = false;
  path.settled = true;
  if (PeerMount* const writer = std::exchange(path.writer, nullptr)) {
    writer->state = PeerMount::State::lost;
    encode(writer->peer.out(), Frame::Gone{writer->id, "the server has unmounted it"});
  }
  const std::vector<PeerMount*> readers = path.readers;
  for (PeerMount* const mount : readers) {
    if (!mount->feeds()) continue;
    mount->session.reset();
    mount->state = PeerMount::State::waiting;
    mount->pathStateDue = false;
    encode(mount->peer.out(), Frame::Gone{mount->id, "the server has unmounted it"});
    if (!mount->waits) drop(*mount);
  }
  forget(event.path);
}

void Server::Impl::sendPathState(PeerMount& mount, const PathRecord& path) {
  const bool isInOrder = !path.settled || mount.session->clean();
  mount.pathStateDue = !isInOrder || !mount.peer.connection.stream.continueFlowOut();
  if (mount.pathStateDue) return;
  encode(mount.peer.out(),
         Frame::PathState{mount.id, path.epoch,
                          path.writer ? path.writer->peer.text() : std::string(),
                          path.settled});
}

void Server::Impl::tellPathState(PathRecord& path) {
  for (PeerMount* const mount : path.readers)
    if (mount->feeds()) sendPathState(*mount, path);
}

void Server::Impl::list(Peer& peer, const Frame::List& list) {
  checkPrefix(list.prefix);
  if (list.watch && peer.watches.size() >= maxWatches)
    throw ProtocolException(Kop::stringPrintf("more than %zu watches", maxWatches));
  for (PathInfo& info : database.list(list.prefix))
    if (isAllowed(peer, info.path, false))
      encode(peer.out(), Frame::ListEntry{list.request, true, std::move(info.path),
                                          std::move(info.type)});
  encode(peer.out(), Frame::ListEnd{list.request});
  if (list.watch) peer.watches[list.request] = list.prefix;
}

}  // namespace Hivel
