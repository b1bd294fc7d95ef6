#include <algorithm>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>

#include "Kop/Notifiee.h"
#include "Kop/Ptr.h"

// A counted reference copied and dropped. The objects are visited in random order; the size
// is their number, inside and outside of the cache.

namespace Kop {
namespace {

class Counted : public PtrInterface {
 public:
  NotifieeListIterator notifieeList() override { return NotifieeListIterator(&list_); }
  FwkType fwkType() const override { return {}; }

 private:
  NotifieeList list_;
};

struct Plain : boost::intrusive_ref_counter<Plain, boost::thread_unsafe_counter> {
  virtual ~Plain() = default;
  char rest[sizeof(Counted) - 2 * sizeof(void*)];  // objects of one size
};
static_assert(sizeof(Plain) == sizeof(Counted));

template <class Pointer, class Object>
void copyAndDrop(benchmark::State& state) {
  std::vector<Pointer> pointers(static_cast<std::size_t>(state.range(0)));
  for (Pointer& pointer : pointers)
    pointer = Pointer(new Object);
  std::shuffle(pointers.begin(), pointers.end(), std::mt19937(5));
  std::size_t i = 0;
  for (auto _ : state) {
    Pointer copy(pointers[i]);
    benchmark::DoNotOptimize(copy);
    if (++i == pointers.size()) i = 0;
  }
}

void ptrOurs(benchmark::State& state) {
  copyAndDrop<Ptr<Counted>, Counted>(state);
  state.counters["goal"] = 1.1;
}
void ptrThreadSafe(benchmark::State& state) {
  threadSafePtrsIs(true);
  copyAndDrop<Ptr<Counted>, Counted>(state);
  threadSafePtrsIs(false);
}
BENCHMARK(ptrOurs)->Name("ptrCopyDrop/ours")->Arg(1000)->Arg(1000000);
BENCHMARK(copyAndDrop<boost::intrusive_ptr<Plain>, Plain>)
    ->Name("ptrCopyDrop/intrusive_ptr")
    ->Arg(1000)
    ->Arg(1000000);

// The same with the counters that may be shared between threads.
struct PlainShared
    : boost::intrusive_ref_counter<PlainShared, boost::thread_safe_counter> {
  virtual ~PlainShared() = default;
  char rest[sizeof(Counted) - 2 * sizeof(void*)];
};
BENCHMARK(ptrThreadSafe)->Name("ptrCopyDropThreadSafe/ours")->Arg(1000)->Arg(1000000);
BENCHMARK(copyAndDrop<boost::intrusive_ptr<PlainShared>, PlainShared>)
    ->Name("ptrCopyDropThreadSafe/intrusive_ptr")
    ->Arg(1000)
    ->Arg(1000000);

}  // namespace
}  // namespace Kop
