#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

#include "Check.h"
#include "Quarn/Table.h"
#include "Quarn/TableLayout.h"

// A reader of a table that anybody may have made. The input is the object without most of its
// change ring, so that the parts that matter lie close together: the header, eight entries of
// the ring, the areas. Whatever it is, the reader gives rows with a right checksum or throws,
// and what it gives is the same each time.

using Quarn::RowState;
namespace Layout = Quarn::TableLayout;

namespace {

constexpr std::size_t headSize = sizeof(Layout::Header);
constexpr std::size_t ringSize = 8 * sizeof(Layout::RingEntry);

// Any bytes are one.
struct Bytes {
  static constexpr std::string_view tableKind = "Bytes";
  std::string bytes;
  U32 serializeLen() const { return static_cast<U32>(bytes.size()); }
  void serialize(void* to) const { std::memcpy(to, bytes.data(), bytes.size()); }
  U32 deserializeLen(const void*, U32 available) const { return available; }
  void deserialize(const void* from, U32 length) {
    bytes.assign(static_cast<const char*>(from), length);
  }
};

using Reader = Quarn::TableReader<Bytes>;

int objectOf(const std::uint8_t* bytes, std::size_t size) {
  const int fd = ::memfd_create("table", MFD_CLOEXEC);
  FUZZ_CHECK(fd >= 0);
  const auto part = [&](std::size_t count, U64 offset) {
    count = std::min(count, size);
    FUZZ_CHECK(::pwrite(fd, bytes, count, static_cast<off_t>(offset)) ==
               static_cast<ssize_t>(count));
    bytes += count;
    size -= count;
  };
  part(headSize, 0);
  part(ringSize, Layout::ringOffset);
  // A whole number of pages, as every object.
  const U64 end =
      Layout::areasOffset + (size + Layout::page - 1) / Layout::page * Layout::page;
  part(size, Layout::areasOffset);
  FUZZ_CHECK(::ftruncate(fd, static_cast<off_t>(end)) == 0);
  return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  try {
    const Reader reader(objectOf(bytes, size), "input");
    const Quarn::TableReport report = reader.verify();
    FUZZ_CHECK(report.settled && report.faultCount >= report.faults.size());
    reader.stats();
    reader.writerAlive();
    U64 upTo;
    std::vector<U64> changed, keys;
    reader.changedSince(0, changed, upTo);
    reader.changedSince(reader.changeCount() - 3, changed, upTo);
    Bytes row;
    bool isCorrupt = false;
    try {
      reader.forEachRow([&keys](U64 key, const Bytes&) { keys.push_back(key); });
    } catch (const Quarn::TableException&) {
      isCorrupt = true;
    }
    changed.insert(changed.end(), {0, 1, 2, ~U64{0}});
    for (const U64 key : changed)
      try {
        FUZZ_CHECK(reader.row(key, row) != RowState::busy);
      } catch (const Quarn::TableException&) {
        isCorrupt = true;
      }
    FUZZ_CHECK(!isCorrupt || !report.ok());
    if (!report.ok()) return 0;
    FUZZ_CHECK(keys.size() == report.rows && keys.size() == reader.rowCount());
    for (const U64 key : keys)
      FUZZ_CHECK(reader.row(key, row) == RowState::found);
  } catch (const Quarn::TableException&) {
  }
  return 0;
}
