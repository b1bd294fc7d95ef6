#include "Harness.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Kop/Exception.h"
#include "tests/Support/Processes.h"
#include "tests/Support/Testing.h"

namespace FpmTest {

const std::vector<std::string> recordings = {"abilene-r1-sr-flap", "pair-evpn-vxlan+srte",
                                             "ring4-isis-sr-flap+3000-static"};

Bytes recording(const std::string& name) {
  return Support::bytesIn("examples/fpm/" + name + ".fpm");
}

Bytes head(const Bytes& stream, std::size_t size) {
  return {stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(size)};
}

Bytes frameOf(const std::string& text) {
  std::istringstream words(text);
  std::string head;
  unsigned type = 0;
  words >> type >> head;
  Bytes body;
  std::map<std::size_t, U8> patches;
  const auto append = [](Bytes& to, const std::string& hex) {
    for (std::size_t at = 0; at < hex.size(); at += 2)
      to.push_back(static_cast<U8>(std::stoul(hex.substr(at, 2), nullptr, 16)));
  };
  if (head != "-") {
    append(body, head);
    body.resize(type < 100 ? 12 : 8);
  }
  for (std::string word; words >> word;) {
    const std::string after = word.substr(word.find('=') + 1);
    if (word[0] == '#') {
      body.resize(std::stoul(word.substr(1)));
    } else if (word[0] == '@') {
      patches[std::stoul(word.substr(1))] =
          static_cast<U8>(std::stoul(after, nullptr, 16));
    } else {
      const std::size_t at = body.size();
      body.insert(body.end(), {0, 0, static_cast<U8>(std::stoul(word)), 0});
      append(body, after);
      body[at] = static_cast<U8>(body.size() - at);
      body.resize((body.size() + 3) / 4 * 4);
    }
  }
  Bytes frame = {1, 1, 0, static_cast<U8>(20 + body.size())};
  frame.insert(frame.end(), {static_cast<U8>(16 + body.size()), 0, 0, 0,
                             static_cast<U8>(type), 0, 1, 5});
  frame.resize(20);
  frame.insert(frame.end(), body.begin(), body.end());
  for (const auto& [at, byte] : patches)
    frame[at] = byte;
  return frame;
}

void Memory::pathIs(const Agent::Path& path) {
  if (std::string_view(path.name) == refuses)
    throw Kop::RangeException("no room for " + refuses);
  const auto held = paths.find(Support::keyOf(path));
  changes += held == paths.end() || !(held->second == path);
  stale.erase(Support::keyOf(path));
  HeldPaths::pathIs(path);
}

void Memory::pathDel(Tunnel::TunnelTable::TunnelType type, const Kop::String& name) {
  changes += paths.contains({type, std::string(name)});
  HeldPaths::pathDel(type, name);
}

void Memory::mark() {
  for (const auto& [key, path] : paths)
    stale.insert(key);
}

U64 Memory::sweep() {
  const U64 swept =
      std::erase_if(paths, [&](const auto& row) { return stale.contains(row.first); });
  changes += swept;
  stale.clear();
  return swept;
}

void Stream::feed(std::span<const U8> bytes, std::size_t piece) {
  for (; !bytes.empty(); bytes = bytes.subspan(std::min(piece, bytes.size()))) {
    frames.feed(bytes.first(std::min(piece, bytes.size())));
    while (const auto frame = frames.next())
      session.frameIs(*frame, {});
  }
}

std::vector<std::string> linesOf(const Bytes& stream) {
  Memory sink;
  Stream(sink).feed(stream);
  return sink.lines();
}

Daemon::Daemon(U16 port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
}

Daemon::~Daemon() {
  ::close(fd_);
}

void Daemon::send(const Bytes& bytes) const {
  EXPECT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(bytes.size()));
}

bool Daemon::closed() const {
  char byte;
  return ::recv(fd_, &byte, 1, MSG_DONTWAIT) == 0;
}

}  // namespace FpmTest
