// A program outside of the tree: it sees what is installed and nothing else. It fails when a
// header, a library or a registration is missing.
#include <iostream>

#include "Hivel/Database.h"
#include "Kop/Module.h"
#include "Quarn/Serializer.h"
#include "Tunnel/DecapGroupHivelTypes.h"
#include "Tunnel/TunnelBasicTypes.h"

int main() {
  namespace Decap = Tunnel::Decap;
  using Tunnel::TunnelTable::TunnelId;

  Hivel::Database database;
  const auto config = Decap::configInputFactory("consumer");
  database.mount("tunnel/decap/config", config);
  config->decapGroupIs("edge")->decapIpIs(Vantor::IpGenAddr("192.0.2.1"), true);

  const TunnelId id(TunnelId::convertToTunnelValue(Tunnel::TunnelTable::ldpTunnel, 26));
  const auto back = Kop::strepToValue<TunnelId>(valueToStrep(id));
  Quarn::Serializer measure(nullptr);
  measure.put(id.value());

  std::cout << back.toCliStrep() << ", " << measure.length() << " bytes, "
            << config->decapGroupCount() << " group\n";
  return back == id && database.list("tunnel").size() == 1 ? 0 : 1;
}
