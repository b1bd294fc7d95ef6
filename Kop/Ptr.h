#pragma once

#include <atomic>
#include <compare>
#include <concepts>
#include <cstddef>
#include <typeinfo>
#include <utility>

#include "Kop/KeyOps.h"
#include "Kop/String.h"
#include "Kop/Types.h"

// Intrusive reference counting.

namespace Kop {

class NotifieeListIterator;

// How many objects of one class there are and were. One per entity class, static.
//
// Threads  counts may be changed and read on any thread.
class KOP_EXPORT AllocTrackTypeInfo {
 public:
  explicit AllocTrackTypeInfo(const std::type_info& type);
  static void trackAllocation(AllocTrackTypeInfo& info,
                              const std::type_info& type,
                              std::size_t size);
  static void trackRelease(AllocTrackTypeInfo& info, std::size_t size);

  const char* typeName() const;  // as the compiler spells it, mangled
  U64 live() const { return live_.load(std::memory_order_relaxed); }
  U64 total() const { return total_.load(std::memory_order_relaxed); }
  U64 bytes() const {
    return bytes_.load(std::memory_order_relaxed);
  }  // of the live ones

  // All records of the process, the newest first.
  static const AllocTrackTypeInfo* first();
  const AllocTrackTypeInfo* next() const { return next_; }

 private:
  const std::type_info* type_;
  const AllocTrackTypeInfo* next_;
  std::atomic<U64> live_{0}, total_{0}, bytes_{0};
};

// The counted part of an entity. The count word holds the count in the bits of mask
// 0x5fffffff and two flags: bit 31, notifications are active; bit 29, the object is being
// released. The second keeps an observer of the release that takes and drops a reference
// from releasing the object again.
//
// Threads  references may be taken and dropped on several threads while threadSafePtrs() is
//          on; everything else is the owner's thread's.
class KOP_EXPORT PtrInterface {
 public:
  static constexpr U32 countMask = 0x5fffffff;
  static constexpr U32 notificationActiveFlag = 0x80000000;
  static constexpr U32 releasingFlag = 0x20000000;

  PtrInterface(const PtrInterface&) = delete;
  PtrInterface& operator=(const PtrInterface&) = delete;

  // The order of the virtual functions is part of the binary interface.
  virtual NotifieeListIterator notifieeList() = 0;
  virtual void hasNotificationActiveIs(bool active);
  virtual void zeroReferencesIs(bool zero);  // told before the object is deleted
  virtual FwkType fwkType() const = 0;

  void referencesInc() const {
    if (threadSafePtrs()) [[unlikely]]
      __atomic_fetch_add(&word_, 1, __ATOMIC_RELAXED);
    else
      ++word_;
  }
  void referencesDec() const {
    U32 left;
    if (threadSafePtrs()) [[unlikely]]
      left = __atomic_sub_fetch(&word_, 1, __ATOMIC_ACQ_REL);
    else
      left = --word_;
    if ((left & countMask) == 0) [[unlikely]]
      const_cast<PtrInterface*>(this)->handleZeroRef();
  }
  U32 references() const { return __atomic_load_n(&word_, __ATOMIC_RELAXED) & countMask; }
  bool hasNotificationActive() const { return flag(notificationActiveFlag); }
  bool releasing() const { return flag(releasingFlag); }

  static void* kopMemAlloc(std::size_t size);
  static void kopMemFree(void* object);

 protected:
  PtrInterface() = default;
  virtual ~PtrInterface();
  void handleZeroRef();

 private:
  bool flag(U32 bit) const {
    return (__atomic_load_n(&word_, __ATOMIC_RELAXED) & bit) != 0;
  }
  mutable U32 word_ = 0;
};

// A counted reference, or null.
template <class T>
class KOP_EXPORT Ptr {
 public:
  Ptr() noexcept = default;
  Ptr(std::nullptr_t) noexcept {}
  explicit Ptr(T* object) noexcept : object_(object) { take(); }
  Ptr(const Ptr& other) noexcept : object_(other.object_) { take(); }
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <std::derived_from<T> D>
  Ptr(const Ptr<D>& other) noexcept : object_(other.get()) {
    take();
  }
  Ptr& operator=(const Ptr& other) noexcept { return Ptr(other).swap(*this), *this; }
  Ptr& operator=(Ptr&& other) noexcept {
    return Ptr(std::move(other)).swap(*this), *this;
  }
  ~Ptr() {
    if (object_) object_->referencesDec();
  }
  void swap(Ptr& other) noexcept { std::swap(object_, other.object_); }

  T* get() const { return object_; }
  T& operator*() const { return *object_; }
  T* operator->() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  friend bool operator==(const Ptr& a, const Ptr& b) { return a.object_ == b.object_; }
  friend bool operator==(const Ptr& a, std::nullptr_t) { return a.object_ == nullptr; }

 private:
  void take() const {
    if (object_) object_->referencesInc();
  }
  T* object_ = nullptr;
};

template <class T>
inline constexpr bool isRelocatable<Ptr<T>> = true;

}  // namespace Kop
