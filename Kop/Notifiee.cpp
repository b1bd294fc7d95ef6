#include "Kop/Notifiee.h"

#include <algorithm>

namespace Kop {

// A visit under way, on the stack of whoever made the change. Visits nest when an observer
// writes; the list knows the innermost.
struct NotifieeList::Visit {
  Visit* outer;
  U32 at = 0;
  bool listGone = false;
};

Notifiee::~Notifiee() = default;

NotifieeList::~NotifieeList() {
  for (Visit* visit = visits_; visit; visit = visit->outer)
    visit->listGone = true;
  delete[] slots_;
}

bool NotifieeList::has(const Notifiee* notifiee) const {
  return std::find(slots_, slots_ + count_, notifiee) != slots_ + count_;
}

void NotifieeList::room() {
  if (count_ < capacity_) return;
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
  for (Visit* visit = visits_; visit; visit = visit->outer)
    ++visit->at;
}

void NotifieeList::del(Notifiee* notifiee) {
  Notifiee** const at = std::find(slots_, slots_ + count_, notifiee);
  if (at == slots_ + count_) return;
  --live_;
  if (visits_) {
    *at = nullptr;
  } else {
    std::copy(at + 1, slots_ + count_, at);
    --count_;
  }
}

void NotifieeList::compact() {
  count_ = static_cast<U32>(std::remove(slots_, slots_ + count_, nullptr) - slots_);
}

template <class Tell>
void NotifieeList::tellAll(Tell tell) {
  Visit visit{visits_};
  visits_ = &visit;
  const U32 later = count_;  // slots from here on registered during this visit
  U32 told = 0;
  for (; told < later; ++told, ++visit.at) {
    Notifiee* const notifiee = slots_[visit.at];
    if (!notifiee) continue;
    tell(notifiee);
    if (visit.listGone) return;
  }
  visits_ = visit.outer;
  if (!visits_ && live_ != count_) compact();
}

void NotifieeList::visitAll(AttributeId attribute) {
  tellAll([=](Notifiee* notifiee) { notifiee->onAttribute(attribute); });
}
void NotifieeList::visitAll(AttributeId attribute, const void* key) {
  tellAll([=](Notifiee* notifiee) { notifiee->onAttribute(attribute, key); });
}
void NotifieeList::visitParent() {
  if (live_ != 0) tellAll([](Notifiee* notifiee) { notifiee->onParent(); });
}

void NotifieeList::deleteAll() {
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
