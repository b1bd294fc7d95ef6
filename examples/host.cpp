// A host process: it holds decapsulation state, watches it, and mounts it for others.
#include <iostream>

#include "Hivel/Database.h"
#include "Tunnel/DecapGroupHivelTypes.h"
#include "Tunnel/TunnelBasicTypes.h"

namespace Decap = Tunnel::Decap;
using Tunnel::TunnelTable::TunnelId;

// Told of each change after it was made, once; an equal write is no change.
struct GroupWatch : Kop::Reactor<Decap::DecapGroup> {
  using Reactor::Reactor;
  void tunnelTypeReaction() override {
    std::cout << notifier()->name() << " is now " << notifier()->tunnelType() << "\n";
  }
  void decapIpReaction(const Vantor::IpGenAddr& ip) override {
    std::cout << notifier()->name() << (notifier()->decapIpHas(ip) ? " has " : " lost ")
              << ip << "\n";
  }
};

int main() {
  const auto config = Decap::configInputFactory("cli");
  Hivel::Database database;  // in this process; a Hivel::Server would offer it to others
  database.mount("tunnel/decap/config", config);

  const auto group = config->decapGroupIs("edge");
  const GroupWatch watch(group);
  group->tunnelTypeIs(Decap::gre);
  group->decapIpIs(Vantor::IpGenAddr("192.0.2.1"), true);
  group->decapIpDelAll();

  const TunnelId id(TunnelId::convertToTunnelValue(Tunnel::TunnelTable::ldpTunnel, 26));
  std::cout << id.toCliStrep() << " is " << id.intfCliStr() << "\n";
  return database.list("tunnel").size() == 1 ? 0 : 1;
}
