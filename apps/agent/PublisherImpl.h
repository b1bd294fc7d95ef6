#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Tunnel/TunnelTableHivelTypes.h"
#include "apps/agent/IndexPool.h"
#include "apps/agent/Publisher.h"

// The inside of a publisher.

namespace Agent {

using namespace Tunnel::TunnelTable;
using Hivel::milliseconds;

using TableWriter = Quarn::TableWriter<TunnelTableEntry>;

// What is kept of a path besides its row, hops and name.
struct Slot {
  static constexpr U32 epochBits = 22;

  U32 group = 0;  // of its next hops; 0 for none
  U32 hopCount : 9 = 0;
  U32 ipv6 : 1 = 0;
  U32 epoch : epochBits = 0;  // when it was told last; 0: not by this process
};
static_assert(sizeof(Slot) == 8);

// The paths of one type.
struct Kind {
  Kind(TunnelType type, const std::string& shm, const Quarn::TableOptions& options)
      : type(type), rows(shm, options) {}

  TunnelId idOf(U32 index, bool ipv6) const {
    return TunnelId(TunnelId::convertToTunnelValue(
        type, index | (ipv6 ? TunnelIdConstants::tunnelAfMask : 0)));
  }

  TunnelType type;
  TableWriter rows;
  Kop::Ptr<TunnelNameStatus> names;
  IndexPool indices;
  std::vector<Slot> slots;  // by index
  U64 freshCount = 0;       // of slots that are told since the last mark
};

struct Publisher::Impl {
  explicit Impl(Options&& given);

  // Publisher.cpp
  void check(const Path& path) const;
  void checkHeld() const;
  TunnelId add(Kind& kind, const Path& path);
  TunnelId change(Kind& kind, const TunnelId& was, const Path& path);
  TunnelTableEntry rowOf(const Kind& kind, const Path& path, TunnelId id, U32 group);
  void hopsAre(const Path& path, U32 group);
  void hopsUndo(U32 group);
  void hopsDel(U32 group, U32 from, U32 end);
  U32 groupTake();
  void groupFree(U32 group);
  void fresh(Kind& kind, Slot& slot);
  void remove(Kind& kind, U32 index);
  void raise();
  Kind* find(TunnelType type) const {
    return type < kinds.size() ? kinds[type].get() : nullptr;
  }

  // PublisherRecovery.cpp
  template <class T>
  Kop::Ptr<T> mount(const std::string& path, Hivel::Mode mode, Kop::Ptr<T> entity);
  void watch(Hivel::Mount& mount);
  Kind& kindOf(TunnelType type);
  std::unique_ptr<Kind> open(TunnelType type);
  void recover();
  void adopt(Kind& kind);
  void namesPrune(Kind& kind);
  void adoptRow(Kind& kind, TunnelId id);
  void orphansDel();

  Options options;
  Hivel::Client client;
  std::string refusal;  // of a path that was ours
  Kop::Ptr<TunnelTableInfoCollection> tableInfo;
  Kop::Ptr<NexthopTunnelTable> nexthops;
  Kop::Ptr<ProtocolTunnelNameStatus> names;
  Kop::Ptr<TunnelConvergence> tunnelConvergence;
  Kop::Ptr<BgpLuConvergence> bgpLuConvergence;

  std::array<std::unique_ptr<Kind>, maxTunnelType + 1> kinds;
  IndexPool groups;
  U32 groupNext = 1;  // where the search for a free group goes on
  U32 epoch = 1;
  U64 generation = 0;  // counts marks: what was to be raised before is not
  U64 sequence = 0;    // raised last
  U32 toRaise = 0;     // calls of converged() that the server has not answered
  bool isWithdrawn = false;

  // What a change of hops replaced, until its row is written.
  std::vector<std::pair<U32, std::optional<NexthopTunnelL3Info>>> replaced;
};

}  // namespace Agent
