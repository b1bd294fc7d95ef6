#include "Kop/HashMap2018Pool.h"

#include <algorithm>

#include "Kop/Assert.h"

namespace Kop {

HashMap2018Pool::HashMap2018Pool(U32 nodeSize, U32 nodeAlign)
    : align_(std::max<std::size_t>(nodeAlign, alignof(Chunk))) {
  const std::size_t align = std::max<std::size_t>(nodeAlign, alignof(Free));
  nodeSize_ = (std::max<std::size_t>(nodeSize, sizeof(Free)) + align - 1) / align * align;
}

HashMap2018Pool::~HashMap2018Pool() {
  while (Chunk* const chunk = chunks_) {
    chunks_ = chunk->next;
    ::operator delete(chunk, std::align_val_t(align_));
  }
}

void* HashMap2018Pool::take() {
  void* node = free_;
  if (node) {
    free_ = free_->next;
  } else {
    if (fresh_ == freshEnd_) chunkAdd();
    node = fresh_;
    fresh_ += nodeSize_;
  }
  ++used_;
  return node;
}

void HashMap2018Pool::chunkAdd() {
  const std::size_t nodes = std::clamp(nodes_, 4u, 4096u);
  const std::size_t from = (sizeof(Chunk) + align_ - 1) / align_ * align_;
  const std::size_t size = from + nodes * nodeSize_;
  std::byte* const memory =
      static_cast<std::byte*>(::operator new(size, std::align_val_t(align_)));
  chunks_ = ::new (memory) Chunk{chunks_, size};
  fresh_ = memory + from;
  freshEnd_ = memory + size;
  memory_ += size;
  nodes_ += static_cast<U32>(nodes);
}

void HashMap2018Pool::verify(U32 count) const {
  KOP_ASSERT(used_ == count, "used_ == count", "HashMap2018");
  std::size_t unused = static_cast<std::size_t>(freshEnd_ - fresh_) / nodeSize_;
  for (const Free* node = free_; node && unused <= nodes_; node = node->next)
    ++unused;
  KOP_ASSERT(nodes_ - used_ == unused, "nodes_ - used_ == unused", "HashMap2018");
}

}  // namespace Kop
