#include <cstring>
#include <random>
#include <stdexcept>
#include <vector>

#include <benchmark/benchmark.h>

#include "Entry.pb.h"
#include "Entry_generated.h"
#include "Tunnel/TunnelTableEntry.h"

// The binary form of a tunnel table's row, written and read one record at a time, against
// copying its bytes and against two general formats with the same fields. The records are in
// the first cache; sizes are those of our records.
//
//   encode  ours: an entry into a buffer. protobuf: a filled message into a buffer.
//           flatbuffers: an entry through a builder that is used again.
//   decode  ours: the length checked, then an entry made of the record. protobuf: into a
//           message that is used again. flatbuffers: verified, then an entry made of it.
//
// That every side gives back what went in is checked before the clock runs.

namespace Tunnel::TunnelTable {
namespace {

using TunnelPeers::Proto::Entry;
using Vantor::IpGenAddr;
using Vantor::IpGenPrefix;
namespace Flat = TunnelPeers::Flat;
using Bytes = std::vector<U8>;

constexpr std::size_t recordCount = 16;

// A full entry, or what is usual: one end point and a short name.
TunnelTableEntry entryOf(std::mt19937& random, U32 size) {
  const bool full = size == 545;
  TunnelTableEntry entry(
      TunnelId(TunnelId::convertToTunnelValue(ldpTunnel, random() % 1000)),
      TunnelEntryPref(55));
  entry.nexthopTunnelIdIs(
      TunnelId(TunnelId::convertToTunnelValue(nexthopTunnel, random() % 1000)));
  entry.entryMetricIs(static_cast<U32>(random() % 100));
  entry.tunnelBwIs(TunnelBandwidth(static_cast<float>(random() % 1000)));
  for (U8 i = 0; i < (full ? 16 : 1); ++i)
    entry.endpointIs(TepIndex(i),
                     IpGenPrefix(IpGenAddr::fromIpv4(static_cast<U32>(random())), 32));
  const U8 nameSize = full ? 128 : 13;
  for (U8 i = 0; i < nameSize; ++i)
    entry.nameIs(NameIndex(i), static_cast<U8>('a' + random() % 26));
  return entry;
}
std::vector<TunnelTableEntry> entriesOf(U32 size) {
  std::mt19937 random(size);
  std::vector<TunnelTableEntry> entries;
  while (entries.size() < recordCount)
    entries.push_back(entryOf(random, size));
  return entries;
}
void need(bool holds, const char* what) {
  if (!holds) throw std::logic_error(what);
}

// ---- a record in each form ----

struct Ours {
  using Source = TunnelTableEntry;
  static Source sourceOf(const TunnelTableEntry& entry) { return entry; }
  static U32 encode(const Source& entry, Bytes& buffer) {
    const U32 size = entry.serializeLen();
    if (size <= buffer.size()) entry.serialize(buffer.data());
    return size;
  }
  TunnelTableEntry entry;
  bool decode(const U8* bytes, U32 size) {
    if (entry.deserializeLen(bytes, size) == 0) return false;
    entry.deserialize(bytes, size);
    return true;
  }
  TunnelTableEntry result() const { return entry; }
};

struct Memcpy {
  using Source = Bytes;
  static Source sourceOf(const TunnelTableEntry& entry) {
    Bytes bytes(entry.serializeLen());
    entry.serialize(bytes.data());
    return bytes;
  }
  static U32 encode(const Source& bytes, Bytes& buffer) {
    std::memcpy(buffer.data(), bytes.data(), bytes.size());
    return static_cast<U32>(bytes.size());
  }
  U8 copy[545];
  bool decode(const U8* bytes, U32 size) {
    std::memcpy(copy, bytes, size);
    return true;
  }
  TunnelTableEntry result() const {
    TunnelTableEntry entry;
    entry.deserialize(copy, sizeof copy);
    return entry;
  }
};

struct Protobuf {
  using Source = Entry;
  static Source sourceOf(const TunnelTableEntry& entry) {
    Entry message;
    message.set_tunnel_id(entry.tunnelId().value());
    message.set_nexthop_tunnel_id(entry.nexthopTunnelId().value());
    message.set_entry_pref(entry.entryPref().value());
    message.set_entry_metric(entry.entryMetric());
    message.set_tunnel_bw(entry.tunnelBw().value());
    for (const IpGenPrefix& prefix : entry.endpoint()) {
      auto& endpoint = *message.add_endpoint();
      endpoint.set_family(prefix.af());
      endpoint.set_address(prefix.ipGenAddr().bytes(), IpGenAddr::byteCount);
      endpoint.set_length(prefix.len());
    }
    message.set_name(entry.name().data(), entry.name().count());
    return message;
  }
  static U32 encode(const Source& message, Bytes& buffer) {
    const auto size = static_cast<U32>(message.ByteSizeLong());
    if (size <= buffer.size()) message.SerializeWithCachedSizesToArray(buffer.data());
    return size;
  }
  Entry message;
  bool decode(const U8* bytes, U32 size) {
    return message.ParseFromArray(bytes, static_cast<int>(size));
  }
  TunnelTableEntry result() const {
    TunnelTableEntry entry(TunnelId(message.tunnel_id()),
                           TunnelEntryPref(static_cast<U8>(message.entry_pref())));
    entry.nexthopTunnelIdIs(TunnelId(message.nexthop_tunnel_id()));
    entry.entryMetricIs(message.entry_metric());
    entry.tunnelBwIs(TunnelBandwidth(message.tunnel_bw()));
    for (U8 i = 0; i < message.endpoint_size(); ++i) {
      const auto& endpoint = message.endpoint(i);
      U32 address;
      std::memcpy(&address, endpoint.address().data(), sizeof address);
      entry.endpointIs(TepIndex(i),
                       IpGenPrefix(IpGenAddr::fromIpv4(__builtin_bswap32(address)),
                                   endpoint.length()));
    }
    entry.setName(message.name());
    return entry;
  }
};

struct Flatbuffers {
  using Source = TunnelTableEntry;
  static Source sourceOf(const TunnelTableEntry& entry) { return entry; }
  static U32 encode(const Source& entry, Bytes& buffer) {
    static flatbuffers::FlatBufferBuilder builder(2048);
    static_assert(sizeof(Flat::Prefix) == sizeof(IpGenPrefix));
    builder.Clear();
    const auto name = builder.CreateVector(entry.name().data(), entry.name().count());
    const auto endpoint = builder.CreateVectorOfStructs(
        reinterpret_cast<const Flat::Prefix*>(entry.endpoint().data()),
        entry.endpoint().count());
    Flat::EntryBuilder table(builder);
    table.add_nexthop_tunnel_id(entry.nexthopTunnelId().value());
    table.add_tunnel_id(entry.tunnelId().value());
    table.add_name(name);
    table.add_endpoint(endpoint);
    table.add_tunnel_bw(entry.tunnelBw().value());
    table.add_entry_metric(entry.entryMetric());
    table.add_entry_pref(entry.entryPref().value());
    builder.Finish(table.Finish());
    std::memcpy(buffer.data(), builder.GetBufferPointer(), builder.GetSize());
    return builder.GetSize();
  }
  // Fields of an entry, arrays as large.
  struct Plain {
    U64 tunnelId, nexthopTunnelId;
    U8 entryPref;
    U32 entryMetric;
    float tunnelBw;
    U32 endpointCount;
    Flat::Prefix endpoint[16];
    U32 nameSize;
    U8 name[128];
  } plain;
  bool decode(const U8* bytes, U32 size) {
    flatbuffers::Verifier verifier(bytes, size);
    if (!Flat::VerifyEntryBuffer(verifier)) return false;
    const auto& entry = *Flat::GetEntry(bytes);
    plain.tunnelId = entry.tunnel_id();
    plain.nexthopTunnelId = entry.nexthop_tunnel_id();
    plain.entryPref = entry.entry_pref();
    plain.entryMetric = entry.entry_metric();
    plain.tunnelBw = entry.tunnel_bw();
    const auto* const endpoint = entry.endpoint();
    const auto* const name = entry.name();
    if (!endpoint || !name || endpoint->size() > 16 || name->size() > 128) return false;
    plain.endpointCount = endpoint->size();
    std::memcpy(plain.endpoint, endpoint->Data(),
                endpoint->size() * sizeof(Flat::Prefix));
    plain.nameSize = name->size();
    std::memcpy(plain.name, name->data(), name->size());
    return true;
  }
  TunnelTableEntry result() const {
    TunnelTableEntry entry(TunnelId(plain.tunnelId), TunnelEntryPref(plain.entryPref));
    entry.nexthopTunnelIdIs(TunnelId(plain.nexthopTunnelId));
    entry.entryMetricIs(plain.entryMetric);
    entry.tunnelBwIs(TunnelBandwidth(plain.tunnelBw));
    for (U8 i = 0; i < plain.endpointCount; ++i) {
      IpGenPrefix prefix;
      std::memcpy(static_cast<void*>(&prefix), &plain.endpoint[i], sizeof prefix);
      entry.endpointIs(TepIndex(i), prefix);
    }
    entry.setName({reinterpret_cast<const char*>(plain.name), plain.nameSize});
    return entry;
  }
};

template <class Side>
Bytes encoded(const TunnelTableEntry& entry) {
  Bytes bytes(1024);
  bytes.resize(Side::encode(Side::sourceOf(entry), bytes));
  return bytes;
}
template <class Side>
void check(const std::vector<TunnelTableEntry>& entries, U32 size) {
  for (const auto& entry : entries) {
    need(entry.serializeLen() == size, "an entry has another size");
    const Bytes bytes = encoded<Side>(entry);
    Side side;
    need(side.decode(bytes.data(), static_cast<U32>(bytes.size())),
         "a record is refused");
    need(side.result() == entry, "a record does not read back");
  }
}

template <class Side>
void encode(benchmark::State& state) {
  const auto size = static_cast<U32>(state.range(0));
  const auto entries = entriesOf(size);
  check<Side>(entries, size);
  std::vector<typename Side::Source> sources;
  for (const auto& entry : entries)
    sources.push_back(Side::sourceOf(entry));
  Bytes buffer(1024);
  std::size_t at = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(Side::encode(sources[at++ % recordCount], buffer));
    benchmark::ClobberMemory();
  }
  if (std::is_same_v<Side, Ours>) {
    state.counters["goal_memcpy"] = 4.5;
    state.counters["goal_protobuf"] = 0.15;
    state.counters["goal_flatbuffers"] = 0.9;
  }
}

template <class Side>
void decode(benchmark::State& state) {
  const auto size = static_cast<U32>(state.range(0));
  const auto entries = entriesOf(size);
  check<Side>(entries, size);
  std::vector<Bytes> records;
  for (const auto& entry : entries)
    records.push_back(encoded<Side>(entry));
  Side side;
  std::size_t at = 0;
  for (auto _ : state) {
    const Bytes& record = records[at++ % recordCount];
    if (!side.decode(record.data(), static_cast<U32>(record.size())))
      state.SkipWithError("a record is refused");
    benchmark::DoNotOptimize(&side);
    benchmark::ClobberMemory();
  }
  if (std::is_same_v<Side, Ours>) {
    state.counters["goal_memcpy"] = 5;
    state.counters["goal_protobuf"] = 0.15;
    state.counters["goal_flatbuffers"] = 0.9;
  }
}

#define SIDES(what)                                                                    \
  BENCHMARK_TEMPLATE(what, Ours)->Name(#what "Entry/ours")->Arg(70)->Arg(545);         \
  BENCHMARK_TEMPLATE(what, Memcpy)->Name(#what "Entry/memcpy")->Arg(70)->Arg(545);     \
  BENCHMARK_TEMPLATE(what, Protobuf)->Name(#what "Entry/protobuf")->Arg(70)->Arg(545); \
  BENCHMARK_TEMPLATE(what, Flatbuffers)                                                \
      ->Name(#what "Entry/flatbuffers")                                                \
      ->Arg(70)                                                                        \
      ->Arg(545)
SIDES(encode);
SIDES(decode);

}  // namespace
}  // namespace Tunnel::TunnelTable
