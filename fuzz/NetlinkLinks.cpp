#include <algorithm>
#include <cstring>
#include <vector>

#include "Check.h"
#include "apps/linuximport/Tables.h"

// What a netlink socket brings, any bytes: the first byte says whether a list is under way and
// how many bytes arrive at a time. The tables hold what the interfaces are, no more; an
// interface with a fault is in none of them, and says why.

using namespace LinuxImport;

namespace {

void check(const Tables& tables, std::size_t which, std::size_t entries) {
  std::size_t users = 0;
  for (const auto& [index, tunnel] : tables.tunnels()) {
    FUZZ_CHECK(tunnel.mapped.isTunnel());
    FUZZ_CHECK(tunnel.mapped.reason.empty() == (tunnel.mapped.description.index() != 0));
    users += tunnel.mapped.description.index() == which;
  }
  FUZZ_CHECK(entries <= users && (entries > 0) == (users > 0));
}

template <class Entity>
std::size_t entriesOf(const Tables& tables, std::size_t which) {
  return static_cast<const Entity&>(*tables.entity(which)).entryCount();
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return 0;
  Tables tables;
  LinkStream stream;
  stream.onAll = [&](const Links& links) {
    for (const auto& [index, link] : links)
      FUZZ_CHECK(link.faults.empty() || map(link).description.index() == 0);
    tables.allAre(links);
  };
  stream.onLink = [&](const Link& link) { tables.linkIs(link); };
  stream.onGone = [&](U32 index) { tables.linkDel(index); };
  if (bytes[0] & 1) stream.dumpIsAsked(1);
  const std::size_t piece = bytes[0] < 2 ? size : 16u * bytes[0];

  for (std::size_t at = 1; at < size; at += piece) {
    const std::size_t count = std::min(piece, size - at);
    std::vector<U32> words(count / 4 + 1);  // messages begin at a multiple of 4
    std::memcpy(words.data(), bytes + at, count);
    try {
      stream.receive({reinterpret_cast<const U8*>(words.data()), count});
    } catch (const NetlinkException&) {
      stream.cut();
      stream.dumpIsAsked(1);
    }
  }
  check(tables, 1, entriesOf<Tunnel::L3TunnelInfoTable>(tables, 1));
  check(tables, 2, entriesOf<Tunnel::GreTunnelInfoTable>(tables, 2));
  check(tables, 3, entriesOf<Tunnel::IpsecVtiTunnelInfoTable>(tables, 3));
  check(tables, 4, entriesOf<LinuxTunnel::VxlanTunnelInfoTable>(tables, 4));
  const Links none;
  tables.allAre(none);
  FUZZ_CHECK(tables.tunnels().empty() && tables.added() == tables.removed());
  return 0;
}
