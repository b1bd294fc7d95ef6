#pragma once

#include <bit>
#include <cstddef>

#include "Kop/Types.h"

// The form of a table in shared memory, version 1. All words are in host byte order; offsets
// are bytes from the beginning of the object.
//
//   0        +------------------+
//            | Header           |  one page
//   4096     +------------------+
//            | change ring      |  65536 x {number, key}
//   1052672  +------------------+
//            | area             |  areas lie end to end up to Header::size; each begins with
//            +------------------+  an AreaHeader and is a multiple of 4096 bytes
//            | area             |
//            +------------------+
//
// An area is one of
//   rows    slots of one size, the first 64 bytes into the area
//   index   2^n words from 64 bytes into the area; Header::index says which one is in use
//   free    given up: an index that was outgrown, or rows that were all deleted
//
//   slot     0        8        16      20         24
//            +--------+--------+-------+----------+---------------------+
//            | stamp  | key    | length| checksum | the row, 0 to 8     |
//            +--------+--------+-------+----------+---------------------+
//            stamp: number of the change that wrote the row, 0 while it is being written
//
//   index word     63      40 39        0
//                 +----------+-----------+   0  nothing ever stood here: a search ends
//                 | low bits | slot      |   1  a deleted row: a search goes on
//                 | of hash  | offset/16 |
//                 +----------+-----------+
//
//   Header::index  63        42 41      36 35             0
//                 +------------+----------+----------------+
//                 | generation | log2 of  | offset of area |
//                 |            | words    | / 4096         |
//                 +------------+----------+----------------+
//
// A key's hash is a bijection of key ^ seed. Its high bits are the place in the index where
// the search for the key begins; it goes upwards, around the end, over at most 4096 words. So
// the order of the index is that of the hashes, whatever its size.
//
// A row is never changed where it stands. The writer fills a free slot and then stores one
// index word; that store is the change. What it replaces stays whole until 64 more slots of
// its size (fewer of big ones) have been given up after it. The order of the stores of change n is
//
//   1. slot: stamp 0, row, stamp n     3. index word    5. changes = n
//   2. ring entry n                    4. rows
//
// so a writer that dies anywhere leaves all rows whole, and at most one change, which the ring
// names, that is made and not counted.
//
// Versions: a reader refuses every version but its own.

namespace Quarn::TableLayout {

inline constexpr char magic[8] = {'\x89', 'Q', 'T', 'A', 'B', '\r', '\n', '\x1a'};
inline constexpr U32 byteOrderMark = 0x01020304;
inline constexpr U32 version = 1;
inline constexpr U64 page = 4096;
inline constexpr U64 maxKind = 192;
inline constexpr U64 ringCount = 65536;
inline constexpr U32 maxLength = 16 << 20;  // bytes of one row
inline constexpr U64 maxProbes = 4096;
inline constexpr U32 minLog2 = 10, maxLog2 = 32;  // words of an index
inline constexpr U64 slotUnit = 16;
inline constexpr U64 maxSize = (U64{1} << 40) * slotUnit;  // bytes of an object

struct Header {   // the first page
  char magic[8];  // stored last by whoever creates the table
  U32 byteOrder;
  U32 version;
  U32 headerSize;  // of this, 4096
  U32 slotHeaderSize;
  U64 seed;
  U64 ringOffset;
  U32 ringEntries;
  U32 kindLength;
  U64 areasOffset;  // of the first
  U64 reserved;
  char kind[maxKind];  // what the rows are, filled up with zeros

  alignas(64) U64 size;  // bytes in use: where the last area ends; never shrinks
  U64 index;
  U64 writerPid;  // who writes, or wrote last; 0 after a writer that ended in order

