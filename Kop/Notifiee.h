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
  virtual void onAttribute(AttributeId);  // a scalar
  // One key of a collection: a `const K*` of its key type, valid for the call.
  virtual void onAttribute(AttributeId, const void*);
  virtual void onParent();    // the parent link was set or cleared
  virtual void onDetached();  // the entity is going; do not call notifieeDel
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
    if (onlyOne()) return slots_[0]->onAttribute(attribute);
    if (live_ != 0) visitAll(attribute);
  }
  void visit(AttributeId attribute, const void* key) {
    if (onlyOne()) return slots_[0]->onAttribute(attribute, key);
    if (live_ != 0) visitAll(attribute, key);
  }
  void visitParent();
  void deleteAll();  // detaches all; each hears onDetached

 private:
  friend class NotifieeListIterator;
  // A visit under way, on the stack of whoever made the change. Visits nest when an observer
  // writes; the list knows the innermost.
  struct Visit {
    explicit Visit(NotifieeList* list) : list(list), outer(list->visits_) {
      Visit* visit = this;
      asm("" : "+r"(visit));  // else g++ warns of a pointer left behind, and is wrong
      list->visits_ = visit;
    }
    ~Visit() {
      if (!listGone) list->visitEnd(outer);
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

    NotifieeList* list;
    Visit* outer;
    U32 shift = 0;  // slots that were put in front since the visit began
    bool listGone = false;
    bool disturbed = false;  // by anything that the loop has to look at
  };
  void visitEnd(Visit* outer) {
    visits_ = outer;
    if (!outer && live_ != count_) compact();
  }

  // In the library of whoever makes the change, often that of the observers: calls between
  // libraries cost twice those within one. In an outermost visit no slot is empty, and
  // nearly always nothing else happens.
  template <class... Arguments>
  [[gnu::noinline, gnu::visibility("hidden")]] void visitAll(Arguments... arguments) {
    Visit visit(this);
    const U32 later = count_;  // slots from here on registered during this visit
    U32 told = 0;
    if (!visit.outer) {
      Notifiee* const* const slots = slots_;
      do
        slots[told++]->onAttribute(arguments...);
      while (told < later && !visit.disturbed);
      if (!visit.disturbed) return;
    }
    visitRest(visit, told, later, arguments...);
  }
  void visitRest(Visit& visit, U32 told, U32 later, AttributeId attribute);
  void visitRest(
      Visit& visit, U32 told, U32 later, AttributeId attribute, const void* key);
  template <class Tell>
  void tellRest(Visit& visit, U32 told, U32 later, Tell tell);
  // A single observer needs no visit: nothing is looked at when it has been told. Slots are
  // only taken out when no visit is under way, so there is none now.
  bool onlyOne() const { return count_ == 1; }
  void disturb();
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
