#pragma once

#include <memory>
#include <vector>

#include "Kop/Notifiee.h"

// Observers whose type the benchmarks do not see, so that no call to one is devirtualised.

namespace Kop {

// What the peer's loop calls: the same virtual function without a library around it.
class Listener {
 public:
  virtual ~Listener() = default;
  virtual void onAttribute(AttributeId attribute, const void* key) = 0;
};

// Each sums up what it is told in `heard`, which outlives it.
std::unique_ptr<Notifiee> notifieeOf(U64& heard);
std::unique_ptr<Listener> listenerOf(U64& heard);

}  // namespace Kop
