#pragma once

#include <cstddef>
#include <new>

#include "Kop/Types.h"

namespace Kop {

// Nodes that stay where they are. Chunks double from 4 nodes to 4096.
class KOP_EXPORT HashMap2018Pool {
 public:
  HashMap2018Pool(U32 nodeSize, U32 nodeAlign);
  HashMap2018Pool(const HashMap2018Pool&) = delete;
  HashMap2018Pool& operator=(const HashMap2018Pool&) = delete;
  ~HashMap2018Pool();

  void* take();  // throws std::bad_alloc
  void give(void* node) noexcept {
    ::new (node) Free{free_};
    free_ = static_cast<Free*>(node);
    --used_;
  }
  std::size_t memory() const { return memory_; }
  void verify(U32 count) const;

 private:
  struct Free {
    Free* next;
  };
  struct Chunk {
    Chunk* next;
    std::size_t size;
  };
  void chunkAdd();

  std::size_t nodeSize_, align_;
  Free* free_ = nullptr;
  std::byte* fresh_ = nullptr;  // never used so far, up to freshEnd_
  std::byte* freshEnd_ = nullptr;
  Chunk* chunks_ = nullptr;
  std::size_t memory_ = 0;
  U32 nodes_ = 0, used_ = 0;
};

}  // namespace Kop
