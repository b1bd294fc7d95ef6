#include "FailingAllocation.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <new>

long allocationsUntilFailure = -1;

#if OPERATOR_NEW_IS_REPLACED

// Out of line, or the compiler sees free() at the end of a chain that began with new.
[[gnu::noinline]] static void* allocate(std::size_t size, std::size_t align) {
  if (allocationsUntilFailure >= 0 && allocationsUntilFailure-- == 0)
    throw std::bad_alloc();
  align = std::max(align, alignof(std::max_align_t));
  size = std::max(size, align);
  void* const memory = std::aligned_alloc(align, (size + align - 1) / align * align);
  if (!memory) throw std::bad_alloc();
  return memory;
}
[[gnu::noinline]] static void release(void* memory) {
  std::free(memory);
}

void* operator new(std::size_t size) {
  return allocate(size, 1);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept try {
  return allocate(size, 1);
} catch (const std::bad_alloc&) {
  return nullptr;
}
void* operator new(std::size_t size, std::align_val_t align) {
  return allocate(size, static_cast<std::size_t>(align));
}
void operator delete(void* memory) noexcept {
  release(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  release(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
  release(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  release(memory);
}

#endif
