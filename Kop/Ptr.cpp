#include "Kop/Ptr.h"

#include <new>

#include "Kop/Assert.h"

namespace Kop {

namespace {

// Constant-initialised: records register from the initialisers of other objects.
constinit std::atomic<const AllocTrackTypeInfo*> newest{nullptr};

}  // namespace

AllocTrackTypeInfo::AllocTrackTypeInfo(const std::type_info& type)
    : type_(&type), next_(newest.load()) {
  while (!newest.compare_exchange_weak(next_, this)) {
  }
}

void AllocTrackTypeInfo::trackAllocation(AllocTrackTypeInfo& info,
                                         const std::type_info&,
                                         std::size_t size) {
  info.live_.fetch_add(1, std::memory_order_relaxed);
  info.total_.fetch_add(1, std::memory_order_relaxed);
  info.bytes_.fetch_add(size, std::memory_order_relaxed);
}
void AllocTrackTypeInfo::trackRelease(AllocTrackTypeInfo& info, std::size_t size) {
  info.live_.fetch_sub(1, std::memory_order_relaxed);
  info.bytes_.fetch_sub(size, std::memory_order_relaxed);
}
const char* AllocTrackTypeInfo::typeName() const {
  return type_->name();
}
const AllocTrackTypeInfo* AllocTrackTypeInfo::first() {
  return newest.load();
}

PtrInterface::~PtrInterface() {
  KOP_ASSERT(references() == 0, "references() == 0", "Kop/Ptr");
}

void PtrInterface::hasNotificationActiveIs(bool active) {
  if (active)
    __atomic_fetch_or(&word_, notificationActiveFlag, __ATOMIC_RELAXED);
  else
    __atomic_fetch_and(&word_, ~notificationActiveFlag, __ATOMIC_RELAXED);
}

void PtrInterface::zeroReferencesIs(bool) {}

void PtrInterface::handleZeroRef() {
  const U32 before = __atomic_fetch_or(&word_, releasingFlag, __ATOMIC_ACQ_REL);
  if (before & releasingFlag) return;  // an observer of the release dropped its reference
  zeroReferencesIs(true);
  delete this;
}

void* PtrInterface::kopMemAlloc(std::size_t size) {
  return ::operator new(size);
}
void PtrInterface::kopMemFree(void* object) {
  ::operator delete(object);
}

}  // namespace Kop
