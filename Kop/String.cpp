#include "Kop/String.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <new>
#include <ostream>
#include <stdexcept>

#include "Kop/Hash.h"

namespace Kop {

bool threadSafePtrs_ = false;

void threadSafePtrsIs(bool on) {
  threadSafePtrs_ = on;
}

void String::longIs(const char* bytes, std::size_t size) {
  if (size > std::numeric_limits<U32>::max() - 16)
    throw std::length_error("Kop::String: too long");
  char* block = static_cast<char*>(::operator new(blockHead + size + 1));
  const U32 count = 1;
  const U32 stored = static_cast<U32>(size);
  std::memcpy(block, &count, sizeof count);
  std::memcpy(block + blockHead, bytes, size);
  block[blockHead + size] = '\0';
  std::memcpy(raw_, &block, sizeof block);
  std::memcpy(raw_ + 8, &stored, sizeof stored);
  raw_[12] = raw_[13] = raw_[14] = 0;
  raw_[maxShort] = static_cast<char>(longMark);
}

void String::blockInc() const noexcept {
  U32* count = reinterpret_cast<U32*>(block());
  if (threadSafePtrs())
    __atomic_fetch_add(count, 1, __ATOMIC_RELAXED);
  else
    ++*count;
}

void String::blockDec() noexcept {
  U32* count = reinterpret_cast<U32*>(block());
  const U32 left =
      threadSafePtrs() ? __atomic_sub_fetch(count, 1, __ATOMIC_ACQ_REL) : --*count;
  if (left == 0) ::operator delete(block());
}

U32 String::hash() const {
  return hashString(*this);
}

std::ostream& operator<<(std::ostream& out, const String& text) {
  return out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

String stringPrintf(const char* format, ...) {
  char buffer[256];
  va_list args, again;
  va_start(args, format);
  va_copy(again, args);
  const int size = std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  String text;
  if (size >= 0 && static_cast<std::size_t>(size) < sizeof buffer) {
    text = String(buffer, static_cast<std::size_t>(size));
  } else if (size >= 0) {
    std::string large(static_cast<std::size_t>(size) + 1, '\0');
    std::vsnprintf(large.data(), large.size(), format, again);
    text = String(large.data(), static_cast<std::size_t>(size));
  }
  va_end(again);
  return text;
}

}  // namespace Kop
