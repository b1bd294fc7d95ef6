#include "Kop/NboAttrLog.h"

#include <algorithm>

namespace Kop::NboAttrLog {

namespace {

constexpr std::size_t smallBuffer = 4096;
constexpr std::size_t keptBuffer = 1u << 20;  // an empty buffer beyond this is given back

}  // namespace

void Out::grow(std::size_t wanted) {
  const std::size_t used = size();
  // Moving to the front is enough when at least half of the buffer was consumed.
  if (head_ > used && capacity_ - used >= wanted) {
    std::memcpy(begin_, begin_ + head_, used);
  } else {
    const std::size_t capacity = std::max({smallBuffer, capacity_ * 2, used + wanted});
    U8* larger = new U8[capacity];
    if (used > 0) std::memcpy(larger, begin_ + head_, used);
    delete[] begin_;
    begin_ = larger;
    capacity_ = capacity;
  }
  head_ = 0;
  tail_ = used;
}

void Out::consume(std::size_t size) {
  head_ += size;
  if (head_ < tail_) return;
  head_ = tail_ = 0;
  if (capacity_ > keptBuffer) {
    delete[] begin_;
    begin_ = nullptr;
    capacity_ = 0;
  }
}

void In::throwShort(std::size_t wanted) const {
  throw LogCorruptException(stringPrintf("%zu bytes wanted at offset %zu, %zu left",
                                         wanted, offset(), remaining()));
}

}  // namespace Kop::NboAttrLog
