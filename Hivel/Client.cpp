#include "Hivel/Client.h"

#include <algorithm>
#include <cerrno>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "Hivel/ClientImpl.h"
#include "Kop/Module.h"

namespace Hivel {

using Kop::NboAttrLog::Session;

namespace {

constexpr int piecesAtOnce = 16;  // of receivePiece, per wake
constexpr int roundsAtOnce = 4;   // of pumping and sending, per wake
constexpr std::size_t sendAtOnce = 1 << 20;
constexpr U64 timerKey = 1, socketKey = 2;

}  // namespace

// ---- the connection ----

ClientImpl::ClientImpl(ClientOptions&& given, Client& owner)
    : client(owner),
      options(std::move(given)),
      epoll(epollMake()),
      timer(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)),
      delay(options.retryMin) {
  if (!timer) throwSystem("timerfd_create", "", errno);
  std::random_device device;
  random.seed(device());
  instance = U64{device()} << 32 | device() | 1;
  epollAdd(epoll, timer, EPOLLIN, timerKey);
  retryIn(milliseconds(0));
}

void ClientImpl::retryIn(milliseconds after) {
  itimerspec at{};
  at.it_value.tv_sec = after.count() / 1000;
  at.it_value.tv_nsec = after.count() % 1000 * 1'000'000;
  if (after.count() == 0) at.it_value.tv_nsec = 1;  // 0 would disarm it
  if (::timerfd_settime(timer.get(), 0, &at, nullptr) != 0)
    throwSystem("timerfd_settime", std::to_string(after.count()), errno);
}

void ClientImpl::stateIs(Client::State next, const std::string& why) {
  if (state == next && reason == why) return;
  state = next;
  reason = why;
  todo.push_back([this, next, why] {
    if (const auto onState = client.onState) onState(next, why);
  });
}

void ClientImpl::connect() {
  try {
    connection = std::make_unique<Connection>(connectTo(options.socketPath),
                                              options.highWater, options.maxFrameSize);
  } catch (const SocketException& e) {
    return lose(Client::State::lost, e.what());
  }
  events = EPOLLIN;
  epollAdd(epoll, connection->fd(), events, socketKey);
  encode(connection->stream.out(),
         helloOf(options.name.substr(0, maxNameSize), instance));
}

// Delays are cut by up to a quarter, so that many clients do not come back in step.
void ClientImpl::lose(Client::State why, const std::string& text) {
  for (auto& [path, held] : mounts) {
    held->session.reset();
    held->pathSettled = true;
    held->caughtUp = held->catchUpEnded = held->wasClean = false;
    if (held->stage != HeldMount::Stage::refused) held->stage = HeldMount::Stage::unasked;
  }
  for (auto& held : leaving)
    finish(*held);
  leaving.clear();
  for (auto& [number, request] : requests) {
    request.isSent = request.isEntire = false;
    request.found.clear();
  }
  connection.reset();
  hasHello = false;
  stateIs(why, text);
  if (!options.reconnect) return;
  if (why == Client::State::refused) delay = options.retryMax;
  std::uniform_int_distribution<milliseconds::rep> jitter(0, delay.count() / 4);
  retryIn(std::max(milliseconds(1), delay - milliseconds(jitter(random))));
  delay = std::min(2 * delay, options.retryMax);
}

void ClientImpl::failWith(const std::string& text) {
  encode(connection->stream.out(), Frame::Error{true, text});
  connection->send(sendAtOnce);
  lose(Client::State::refused, text);
}

void ClientImpl::receive() {
  for (int i = 0; connection && i < piecesAtOnce; ++i) {
    const auto io = connection->receive();
    if (io == Connection::Io::closed)
      return lose(Client::State::lost, "the server: " + connection->reason());
    dispatch();
    if (io == Connection::Io::blocked) return;
  }
}

// ---- the loop ----

bool ClientImpl::isBusy() const {
  if (!connection) return false;
  if (!connection->stream.out().empty()) return true;
  for (const auto& [path, held] : mounts)
    if (held->stage == HeldMount::Stage::writing && !held->session->clean()) return true;
  for (const auto& held : leaving)
    if (held->stage == HeldMount::Stage::writing) return true;
  return false;
}

bool ClientImpl::wants() const {
  return dirty || !todo.empty() || (!(events & EPOLLOUT) && isBusy());
}

void ClientImpl::process() {
  dirty = false;
  epoll_event found[2];
  const int count = ::epoll_wait(epoll.get(), found, std::size(found), 0);
  for (int i = 0; i < count; ++i) {
    if (found[i].data.u64 == timerKey) {
      U64 expirations = 0;
      const ssize_t size = ::read(timer.get(), &expirations, sizeof expirations);
      if (size > 0 && !connection) connect();
    } else if (connection && (found[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR))) {
      receive();
    }
  }
  for (int i = 0; connection && i < roundsAtOnce; ++i) {
    pump();
    const auto io = connection->send(sendAtOnce);
    if (io == Connection::Io::closed) {
      // The server may have said why before it closed.
      const std::string why = connection->reason();
      receive();
      if (connection) lose(Client::State::lost, "the server: " + why);
    }
    if (io != Connection::Io::done || !isBusy()) break;
  }
  if (connection) {
    const U32 wanted = U32{EPOLLIN} | (isBusy() ? U32{EPOLLOUT} : 0u);
    if (wanted != events) epollMod(epoll, connection->fd(), events = wanted, socketKey);
  }
  for (auto& [path, held] : mounts)
    refresh(*held);
  runTodo();
}

