// A platform driver, with the hardware made up: programs the next hops of an agent into two
// chips, publishes what each chip calls them, and finds back from a chip's key to the tunnels,
// as for a counter or an alarm that a chip tells of.
//
//   0 1     on its input asks what chip 0 knows by key 1; the end of the input ends it
#include <bitset>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

#include <poll.h>
#include <unistd.h>

#include "Hivel/Client.h"
#include "Hivel/SharedMemory.h"
#include "Quarn/Table.h"
#include "Tunnel/TunnelTableHivelTypes.h"

using namespace Tunnel::TunnelTable;
using namespace std::chrono_literals;

namespace {

// Follows the next hops; `hw` says what the chips have of them.
struct Programmer : Kop::Reactor<NexthopTunnelTable> {
  Programmer(const Kop::Ptr<NexthopTunnelTable>& hops,
             const Kop::Ptr<NexthopHwTunnelTable>& hw)
      : Reactor(hops), hw(hw) {}

  // [program]
  void entryReaction(const TunnelId& hop) override {
    if (!notifier()->entryHas(hop)) return remove(hop);
    const NexthopTunnelL3Info wanted = notifier()->entry(hop);
    NexthopTunnelL2Info info = hw->entry(hop);  // the default when it is new
    info.l3IntfIs(wanted.l3Intf());
    info.hopIs(wanted.destinationIp());
    if (!hw->entryHas(hop)) {
      const U64 key = keyTake();
      if (key == 0) return;
      info.counterIndexIs(key);
      Brel::ChipSet all;
      for (U8 chip = 0; chip < chipCount; ++chip) {
        all.chipIs(Brel::ChipId(chip));
        hw->hwKeyToTunnelIdIs(HwTunnelKey(key, Brel::ChipId(chip)), hop);
      }
      info.chipMaskIs(all);
    }
    hw->entryIs(hop, info);
    std::cout << "programmed " << hop.toCliStrep() << " as key " << info.counterIndex()
              << " on chips " << info.chipMask() << std::endl;
  }
  // [program]

  void remove(const TunnelId& hop) {
    if (!hw->entryHas(hop)) return;
    const U64 key = hw->entryDel(hop).counterIndex();
    for (U8 chip = 0; chip < chipCount; ++chip)
      hw->hwKeyToTunnelIdDel(HwTunnelKey(key, Brel::ChipId(chip)));
    used.reset(key);
    std::cout << "removed " << hop.toCliStrep() << std::endl;
  }
  U64 keyTake() {
    for (U64 key = 1; key < used.size(); ++key)
      if (!used[key]) return used.set(key), key;
    std::cerr << "driver: the chips are full" << std::endl;
    return 0;
  }

  static constexpr U8 chipCount = 2;
  Kop::Ptr<NexthopHwTunnelTable> hw;
  std::bitset<1024> used;  // keys, the same on all chips; 0 is none
};

// [resolve]
// What a chip's key stands for: the next hop, and the tunnels that go over it, whose rows the
// agent keeps in shared memory. A table that nobody has made yet has no rows.
void resolve(const NexthopHwTunnelTable& hw,
             const std::string& rowsName,
             const HwTunnelKey& key) {
  std::cout << "chip " << key.chipId() << " key " << key.index();
  const TunnelId hop = hw.tunnelIdFromPlatformKey(key.index(), key.chipId());
  if (!hop.isValid()) {
    std::cout << " is no tunnel" << std::endl;
    return;
  }
  std::cout << " is " << hop.toCliStrep() << " to " << hw.entry(hop).hop() << "\n";
  try {
    const Quarn::TableReader<TunnelTableEntry> rows(rowsName);
    rows.forEachRow([&](U64, const TunnelTableEntry& row) {
      if (row.nexthopTunnelId() == hop)
        std::cout << "  carries " << row.tunnelId().toCliStrep() << " to " << row.tep()
                  << " metric " << row.entryMetric() << "\n";
    });
  } catch (const Quarn::TableException& error) {
    std::cout << "  " << error.what() << "\n";
  }
  std::cout << std::flush;
}
// [resolve]

}  // namespace

int main() try {
  const char* const given = std::getenv("HIVEL_SOCKET");
  const std::string socket(given ? given : Hivel::defaultSocketPath);
  Hivel::Client client({.socketPath = socket, .name = "driver"});

  const auto hops = nexthopTunnelTableFactory("nexthopTunnelTable-static");
  const auto hw = nexthopHwTunnelTableFactory("nexthopHwTunnelTable-driver");
  hw->tableTypeIs(nexthopTunnel);
  const Programmer programmer(hops, hw);
  const auto mount = [&](const char* path, Hivel::Mode mode,
                         Kop::Ptr<Kop::Entity> entity) {
    Hivel::MountOptions options;
    options.entity = std::move(entity);
    return &client.mount(path, mode, options);
  };
  auto* const written =
      mount("tunnel/table/nexthopHwTunnelTable-driver", Hivel::Mode::replace, hw);
  mount("tunnel/table/nexthopTunnelTable-static", Hivel::Mode::read, hops);
  const std::string rowsName = Hivel::shmName(socket, "tunnel/table/staticTunnelTable");

  std::setvbuf(stdin, nullptr, _IONBF, 0);  // so that poll knows of every line
  pollfd fds[] = {
      {STDIN_FILENO, POLLIN, 0},
      {client.fd(),  POLLIN, 0}
  };
  for (std::string line; std::cin;) {
    while (client.wants())
      client.process();
    ::poll(fds, std::size(fds), -1);
    client.process();
    if (written->state() == Hivel::Mount::State::refused)
      throw Kop::Exception(Kop::String(written->reason()));
    if (fds[0].revents == 0 || !std::getline(std::cin, line)) continue;
    std::istringstream words(line);
    U32 chip = 0;
    U64 key = 0;
    if (words >> chip >> key && chip < Programmer::chipCount)
      resolve(*hw, rowsName, HwTunnelKey(key, Brel::ChipId(static_cast<U8>(chip))));
    else
      std::cerr << "driver: '" << line << "' is no chip and key" << std::endl;
  }
  return client.syncAndWait(5s) ? 0 : 1;
} catch (const Kop::Exception& error) {
  std::cerr << "driver: " << error.what() << "\n";
  return 1;
}
