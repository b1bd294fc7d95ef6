// An observer: follows the directory of an agent's tables and its next hops, and prints what
// comes, changes and goes. Ends on SIGTERM and SIGINT.
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "Hivel/Client.h"
#include "Hivel/SharedMemory.h"
#include "Tunnel/TunnelTableHivelTypes.h"

using namespace Tunnel::TunnelTable;

namespace {

// [reactions]
// One function per attribute of the type, called after each change. The key is given, the
// value is read from the entity: what is not there any more was deleted.
struct HopWatch : Kop::Reactor<NexthopTunnelTable> {
  using Reactor::Reactor;
  void entryReaction(const TunnelId& hop) override {
    std::cout << hop.toCliStrep();
    if (notifier()->entryHas(hop)) {
      const NexthopTunnelL3Info info = notifier()->entry(hop);
      std::cout << ": " << info.destinationIp() << " " << info.l3Intf() << " "
                << info.mplsLabelStack() << std::endl;
    } else {
      std::cout << " is gone" << std::endl;
    }
  }
  void nextAvailableIndexReaction() override {
    std::cout << "next index " << notifier()->nextAvailableIndex() << std::endl;
  }
};

struct DirectoryWatch : Kop::Reactor<TunnelTableInfoCollection> {
  using Reactor::Reactor;
  void tableInfoReaction(const Kop::String& name) override {
    std::cout << "table " << name << " of " << notifier()->tableInfo(name).tableType()
              << std::endl;
  }
};
// [reactions]

}  // namespace

int main() try {
  // Blocked before anything is made, so that a signal always finds the loop.
  sigset_t ends;
  ::sigemptyset(&ends);
  ::sigaddset(&ends, SIGTERM);
  ::sigaddset(&ends, SIGINT);
  ::sigprocmask(SIG_BLOCK, &ends, nullptr);
  const int signals = ::signalfd(-1, &ends, SFD_CLOEXEC);

  // [observer]
  const char* const given = std::getenv("HIVEL_SOCKET");
  const std::string socket(given ? given : Hivel::defaultSocketPath);
  Hivel::Client client({.socketPath = socket, .name = "observer"});

  // Replicas: empty entities that the client fills, and that refuse writes of ours. A path
  // that is not there yet is waited for.
  const auto follow = [&](const std::string& path, const Kop::Ptr<Kop::Entity>& entity) {
    Hivel::MountOptions options;
    options.entity = entity;
    client.mount(path, Hivel::Mode::read, options).onState = [](Hivel::Mount& mount) {
      if (mount.state() == Hivel::Mount::State::refused)
        std::cout << mount.path() << ": " << mount.reason() << std::endl;
    };
  };
  const auto directory = tunnelTableInfoCollectionFactory("static");
  const auto hops = nexthopTunnelTableFactory("nexthopTunnelTable-static");
  const DirectoryWatch directoryWatch(directory);
  const HopWatch hopWatch(hops);
  follow("tunnel/table/nexthopTunnelTable-static", hops);
  follow("tunnel/tableInfo/static", directory);
  // [observer]

  // A server that is lost is no reason to end: the replicas stay as they are, the client
  // tries again and brings them up to date.
  client.onState = [](Hivel::Client::State state, const std::string& reason) {
    if (state == Hivel::Client::State::lost)
      std::cout << "lost the database: " << reason << std::endl;
  };

  pollfd fds[] = {
      {signals,     POLLIN, 0},
      {client.fd(), POLLIN, 0}
  };
  while (fds[0].revents == 0) {
    while (client.wants())
      client.process();
    ::poll(fds, std::size(fds), -1);
    client.process();
  }
  ::close(signals);
  return 0;
} catch (const Kop::Exception& error) {
  std::cerr << "observer: " << error.what() << "\n";
  return 1;
}
