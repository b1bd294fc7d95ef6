#pragma once

#include <unistd.h>

#include "Quarn/Serializer.h"
#include "Quarn/Table.h"
#include "tests/Support/Testing.h"

// Records that know whether they are whole: a key, a version, a size and so many bytes that
// follow from key and version.
struct TestRecord {
  static constexpr std::string_view tableKind = "TestRecord";

  U64 key = 0, version = 0;
  U32 size = 0;  // of the tail
  bool isTail = true;

  U8 at(U32 i) const {
    return static_cast<U8>((key * 31 + version * 7 + i) * 0x9e3779b97f4a7c15 >> 56);
  }
  bool isWhole(U64 wantedKey) const { return key == wantedKey && isTail; }
  bool operator==(const TestRecord&) const = default;

  U32 serializeLen() const { return 20 + size; }
  void serialize(void* to) const {
    Quarn::Serializer s(to);
    s.put(key);
    s.put(version);
    s.put(size);
    for (U32 i = 0; i < size; ++i)
      s.put(at(i));
  }
  U32 deserializeLen(const void* from, U32 available) const {
    Quarn::Serializer s(from);
    s.skip(16);
    return available >= 20 && s.get<U32>() <= available - 20 ? available : 0;
  }
  void deserialize(const void* from, U32) {
    Quarn::Serializer s(from);
    *this = {s.get<U64>(), s.get<U64>(), s.get<U32>()};
    for (U32 i = 0; i < size; ++i)
      isTail = s.get<U8>() == at(i) && isTail;
  }
};

using TestWriter = Quarn::TableWriter<TestRecord>;
using TestReader = Quarn::TableReader<TestRecord>;

// A table's name of this process, and no table left behind.
struct TestName {
  explicit TestName(const char* what)
      : text("/quarn-test-" + std::to_string(::getpid()) + "-" + what) {
    TestWriter::remove(text);
  }
  ~TestName() { TestWriter::remove(text); }
  operator std::string_view() const { return text; }
  std::string path() const { return "/dev/shm" + text; }

  const std::string text;
};

inline std::string faultsOf(const TestReader& table) {
  std::string all;
  for (const std::string& fault : table.verify().faults)
    all += fault + "\n";
  return all;
}
