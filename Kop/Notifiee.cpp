#include "Kop/Notifiee.h"

#include <algorithm>

namespace Kop {

// Not in the header: there they would be guessed as the likely targets of every call.
Notifiee::~Notifiee() = default;
void Notifiee::onAttribute(AttributeId) {}
void Notifiee::onAttribute(AttributeId, const void*) {}
void Notifiee::onParent() {}
void Notifiee::onDetached() {}

NotifieeList::~NotifieeList() {
  for (Visit* visit = visits_; visit; visit = visit->outer)
    visit->listGone = visit->disturbed = true;
  delete[] slots_;
}

bool NotifieeList::has(const Notifiee* notifiee) const {
  return std::find(slots_, slots_ + count_, notifiee) != slots_ + count_;
}

void NotifieeList::disturb() {
  for (Visit* visit = visits_; visit; visit = visit->outer)
    visit->disturbed = true;
}

void NotifieeList::room() {
  if (count_ < capacity_) return;
  disturb();
  const U32 capacity = capacity_ == 0 ? 2 : capacity_ * 2;
  Notifiee** larger = new Notifiee*[capacity];
  std::copy_n(slots_, count_, larger);
  delete[] slots_;
  slots_ = larger;
  capacity_ = capacity;
}

void NotifieeList::add(Notifiee* notifiee) {
  if (has(notifiee)) return;
  room();
  slots_[count_++] = notifiee;
  ++live_;
}

void NotifieeList::addFirst(Notifiee* notifiee) {
  if (has(notifiee)) return;
  room();
  std::copy_backward(slots_, slots_ + count_, slots_ + count_ + 1);
  slots_[0] = notifiee;
  ++count_;
  ++live_;
  disturb();
  for (Visit* visit = visits_; visit; visit = visit->outer)
    ++visit->shift;
}

void NotifieeList::del(Notifiee* notifiee) {
  Notifiee** const at = std::find(slots_, slots_ + count_, notifiee);
  if (at == slots_ + count_) return;
  --live_;
  if (visits_) {
    *at = nullptr;
    disturb();
  } else {
    std::copy(at + 1, slots_ + count_, at);
    --count_;
  }
}

void NotifieeList::compact() {
  count_ = static_cast<U32>(std::remove(slots_, slots_ + count_, nullptr) - slots_);
}

template <class Tell>
void NotifieeList::tellRest(Visit& visit, U32 told, U32 later, Tell tell) {
  if (visit.listGone) return;
  for (; told < later; ++told) {
    Notifiee* const notifiee = slots_[told + visit.shift];
    if (!notifiee) continue;
    tell(notifiee);
    if (visit.listGone) return;
  }
}

void NotifieeList::visitRest(Visit& visit, U32 told, U32 later, AttributeId attribute) {
  tellRest(visit, told, later,
           [=](Notifiee* notifiee) { notifiee->onAttribute(attribute); });
}
void NotifieeList::visitRest(
    Visit& visit, U32 told, U32 later, AttributeId attribute, const void* key) {
  tellRest(visit, told, later,
           [=](Notifiee* notifiee) { notifiee->onAttribute(attribute, key); });
}
void NotifieeList::visitParent() {
  if (onlyOne()) return slots_[0]->onParent();
  if (live_ == 0) return;
  Visit visit(this);
  tellRest(visit, 0, count_, [](Notifiee* notifiee) { notifiee->onParent(); });
}

void NotifieeList::deleteAll() {
  disturb();
  while (live_ != 0) {
    Notifiee** const at =
        std::find_if(slots_, slots_ + count_, [](Notifiee* n) { return n != nullptr; });
    Notifiee* const notifiee = *at;
    *at = nullptr;
    --live_;
    notifiee->onDetached();
  }
  if (!visits_) count_ = 0;
}

}  // namespace Kop
