#include <algorithm>

#include "Hivel/ClientImpl.h"
#include "Kop/Module.h"

// What a client and its server say about mounts and requests.

namespace Hivel {

using Kop::NboAttrLog::Session;
using Stage = HeldMount::Stage;

void ClientImpl::dispatch() {
  try {
    while (connection) {
      const auto bytes = connection->frames.next();
      if (!bytes) return;
      frame(*bytes);
    }
  } catch (const Kop::Exception& e) {
    if (connection) failWith(e.what());
  }
}

void ClientImpl::frame(std::span<const U8> bytes) {
  const U8 kind = bytes[0];
  if (kind == static_cast<U8>(FrameKind::error)) {
    const auto error = decode<Frame::Error>(bytes);
    return lose(error.lasting ? Client::State::refused : Client::State::lost,
                "the server says: " + printable(error.reason));
  }
  if (!hasHello) {
    if (kind != static_cast<U8>(FrameKind::hello))
      throw ProtocolException(Kop::stringPrintf(
          "not a peer of this protocol: the first frame has kind %u, not %u", kind,
          static_cast<U8>(FrameKind::hello)));
    const auto hello = decodeHello(bytes);
    checkHello(helloOf(options.name, instance), hello);
    hasHello = true;
    serverName = printable(hello.name, maxNameSize);
    delay = options.retryMin;
    return stateIs(Client::State::connected, {});
  }
  if (kind <= maxLogKind) {
    connection->stream.received(bytes);
    // A session cannot be ended from within itself, so what it saw is acted upon here.
    if (std::exchange(anyCatchUp, false)) {
      for (auto& [path, held] : mounts)
        if (std::exchange(held->catchUpEnded, false)) catchUpEnded(*held);
    }
    return;
  }
  switch (static_cast<FrameKind>(kind)) {
    case FrameKind::mounted: return mounted(decode<Frame::Mounted>(bytes));
    case FrameKind::waiting: {
      HeldMount& held = heldOf(decode<Frame::Waiting>(bytes).number, "waiting");
      if (held.stage == Stage::asked) held.stage = Stage::waiting;
      return;
    }
    case FrameKind::refused: {
      const auto refused = decode<Frame::Refused>(bytes);
      // The server has forgotten the mount already.
      HeldMount& held = heldOf(refused.mount, "refused");
      if (held.stage == Stage::left) return unmounted(refused.mount);
      return refuse(held, printable(refused.reason));
    }
    case FrameKind::pathState: {
      const auto path = decode<Frame::PathState>(bytes);
      HeldMount& held = heldOf(path.mount, "pathState");
      held.mount->epoch_ = path.epoch;
      held.mount->writer_ = printable(path.writer);
      held.pathSettled = path.settled;
      return;
    }
    case FrameKind::gone: {
      const auto frame = decode<Frame::Gone>(bytes);
      return gone(heldOf(frame.mount, "gone"), printable(frame.reason));
    }
    case FrameKind::unmounted: return unmounted(decode<Frame::Unmounted>(bytes).number);
    case FrameKind::listEntry: return listEntry(decode<Frame::ListEntry>(bytes));
    case FrameKind::listEnd: return listEnd(decode<Frame::ListEnd>(bytes).number);
    case FrameKind::synced: {
      const auto at = requests.find(decode<Frame::Synced>(bytes).number);
      if (at == requests.end() || at->second.kind != Request::Kind::sync) return;
      todo.push_back([done = std::move(at->second.onSync)] { done(true); });
      requests.erase(at);
      return;
    }
    case FrameKind::statusIs: {
      auto status = decode<Frame::StatusIs>(bytes);
      const auto at = requests.find(status.request);
      if (at == requests.end() || at->second.kind != Request::Kind::status) return;
      todo.push_back([done = std::move(at->second.onStatus),
                      is = std::move(status.status)] { done(is); });
      requests.erase(at);
      return;
    }
    default:
      throw ProtocolException(
          frameName(kind)
              ? Kop::stringPrintf("a server sends no %s frame now", frameName(kind))
              : Kop::stringPrintf("unknown frame kind %u", kind));
  }
}

HeldMount* ClientImpl::findById(U32 id) {
  for (auto& [path, held] : mounts)
    if (held->id == id && held->stage != Stage::unasked) return held.get();
  for (auto& held : leaving)
    if (held->id == id) return held.get();
  return nullptr;
}

HeldMount& ClientImpl::heldOf(U32 id, const char* frame) {
  HeldMount* const held = findById(id);
  if (!held)
    throw ProtocolException(
        Kop::stringPrintf("%s frame for the unknown mount %u", frame, id));
  return *held;
}

// ---- mounts ----

void ClientImpl::ask(HeldMount& held) {
  const Mount& mount = *held.mount;
  held.id = ++lastMount;
  held.waits = held.waits || held.isKnown;
  held.stage = Stage::asked;
  Frame::Mount request;
  request.mount = held.id;
  request.mode = held.writes() && held.isTruth ? Mode::replace : mount.mode();
  request.waits = held.waits;
  request.path = mount.path();
  request.type = held.type;
  if (mount.entity()) {
    request.rootName = std::string_view(mount.entity()->name());
    request.rootIdentity = mount.entity()->identity();
  }
  encode(connection->stream.out(), request);
}

void ClientImpl::mounted(const Frame::Mounted& answer) {
  HeldMount& held = heldOf(answer.mount, "mounted");
  if (held.stage == Stage::left) return;  // its end is under way already
  if (held.stage != Stage::asked && held.stage != Stage::waiting)
    throw ProtocolException(
        Kop::stringPrintf("mount %u is answered twice", answer.mount));
  Mount& mount = *held.mount;
  mount.epoch_ = answer.epoch;
  mount.writer_ = printable(answer.writer);
  held.pathSettled = answer.settled;
  held.isKnown = true;
  if (!mount.entity_) {
    const Kop::TypeRecord* const type = Kop::findType(answer.type);
    if (!type || !type->entity || !type->entity->make)
      throw ProtocolException(
          "mounted path '" + mount.path() + "' holds an entity of type " +
          printable(answer.type, maxNameSize) + ", which is not known here");
    mount.entity_ = type->entity->make(
        answer.rootName.empty() ? lastPart(mount.path()) : Kop::String(answer.rootName));
  } else if (answer.type != typeNameOf(*mount.entity_)) {
    throw ProtocolException("mounted path '" + mount.path() +
                            "' holds an entity of type " +
                            printable(answer.type, maxNameSize) + ", not " +
                            std::string(typeNameOf(*mount.entity_)));
  }
  held.type = typeNameOf(*mount.entity_);
  if (mount.mode() == Mode::read) return follow(held, answer.rootIdentity);
  if (held.isTruth) return write(held);
  if (answer.rootIdentity != 0) return follow(held, answer.rootIdentity);
  encode(connection->stream.out(), Frame::Adopted{held.id, mount.entity_->identity()});
  write(held);
}

void ClientImpl::follow(HeldMount& held, U64 rootIdentity) {
  held.session = std::make_unique<Session>(connection->stream, held.mount->entity(),
                                           Session::reads, rootIdentity);
  held.session->onCatchUp = [this, &held](bool begins, bool) {
    if (!begins) held.catchUpEnded = anyCatchUp = true;
  };
  held.stage = Stage::following;
}

void ClientImpl::write(HeldMount& held) {
  held.isTruth = true;
  held.session.reset();
  Session::readOnlyIs(*held.mount->entity(), false);
  held.session = std::make_unique<Session>(connection->stream, held.mount->entity(),
                                           Session::writes);
  held.session->resync();
  held.stage = Stage::writing;
}

void ClientImpl::catchUpEnded(HeldMount& held) {
  held.caughtUp = true;
  if (!held.writes() || held.stage != Stage::following) return;
  encode(connection->stream.out(),
         Frame::Adopted{held.id, held.mount->entity()->identity()});
  write(held);
}

void ClientImpl::gone(HeldMount& held, const std::string& why) {
  if (held.stage == Stage::left) return;
  if (held.writes()) encode(connection->stream.out(), Frame::Unmount{held.id, false});
  held.caughtUp = false;
  if (!held.writes() && held.waits) {
    held.session.reset();
    held.stage = Stage::waiting;
    held.mount->writer_.clear();
    return;
  }
  refuse(held, why);
}

// Also a mount that was to leave as soon as it is written out: there is nothing to leave.
void ClientImpl::refuse(HeldMount& held, const std::string& why) {
  held.session.reset();
  held.stage = Stage::refused;
  held.mount->reason_ = why;
  std::erase_if(leaving, [&](const auto& each) { return each.get() == &held; });
}

// The answers to unmount frames of mounts that were refused meanwhile say nothing new.
void ClientImpl::unmounted(U32 id) {
  const auto at = std::find_if(leaving.begin(), leaving.end(),
                               [&](const auto& held) { return held->id == id; });
  if (at == leaving.end()) return;
  finish(**at);
  leaving.erase(at);
}

// Gives the entity back to the application.
void ClientImpl::finish(HeldMount& held) {
  held.session.reset();
  if (held.mount->entity_) Session::readOnlyIs(*held.mount->entity_, false);
}

// ---- requests ----

U32 ClientImpl::request(Request request) {
  requests.emplace(++lastRequest, std::move(request));
  dirty = true;
  return lastRequest;
}

void ClientImpl::sendRequests() {
  // A barrier goes behind everything that was written before it, also what is only marked.
  bool isWritten = leaving.empty(), isRefused = false;
  for (const auto& [path, held] : mounts) {
    if (!held->writes()) continue;
    isRefused = isRefused || held->stage == Stage::refused;
    isWritten = isWritten && (held->stage == Stage::refused || held->isClean());
  }
  for (auto at = requests.begin(); at != requests.end();) {
    const U32 number = at->first;
    Request& request = at->second;
    ++at;
    if (request.isSent) continue;
    Kop::NboAttrLog::Out& out = connection->stream.out();
    switch (request.kind) {
      case Request::Kind::list:
        encode(out, Frame::List{number, false, request.prefix});
        break;
      case Request::Kind::watch:
        encode(out, Frame::List{number, true, request.prefix});
        break;
      case Request::Kind::status: encode(out, Frame::Status{number}); break;
      case Request::Kind::sync:
        if (!isWritten) continue;
        if (isRefused) {
          todo.push_back([done = std::move(request.onSync)] { done(false); });
          requests.erase(number);
          continue;
        }
        encode(out, Frame::Sync{number});
    }
    request.isSent = true;
  }
}

void ClientImpl::listEntry(const Frame::ListEntry& entry) {
  const auto at = requests.find(entry.request);
  if (at == requests.end()) return;  // a watch that was ended
  Request& request = at->second;
  if (!request.isEntire) {
    request.found.push_back({entry.path, entry.type});
    return;
  }
  if (entry.appeared)
    request.known[entry.path] = entry.type;
  else
    request.known.erase(entry.path);
  todo.push_back([watcher = request.onWatch, info = PathInfo{entry.path, entry.type},
                  appeared = entry.appeared] { watcher(info, appeared); });
}

void ClientImpl::listEnd(U32 number) {
  const auto at = requests.find(number);
  if (at == requests.end()) return;
  Request& request = at->second;
  if (request.kind == Request::Kind::list) {
    todo.push_back([done = std::move(request.onList), found = std::move(request.found)] {
      done(found);
    });
    requests.erase(at);
    return;
  }
  // After a reconnection only what is different is told.
  const auto before = std::exchange(request.known, {});
  for (const PathInfo& info : request.found)
    request.known[info.path] = info.type;
  const auto tell = [&](const auto& these, const auto& others, bool appeared) {
    for (const auto& [path, type] : these)
      if (const auto other = others.find(path);
          other == others.end() || other->second != type)
        todo.push_back([watcher = request.onWatch, info = PathInfo{path, type},
                        appeared] { watcher(info, appeared); });
  };
  tell(before, request.known, false);
  tell(request.known, before, true);
  request.found.clear();
  request.isEntire = true;
}

}  // namespace Hivel
