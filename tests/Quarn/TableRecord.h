#pragma once

#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

#include "Kop/Types.h"
#include "Quarn/Table.h"

// Records that know whether they are whole: a length, the key, a version and bytes that follow
// from these three.
struct TestRecord {
  static constexpr std::string_view tableKind = "TestRecord";
  static constexpr U32 headSize = 20;

  U64 key = 0, version = 0;
  U32 size = 0;  // of the tail
  std::vector<U8> tail;

  TestRecord() = default;
  TestRecord(U64 k, U64 v, U32 s) : key(k), version(v), size(s), tail(s) {
    for (U32 i = 0; i < size; ++i)
      tail[i] = at(i);
  }
  U8 at(U32 i) const {
    return static_cast<U8>((key * 31 + version * 7 + i) * 0x9e3779b97f4a7c15 >> 56);
  }
  bool isWhole(U64 wantedKey) const {
    if (key != wantedKey || tail.size() != size) return false;
    for (U32 i = 0; i < size; ++i)
      if (tail[i] != at(i)) return false;
    return true;
  }
  bool operator==(const TestRecord&) const = default;

  U32 serializeLen() const { return headSize + size; }
  void serialize(void* to) const {
    U8* const bytes = static_cast<U8*>(to);
    std::memcpy(bytes, &key, 8);
    std::memcpy(bytes + 8, &version, 8);
    std::memcpy(bytes + 16, &size, 4);
    if (size > 0) std::memcpy(bytes + headSize, tail.data(), size);
  }
  U32 deserializeLen(const void* from, U32 available) const {
    if (available < headSize) return 0;
    U32 n;
    std::memcpy(&n, static_cast<const U8*>(from) + 16, 4);
    return available - headSize >= n ? headSize + n : 0;
  }
  void deserialize(const void* from, U32) {
    const U8* const bytes = static_cast<const U8*>(from);
    std::memcpy(&key, bytes, 8);
    std::memcpy(&version, bytes + 8, 8);
    std::memcpy(&size, bytes + 16, 4);
    tail.assign(bytes + headSize, bytes + headSize + size);
  }
};

using TestWriter = Quarn::TableWriter<TestRecord>;
using TestReader = Quarn::TableReader<TestRecord>;

// A table's name of this process, and no table left behind.
class TestName {
 public:
  explicit TestName(const char* what)
      : name_("/quarn-test-" + std::to_string(::getpid()) + "-" + what) {
    TestWriter::remove(name_);
  }
  ~TestName() { TestWriter::remove(name_); }
  operator std::string_view() const { return name_; }
  const std::string& text() const { return name_; }

 private:
  std::string name_;
};
