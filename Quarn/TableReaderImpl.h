#pragma once

#include <string>
#include <vector>

#include "Quarn/TableObject.h"

// Not installed: how a reader takes one row out of memory that another process may change at
// any moment, or that was never a table.

namespace Quarn {

class TableReaderImpl {
 public:
  TableReaderImpl(std::string name, int fd, std::string_view kind, bool writable);

  // What one attempt at something saw. moved: the writer came between. fault: what stands
  // there cannot be, unless the writer came between; `fault` says what.
  enum class Seen : U8 { row, absent, otherKey, moved, fault };

  struct Row {
    U64 stamp = 0;
    RowBytes bytes;
  };

  // Throws what fault() says, if it is true: no change was counted since `changes`, and the
  // index is the same, so that the writer did not come between.
  void throwIfTrue(U64 changes, U64 index);
  bool isTrue(U64 changes, U64 index) const;

  U64 changes() const {
    return TableLayout::load(&object.header().changes, __ATOMIC_ACQUIRE);
  }
  U64 index() const {
    return TableLayout::load(&object.header().index, __ATOMIC_ACQUIRE);
  }

  // The ring names the change after number `changes`: the writer is at it, or died at it.
  bool isUnderWay(U64 changes) const {
    using namespace TableLayout;
    const U64 at = ringOffset + (changes + 1) % ringCount * sizeof(RingEntry);
    return load(object.at(at), __ATOMIC_ACQUIRE) == changes + 1;
  }

  // The index of a word of Header::index; false: fault.
  bool indexOf(U64 packed, TableLayout::Index& out);
  // The row that index word `word`, at offset `place`, points to. Only a row of key *key, if
  // that is given.
  Seen see(U64 packedIndex, U64 place, U64 word, const U64* key, Row& out);
  Seen lookUp(U64 key, U64 packedIndex, Row& out);

  // Whether bytes lie in the object, which may have grown.
  bool has(U64 offset, U64 size) {
    return object.has(offset, size) || hasNow(offset, size);
  }
  // Looks whether the object has grown.
  void grow() { has(TableLayout::load(&object.header().size), 0); }
  const std::string& fault() const { return fault_; }
  [[gnu::format(printf, 2, 3)]] Seen faultIs(const char* format, ...);

  TableObject object;
  U64 seed = 0;

 private:
  bool hasNow(U64 offset, U64 size);

  std::vector<U64> copy_;
  std::string fault_;
};

}  // namespace Quarn
