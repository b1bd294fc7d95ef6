#pragma once

#include <cstdint>
#include <vector>

#include "Quarn/TableReaderImpl.h"

// Not installed: looks at every word of a table.

namespace Quarn {

struct Area {
  U64 offset = 0, size = 0;
  TableLayout::AreaKind kind{};
  U64 slotSize = 0;

  U64 slotCount() const {
    return slotSize ? (size - sizeof(TableLayout::AreaHeader)) / slotSize : 0;
  }
  U64 slotAt(U64 i) const {
    return offset + sizeof(TableLayout::AreaHeader) + i * slotSize;
  }
};

// The area that begins at an offset below the limit; false: there is none that can be.
bool areaAt(const TableObject& object, U64 offset, Area& out);

// Offset of the first byte that is in no area: the limit, unless there is a fault.
template <class F>
U64 forEachArea(const TableObject& object, F&& f) {
  U64 at = TableLayout::areasOffset;
  for (Area area; at < object.limit() && areaAt(object, at, area); at += area.size)
    f(area);
  return at;
}

// Of the object up to its limit.
TableStats statsOf(const TableObject& object);

class TableScan {
 public:
  TableScan(TableReaderImpl&, U64 packedIndex);

  // How the count of rows in the header has to agree: a change under way may be made and not
  // counted.
  enum class Count : U8 { exact, withinOne, ignored };
  void run(Count);
  // Adds the faults that are faults only when nobody changed the table in the meantime.
  void settle();

  TableReport report;
  std::vector<Area> areas;               // ascending
  std::vector<std::vector<bool>> taken;  // of each area the slots that a row is in
  U64 used = 0;                          // words of the index that are not empty

 private:
  void rows(const TableLayout::Index&, Count);
  void ring();
  void row(U64 at, const TableLayout::Index&);
  [[gnu::format(printf, 2, 3)]] void add(const char* format, ...);
  [[gnu::format(printf, 2, 3)]] void addIfSettled(const char* format, ...);

  TableReaderImpl& impl_;
  U64 packed_;
  TableReport unsettled_;
};

}  // namespace Quarn
