#pragma once

#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>

#include "Kop/Ptr.h"
#include "LinuxTunnel/VxlanTunnelInfoTable.h"
#include "apps/linuximport/LinkStream.h"
#include "apps/linuximport/Mapping.h"

// The tables that hold the tunnels of one network namespace. In the database they stand at
//
//   tunnel/l3TunnelInfo/<name>        Tunnel::L3TunnelInfoTable         ipip, sit, ip6tnl
//   tunnel/greTunnelInfo/<name>       Tunnel::GreTunnelInfoTable        gre, gretap, erspan ..
//   tunnel/ipsecVtiTunnelInfo/<name>  Tunnel::IpsecVtiTunnelInfoTable   vti, vti6
//   tunnel/vxlanTunnelInfo/<name>     LinuxTunnel::VxlanTunnelInfoTable vxlan

namespace LinuxImport {

// One of the alternatives of Description, and the table that holds it.
template <class Info, class Entity>
struct Table {
  struct Hash {
    std::size_t operator()(const Info& info) const {
      if constexpr (requires { info.hash(); })
        return info.hash();
      else
        return info.hash(0);
    }
  };
  Kop::Ptr<Entity> entity;
  // How many interfaces are this tunnel: two are one entry when they differ only in what no
  // member holds.
  std::unordered_map<Info, U32, Hash> users{};
};

inline constexpr std::size_t tableCount = std::variant_size_v<Description> - 1;
// `which` is that of a description's alternatives, from 1.
std::string pathOf(std::size_t which, std::string_view name);

// One interface that is a tunnel, and what became of it.
struct Imported {
  std::string name, kind;
  Mapped mapped;
  bool operator==(const Imported&) const = default;
};

// Keeps the tables equal to the interfaces it is told. The tables may hold something already:
// what no interface is goes with the first allAre().
//
// Threads  that of the entities.
class Tables {
 public:
  Tables();

  // Null for tables that are taken away.
  Kop::Ptr<Kop::Entity> entity(std::size_t which) const;
  // The database cannot hold this table: its tunnels are told as not imported, for the reason.
  void takeAway(std::size_t which, std::string reason);

  void allAre(const Links& links);
  void linkIs(const Link& link);
  void linkDel(U32 index);

  // By index; of interfaces that are tunnels for the kernel.
  const std::map<U32, Imported>& tunnels() const { return tunnels_; }
  U64 importedCount() const;
  U64 added() const { return added_; }  // entries, since the beginning
  U64 removed() const { return removed_; }

  // Told of each tunnel that came (`before` is null), went (`after` is) or became another.
  std::function<void(U32 index, const Imported* before, const Imported* after)> onChange;

 private:
  void use(const Description& description);
  void leave(const Description& description);

  std::tuple<Table<Tunnel::L3TunnelInfo, Tunnel::L3TunnelInfoTable>,
             Table<Tunnel::GreTunnelInfo, Tunnel::GreTunnelInfoTable>,
             Table<Tunnel::IpsecVtiTunnelInfo, Tunnel::IpsecVtiTunnelInfoTable>,
             Table<Tunnel::VxlanTunnelInfo, LinuxTunnel::VxlanTunnelInfoTable>>
      tables_;
  std::string takenAway_[tableCount];  // why
  std::map<U32, Imported> tunnels_;
  U64 added_ = 0, removed_ = 0;
};

}  // namespace LinuxImport