void ClientImpl::pump() {
  if (!hasHello) return;
  for (auto& [path, held] : mounts) {
    if (held->stage == HeldMount::Stage::unasked && !isLeaving(path)) ask(*held);
    if (held->stage == HeldMount::Stage::writing && held->session->process())
      held->wasClean = true;
  }
  for (auto& held : leaving) {
    if (held->stage != HeldMount::Stage::writing || !held->session->process()) continue;
    held->session.reset();
    held->stage = HeldMount::Stage::left;
    encode(connection->stream.out(), Frame::Unmount{held->id, held->removes});
  }
  sendRequests();
}

void ClientImpl::refresh(HeldMount& held) {
  Mount::State next = Mount::State::asking;
  switch (held.stage) {
    case HeldMount::Stage::waiting: next = Mount::State::waiting; break;
    case HeldMount::Stage::refused: next = Mount::State::refused; break;
    case HeldMount::Stage::following: {
      const bool isLive =
          held.caughtUp && held.pathSettled && !held.session->catchingUp();
      next = isLive ? Mount::State::live : Mount::State::catchingUp;
      break;
    }
    case HeldMount::Stage::writing:
      next = held.wasClean ? Mount::State::live : Mount::State::catchingUp;
      break;
    default: break;
  }
  Mount* const mount = held.mount.get();
  if (mount->state_ == next) return;
  mount->state_ = next;
  todo.push_back([this, mount, path = mount->path()] {
    const auto at = mounts.find(path);
    if (at == mounts.end() || at->second->mount.get() != mount) return;
    if (const auto onState = mount->onState) onState(*mount);
  });
}

// A callback may throw; those behind it stay for the next call.
void ClientImpl::runTodo() {
  for (std::size_t count = todo.size(); count > 0; --count) {
    const auto call = std::move(todo.front());
    todo.pop_front();
    call();
  }
}

bool ClientImpl::isLeaving(std::string_view path) const {
  return std::any_of(leaving.begin(), leaving.end(),
                     [&](const auto& held) { return held->mount->path() == path; });
}

bool ClientImpl::isUnreachable() const {
  return state == Client::State::lost || state == Client::State::refused;
}

// ---- what the application calls ----

Client::Client(ClientOptions options)
    : impl_(std::make_unique<ClientImpl>(std::move(options), *this)) {}

Client::~Client() {
  for (auto& [path, held] : impl_->mounts)
    impl_->finish(*held);
  for (auto& held : impl_->leaving)
    impl_->finish(*held);
}

int Client::fd() const {
  return impl_->epoll.get();
}
bool Client::wants() const {
  return impl_->wants();
}
void Client::process() {
  impl_->process();
}
Client::State Client::state() const {
  return impl_->state;
}
const std::string& Client::reason() const {
  return impl_->reason;
}
const std::string& Client::serverName() const {
  return impl_->serverName;
}

bool Client::wait(const std::function<bool()>& predicate, milliseconds timeout) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + timeout;
  for (;;) {
    process();
    if (predicate()) return true;
    const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
    if (left.count() <= 0) return false;
    if (wants()) continue;
    pollfd waited{fd(), POLLIN, 0};
    constexpr milliseconds::rep longest = 60'000;
    if (::poll(&waited, 1, static_cast<int>(std::min(left.count(), longest))) < 0 &&
        errno != EINTR)
      throwSystem("poll", std::to_string(fd()), errno);
  }
}

Mount& Client::mount(std::string_view path, Mode mode, MountOptions options) {
  checkPath(path);
  if (impl_->mounts.contains(path))
    throw RefusedException("path '" + std::string(path) +
                           "' is mounted by this client already");
  if (options.type.empty() && options.entity) options.type = typeNameOf(*options.entity);
  const Kop::TypeRecord* const type = Kop::findType(options.type);
  if (!options.type.empty() && (!type || type->kind != Kop::Kind::entity))
    throw Kop::RangeException("no type '" + options.type + "' of entities is known");
  if (mode == Mode::replace && !options.entity)
    throw Kop::RangeException("path '" + std::string(path) +
                              "': to replace it takes an entity");
  auto held = std::make_unique<HeldMount>();
  held->mount.reset(new Mount);
  Mount& mount = *held->mount;
  mount.path_ = path;
  mount.mode_ = mode;
  mount.entity_ = std::move(options.entity);
  held->type = std::move(options.type);
  held->waits = options.waits;
  held->isTruth = mode == Mode::replace;
  if (mode != Mode::replace && mount.entity_) Session::readOnlyIs(*mount.entity_, true);
  impl_->mounts.emplace(mount.path_, std::move(held));
  impl_->dirty = true;
  return mount;
}

