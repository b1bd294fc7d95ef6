#include "Harness.h"

#include <cerrno>

#include <sys/socket.h>
#include <unistd.h>

#include "tests/Support/Testing.h"

namespace HivelTest {

namespace {

// Strings and entities pass between threads in some tests.
const bool threadSafe = (Kop::threadSafePtrsIs(true), true);

}  // namespace

void scribble(Plot& plot, std::minstd_rand& random) {
  const auto below = [&](U32 limit) { return static_cast<U32>(random() >> 8) % limit; };
  const Kop::String bed("bed" + std::to_string(below(12)));
  switch (below(10)) {
    case 0: plot.titleIs(Kop::String(std::to_string(below(1000)))); break;
    case 1:
    case 2:
    case 3: plot.noteIs(below(60), Kop::String(std::string(below(40), 'n'))); break;
    case 4: plot.noteDel(below(60)); break;
    case 5: plot.bedIs(bed)->areaIs(below(5)); break;
    case 6: plot.bedIs(bed)->plantIs(static_cast<U16>(below(8)), below(2) != 0); break;
    case 7:
      if (const auto at = plot.bed(bed)) at->plantDel(static_cast<U16>(below(8)));
      break;
    case 8: plot.bedDel(bed); break;
    default:
      if (below(40) == 0) plot.noteDelAll();
  }
}

Ptr<Plot> somePlot(const char* name) {
  const auto plot = Plot::PlotIs(name);
  std::minstd_rand random(3);
  for (int i = 0; i < 300; ++i)
    scribble(*plot, random);
  return plot;
}

ServerOptions serverOptions(const TempDir& dir) {
  ServerOptions options;
  options.socketPath = dir.path("hivel.sock");
  return options;
}
ClientOptions clientOptions(const TempDir& dir, const std::string& name) {
  ClientOptions options;
  options.socketPath = dir.path("hivel.sock");
  options.name = name;
  options.retryMin = 5ms;
  options.retryMax = 50ms;
  return options;
}

bool Loop::until(const std::function<bool()>& predicate,
                 std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    bool isBusy = false;
    for (const auto& [party, process] : parties_)
      isBusy = process() || isBusy;
    if (predicate()) return true;
    if (std::chrono::steady_clock::now() >= end) return false;
    if (!isBusy) std::this_thread::sleep_for(200us);
  }
}

void HivelServer::serve(ServerOptions options) {
  server = std::make_unique<Server>(database, std::move(options));
  server->onLog = [this](bool isWarning, const std::string& line) {
    if (isWarning) warnings.push_back(line);
  };
  loop.add(*server);
}
Client& HivelServer::client(const std::string& name) {
  ClientOptions options = clientOptions(dir, name);
  options.highWater = highWater;
  loop.add(*clients.emplace_back(std::make_unique<Client>(options)));
  return *clients.back();
}
void HivelServer::ends(Client& client) {
  loop.remove(&client);
  std::erase_if(clients, [&](const auto& each) { return each.get() == &client; });
}
std::string HivelServer::refusal(const Mount& mount) {
  const auto isRefused = [&] { return mount.state() == Mount::State::refused; };
  return loop.until(isRefused) ? mount.reason() : "not refused";
}
std::string HivelServer::errorOf(Raw& raw) {
  loop.until([&] { return raw.receive(); });
  return raw.error();
}
bool HivelServer::synced(Client& client) {
  const auto applied = std::make_shared<std::optional<bool>>();
  client.sync([applied](bool yes) { *applied = yes; });
  loop.until([&] { return applied->has_value(); });
  return applied->value();
}

Raw::Raw(const TempDir& dir, const std::string& bytes)
    : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  const sockaddr_un address = Support::addressOf(dir.path("hivel.sock"));
  if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
          static_cast<ssize_t>(bytes.size()))
    throw std::runtime_error("connect or send");
}
Raw::~Raw() {
  ::close(fd_);
}
bool Raw::receive() {
  for (;;) {
    const auto room = frames_.room(1 << 16);
    const ssize_t size = ::recv(fd_, room.data(), room.size(), 0);
    if (size <= 0) return size == 0 || errno != EAGAIN;
    frames_.arrived(static_cast<std::size_t>(size));
  }
}
std::string Raw::error() {
  while (const auto frame = frames_.next())
    if (frame->front() == static_cast<U8>(FrameKind::error))
      return decode<Frame::Error>(*frame).reason;
  return {};
}

}  // namespace HivelTest