  alignas(64) U64 changes;  // ever made
  U64 rows;
};
static_assert(offsetof(Header, byteOrder) == 8 && offsetof(Header, kind) == 64);
static_assert(offsetof(Header, size) == 256 && offsetof(Header, changes) == 320);
static_assert(sizeof(Header) == 384);

struct RingEntry {  // a change, and the key that it was of
  U64 number;       // 0 while it is being written
  U64 key;
};
static_assert(sizeof(RingEntry) == 16);
inline constexpr U64 ringOffset = page;
inline constexpr U64 areasOffset = ringOffset + ringCount * sizeof(RingEntry);
static_assert(areasOffset == 1052672 && areasOffset % page == 0);

enum class AreaKind : U8 { rows = 1, index = 2, free = 3 };
struct AreaHeader {  // the beginning of an area
  U64 size;          // bytes, this included
  U64 kind;          // AreaKind in the low 8 bits, the size of a slot above
  U64 reserved[6];
};
static_assert(sizeof(AreaHeader) == 64);

struct SlotHeader {  // the beginning of a slot; the row follows
  U64 stamp;
  U64 key;
  U64 lengthAndSum;  // length in the low 32 bits, checksum above
};
static_assert(sizeof(SlotHeader) == 24);

inline constexpr U64 emptyWord = 0, deletedWord = 1;

// Sizes of slots: each 16 bytes up to 512, then four to a doubling.
constexpr U64 slotSizeFor(U64 length) {
  const U64 size = sizeof(SlotHeader) + length;
  const U64 step = size <= 512 ? slotUnit : std::bit_floor(size - 1) / 4;
  return (size + step - 1) / step * step;
}
static_assert(slotSizeFor(0) == 32 && slotSizeFor(8) == 32 && slotSizeFor(488) == 512);
static_assert(slotSizeFor(489) == 640 && slotSizeFor(1000) == 1024);
static_assert(slotSizeFor(1001) == 1280);
inline constexpr U64 maxSlotSize = slotSizeFor(maxLength);

// The hash of a key: every bit of the key reaches every bit of it, and no two keys share one.
constexpr U64 hashOf(U64 key, U64 seed) {
  U64 h = key ^ seed;
  h = (h ^ h >> 32) * 0xd6e8feb86659fd93;
  h = (h ^ h >> 29) * 0xbf58476d1ce4e5b9;
  return h ^ h >> 32;
}
constexpr U64 tagOf(U64 hash) {
  return hash << 40;
}  // where an index word has it
constexpr U64 wordOf(U64 hash, U64 slot) {
  return tagOf(hash) | slot / slotUnit;
}
constexpr U64 slotOf(U64 word) {
  return (word & 0xffffffffff) * slotUnit;
}
constexpr bool sameTag(U64 word, U64 hash) {
  return (word ^ tagOf(hash)) >> 40 == 0;
}

// Which index is in use, as Header::index says it.
struct Index {
  U64 area = 0;  // offset
  U32 log2 = 0;
  U64 generation = 0;

  U64 words() const { return area + sizeof(AreaHeader); }
  U64 count() const { return U64{1} << log2; }
  U64 home(U64 hash) const { return hash >> (64 - log2); }
  U64 areaSize() const {
    return (sizeof(AreaHeader) + count() * 8 + page - 1) / page * page;
  }
  U64 packed() const { return area / page | U64{log2} << 36 | generation << 42; }
};
constexpr Index unpackedIndex(U64 word) {
  return {(word & 0xfffffffff) * page, static_cast<U32>(word >> 36 & 63), word >> 42};
}

// The checksum of a row: the sum over its words of the product of both halves, each word moved
// by its place first, so that the words are multiplied side by side and not one after the
// other; then all of it, the key, the stamp and the length stirred.
class Checksum {
 public:
  constexpr void add(U64 word) {
    move_ += 0x9e3779b97f4a7c15;
    const U64 moved = word + move_;
    sum_ += (moved & 0xffffffff) * (moved >> 32);
  }
  constexpr U32 result(U64 key, U64 stamp, U32 length) const {
    const U64 h = hashOf(sum_ ^ hashOf(key, stamp), length);
    return static_cast<U32>(h ^ h >> 32);
  }

 private:
  U64 move_ = 0, sum_ = 0;
};

// What several processes touch is read and written in words, never by memcpy.
inline U64 load(const void* at, int order = __ATOMIC_RELAXED) {
  return __atomic_load_n(static_cast<const U64*>(at), order);
}
inline void store(void* at, U64 value, int order = __ATOMIC_RELAXED) {
  __atomic_store_n(static_cast<U64*>(at), value, order);
}
static_assert(__atomic_always_lock_free(8, nullptr));

}  // namespace Quarn::TableLayout
