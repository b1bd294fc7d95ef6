#pragma once

#include "Kop/Types.h"

namespace Kop {

class Entity;

// Hears of an entity's changes, each after it was made. An observer may register others,
// leave, write to the entity or drop its last reference while it is being told.
//
// Owner    whoever made it. It must leave (Entity::notifieeDel) or outlive the entity, which
//          says goodbye by onDetached.
// Threads  called on the entity's thread.
class KOP_EXPORT Notifiee {
 public:
  virtual ~Notifiee();
  virtual void onAttribute(AttributeId) {}  // a scalar
  // One key of a collection: a `const K*` of its key type, valid for the call.
  virtual void onAttribute(AttributeId, const void*) {}
  virtual void onParent() {}    // the parent link was set or cleared
  virtual void onDetached() {}  // the entity is going; do not call notifieeDel
};

// An entity's observers, told in the order of registration.
//
// One that registers while a change is being told hears of the next change; one that left is
// not called any more. The list may be destroyed during a visit, with its entity.
class KOP_EXPORT NotifieeList {
 public:
  NotifieeList() = default;
  ~NotifieeList();
  NotifieeList(const NotifieeList&) = delete;
  NotifieeList& operator=(const NotifieeList&) = delete;

  bool empty() const { return live_ == 0; }
  U32 count() const { return live_; }
  bool has(const Notifiee* notifiee) const;
  void add(Notifiee* notifiee);  // a registered one stays where it is
  void addFirst(
      Notifiee* notifiee);  // told before the others: for the attribute log, whose
                            // messages must keep the order of the writes
  void del(Notifiee* notifiee);
  void visit(AttributeId attribute) {
    if (live_ != 0) visitAll(attribute);
  }
  void visit(AttributeId attribute, const void* key) {
    if (live_ != 0) visitAll(attribute, key);
  }
  void visitParent();
  void deleteAll();  // detaches all; each hears onDetached

 private:
  friend class NotifieeListIterator;
  struct Visit;
  void visitAll(AttributeId attribute);
  void visitAll(AttributeId attribute, const void* key);
  template <class Tell>
  void tellAll(Tell tell);
  void room();
  void compact();

  Notifiee** slots_ = nullptr;  // null where one left during a visit
  U32 count_ = 0, capacity_ = 0, live_ = 0;
  Visit* visits_ = nullptr;
};

// A place in a list, at first its first observer.
class KOP_EXPORT NotifieeListIterator {
 public:
  explicit NotifieeListIterator(NotifieeList* list) : list_(list) { skip(); }
  Notifiee* notifiee() const { return *this ? list_->slots_[at_] : nullptr; }
  explicit operator bool() const { return at_ < list_->count_; }
  void advance() {
    ++at_;
    skip();
  }

 private:
  void skip() {
    while (at_ < list_->count_ && !list_->slots_[at_])
      ++at_;
  }
  NotifieeList* list_;
  U32 at_ = 0;
};

}  // namespace Kop
