#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "Kop/Assert.h"
#include "Kop/Types.h"

namespace Quarn {

// Writes or reads the packed records of tables in shared memory: one field behind the other
// in host byte order, without padding, at any alignment.
//
// Over a null buffer it only counts: nothing is written, the cursor advances all the same,
// so the code that writes a record also measures it.
//
// Widths   the cursor is 32 bits.
// Errors   the size of the buffer is the caller's promise. Reading from a null buffer and
//          writing to a buffer given for reading are assertions.
// Owner    the caller owns the buffer.
class Serializer {
 public:
  explicit Serializer(std::nullptr_t) {}
  explicit Serializer(void* buffer) : write_(static_cast<U8*>(buffer)), read_(write_) {}
  explicit Serializer(const void* buffer)
      : read_(static_cast<const U8*>(buffer)), isReader_(true) {}

  U32 length() const { return at_; }
  // Where the next field stands, or null over a null buffer.
  const void* cursor() const { return read_ ? read_ + at_ : nullptr; }

  void put(const void* bytes, U32 size) {
    KOP_ASSERT(!isReader_, "!isReader", source);
    if (write_ && size > 0) std::memcpy(write_ + at_, bytes, size);
    at_ += size;
  }
  // As wide as T, so say the type: put(U8{1}) or put<U8>(1).
  template <class T>
  void put(const T& value) {
    static_assert(std::is_trivially_copyable_v<T> && !std::is_pointer_v<T>);
    put(&value, sizeof value);
  }

  void get(void* bytes, U32 size) {
    KOP_ASSERT(read_ != nullptr, "buffer != nullptr", source);
    if (size > 0) std::memcpy(bytes, read_ + at_, size);
    at_ += size;
  }
  template <class T>
  T get() {
    static_assert(std::is_trivially_copyable_v<T> && !std::is_pointer_v<T>);
    T value;
    get(&value, sizeof value);
    return value;
  }

  // Steps over bytes; what stands there stays.
  void skip(U32 size) { at_ += size; }

 private:
  static constexpr const char* source = "Quarn/Serializer";

  U8* write_ = nullptr;
  const U8* read_ = nullptr;
  U32 at_ = 0;
  bool isReader_ = false;
};

}  // namespace Quarn