void Client::unmount(std::string_view path, bool remove) {
  const auto at = impl_->mounts.find(path);
  if (at == impl_->mounts.end()) return;
  std::unique_ptr<HeldMount> held = std::move(at->second);
  impl_->mounts.erase(at);
  impl_->dirty = true;
  using Stage = HeldMount::Stage;
  if (held->stage == Stage::unasked || held->stage == Stage::refused)
    return impl_->finish(*held);
  held->removes = remove;
  // A writer leaves when everything is sent, a reader when the server agrees: what is under
  // way to it belongs to entities that only its session knows.
  if (held->stage != Stage::writing) {
    encode(impl_->connection->stream.out(), Frame::Unmount{held->id, remove});
    held->stage = Stage::left;
  }
  impl_->leaving.push_back(std::move(held));
}

Mount* Client::find(std::string_view path) const {
  const auto at = impl_->mounts.find(path);
  return at == impl_->mounts.end() ? nullptr : at->second->mount.get();
}

Mount& Client::mountAndWait(std::string_view path,
                            Mode mode,
                            MountOptions options,
                            milliseconds timeout) {
  Mount& mounted = mount(path, mode, std::move(options));
  wait([&] { return mounted.settled() || impl_->isUnreachable(); }, timeout);
  if (mounted.state() == Mount::State::live) return mounted;
  std::string why = mounted.state() == Mount::State::refused ? mounted.reason()
                    : mounted.state() == Mount::State::waiting
                        ? "nothing is mounted there"
                        : reason();
  if (why.empty()) why = "no answer in " + std::to_string(timeout.count()) + " ms";
  unmount(path);
  throw RefusedException("path '" + std::string(path) + "': " + why);
}

bool Client::drained() const {
  if (!impl_->connection || !impl_->connection->stream.out().empty() ||
      !impl_->leaving.empty())
    return false;
  return std::all_of(impl_->mounts.begin(), impl_->mounts.end(), [](const auto& entry) {
    const HeldMount& held = *entry.second;
    return !held.writes() || held.stage == HeldMount::Stage::refused || held.isClean();
  });
}

void Client::sync(std::function<void(bool)> done) {
  Request request{Request::Kind::sync};
  request.onSync = std::move(done);
  impl_->request(std::move(request));
}

void Client::list(std::string_view prefix,
                  std::function<void(const std::vector<PathInfo>&)> done) {
  checkPrefix(prefix);
  Request request{Request::Kind::list, std::string(prefix)};
  request.onList = std::move(done);
  impl_->request(std::move(request));
}

Client::WatchId Client::watch(std::string_view prefix,
                              std::function<void(const PathInfo&, bool)> watcher) {
  checkPrefix(prefix);
  Request request{Request::Kind::watch, std::string(prefix)};
  request.onWatch = std::move(watcher);
  return impl_->request(std::move(request));
}

void Client::unwatch(WatchId id) {
  const auto at = impl_->requests.find(static_cast<U32>(id));
  if (at == impl_->requests.end() || at->second.kind != Request::Kind::watch) return;
  if (at->second.isSent)
    encode(impl_->connection->stream.out(), Frame::Unwatch{at->first});
  impl_->requests.erase(at);
}

void Client::status(std::function<void(const ServerStatus&)> done) {
  Request request{Request::Kind::status};
  request.onStatus = std::move(done);
  impl_->request(std::move(request));
}

namespace {

// The answer outlives a wait that is given up.
template <class Answer>
struct Awaited {
  std::shared_ptr<std::optional<Answer>> answer =
      std::make_shared<std::optional<Answer>>();
  auto callback() const {
    return [kept = answer](const Answer& value) { *kept = value; };
  }
};

template <class Answer>
Answer await(Client& client, const Awaited<Answer>& awaited, milliseconds timeout) {
  client.wait(
      [&] {
        return awaited.answer->has_value() || client.state() == Client::State::lost ||
               client.state() == Client::State::refused;
      },
      timeout);
  if (*awaited.answer) return std::move(**awaited.answer);
  throw RefusedException(client.reason().empty()
                             ? "no answer in " + std::to_string(timeout.count()) + " ms"
                             : client.reason());
}

}  // namespace

bool Client::syncAndWait(milliseconds timeout) {
  const auto applied = std::make_shared<std::optional<bool>>();
  sync([applied](bool yes) { *applied = yes; });
  return wait([&] { return applied->has_value(); }, timeout) && **applied;
}

std::vector<PathInfo> Client::listAndWait(std::string_view prefix, milliseconds timeout) {
  const Awaited<std::vector<PathInfo>> awaited;
  list(prefix, awaited.callback());
  return await(*this, awaited, timeout);
}

ServerStatus Client::statusAndWait(milliseconds timeout) {
  const Awaited<ServerStatus> awaited;
  status(awaited.callback());
  return await(*this, awaited, timeout);
}

}  // namespace Hivel
