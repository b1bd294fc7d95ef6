#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "Tunnel/TunnelBasicTypes.h"

// Kind and index of every identifier in a list, by accessors and by shift and mask.

namespace Tunnel::TunnelTable {
namespace {

constexpr std::size_t idCount = 4096;

std::vector<U64> words() {
  std::mt19937_64 random(17);
  std::vector<U64> all(idCount);
  for (U64& word : all)
    word = random() & TunnelId::maxValue;
  return all;
}

void identifierOurs(benchmark::State& state) {
  std::vector<TunnelId> ids;
  for (const U64 word : words())
    ids.emplace_back(word);
  for (auto _ : state) {
    U64 sum = 0;
    for (const TunnelId& id : ids)
      sum += id.tunnelType() ^ id.tunnelIndex();
    benchmark::DoNotOptimize(sum);
  }
  state.counters["goal"] = 1.05;
}
BENCHMARK(identifierOurs)->Name("identifier/ours");

void identifierBare(benchmark::State& state) {
  const std::vector<U64> ids = words();
  for (auto _ : state) {
    U64 sum = 0;
    for (const U64& id : ids) {
      const U32 type = static_cast<U32>(id >> 44);
      sum += type ^ (id & (type == 21 ? 0x7ffffffff : 0x7ffffffffff));
    }
    benchmark::DoNotOptimize(sum);
  }
}
BENCHMARK(identifierBare)->Name("identifier/shift_and_mask");

}  // namespace
}  // namespace Tunnel::TunnelTable
