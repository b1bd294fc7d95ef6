#include <benchmark/benchmark.h>

#include "Observers.h"

// A change told to all observers of an entity, against a loop over a vector of pointers. Each
// observer adds to a sum of its own. The size is the number of observers.

namespace Kop {
namespace {

constexpr AttributeId attribute = 258;

void notifyOurs(benchmark::State& state) {
  const std::size_t count = static_cast<std::size_t>(state.range(0));
  std::vector<U64> heard(count);
  std::vector<std::unique_ptr<Notifiee>> observers;
  NotifieeList list;
  for (U64& sum : heard) {
    observers.push_back(notifieeOf(sum));
    list.add(observers.back().get());
  }
  U64 key = 0;
  for (auto _ : state) {
    ++key;
    list.visit(attribute, &key);
    benchmark::ClobberMemory();
  }
  for (const U64 sum : heard)
    if (sum != key * attribute + key * (key + 1) / 2)
      state.SkipWithError("an observer missed a change");
  state.counters["goal"] = 1.15;
}
BENCHMARK(notifyOurs)->Name("notify/ours")->Arg(1)->Arg(8);

void notifyLoop(benchmark::State& state) {
  const std::size_t count = static_cast<std::size_t>(state.range(0));
  std::vector<U64> heard(count);
  std::vector<std::unique_ptr<Listener>> observers;
  std::vector<Listener*> list;
  for (U64& sum : heard) {
    observers.push_back(listenerOf(sum));
    list.push_back(observers.back().get());
  }
  benchmark::DoNotOptimize(list);  // the loop reads begin and end as a member's
  U64 key = 0;
  for (auto _ : state) {
    ++key;
    for (Listener* const listener : list)
      listener->onAttribute(attribute, &key);
    benchmark::ClobberMemory();
  }
  for (const U64 sum : heard)
    if (sum != key * attribute + key * (key + 1) / 2)
      state.SkipWithError("an observer missed a change");
}
BENCHMARK(notifyLoop)->Name("notify/virtual_loop")->Arg(1)->Arg(8);

}  // namespace
}  // namespace Kop
