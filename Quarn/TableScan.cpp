#include "Quarn/TableScan.h"

#include <algorithm>
#include <cstdio>

namespace Quarn {

using namespace TableLayout;
using Seen = TableReaderImpl::Seen;

namespace {

constexpr std::size_t maxFaults = 100;

void addFault(TableReport& report, const char* format, va_list arguments) {
  ++report.faultCount;
  if (report.faults.size() == maxFaults) return;
  char text[256];
  std::vsnprintf(text, sizeof text, format, arguments);
  report.faults.emplace_back(text);
}

}  // namespace

bool areaAt(const TableObject& object, U64 offset, Area& out) {
  if (!object.has(offset, sizeof(AreaHeader))) return false;
  const U8* const at = static_cast<const U8*>(object.at(offset));
  const U64 kind = load(at + offsetof(AreaHeader, kind));
  out = {offset, load(at + offsetof(AreaHeader, size)),
         static_cast<AreaKind>(kind & 0xff), kind >> 8};
  if (out.size < page || out.size % page != 0 || !object.has(offset, out.size))
    return false;
  if (out.kind != AreaKind::rows)
    return (out.kind == AreaKind::index || out.kind == AreaKind::free) &&
           out.slotSize == 0;
  return out.slotSize >= sizeof(SlotHeader) && out.slotSize <= maxSlotSize &&
         slotSizeFor(out.slotSize - sizeof(SlotHeader)) == out.slotSize;
}

TableStats statsOf(const TableObject& object) {
  TableStats stats;
  const Header& header = object.header();
  stats.bytesMapped = object.mapped();
  stats.bytesUsed = object.limit();
  stats.rows = load(&header.rows);
  stats.changes = load(&header.changes);
  stats.indexWords = unpackedIndex(load(&header.index)).count();
  forEachArea(object, [&stats](const Area& area) {
    if (area.kind == AreaKind::rows) stats.slots += area.slotCount();
    if (area.kind == AreaKind::free) stats.bytesFree += area.size;
  });
  stats.slotsFree = stats.slots - std::min(stats.slots, stats.rows);
  return stats;
}

TableScan::TableScan(TableReaderImpl& impl, U64 packedIndex)
    : impl_(impl), packed_(packedIndex) {}

void TableScan::add(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  addFault(report, format, arguments);
  va_end(arguments);
}

void TableScan::addIfSettled(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  addFault(unsettled_, format, arguments);
  va_end(arguments);
}

void TableScan::run(Count count) {
  const U64 changes = impl_.changes();
  Index index;
  if (!impl_.indexOf(packed_, index)) {
    if (impl_.isTrue(changes, packed_)) add("%s", impl_.fault().c_str());
    return;
  }
  // The object may grow meanwhile, and never shrinks.
  const U64 before = load(&impl_.object.header().size);
  impl_.grow();
  const U64 size = load(&impl_.object.header().size);
  if (before > impl_.object.limit() || size < impl_.object.limit())
    addIfSettled("size in use at offset %zu is %lu, the object has %lu bytes",
                 offsetof(Header, size), size, impl_.object.limit());
  const U64 end = forEachArea(impl_.object, [this](const Area& area) {
    areas.push_back(area);
    taken.emplace_back(area.slotCount());
  });
  if (end != impl_.object.limit())
    addIfSettled("there is no area at offset %lu, the object has %lu bytes", end,
                 impl_.object.limit());
  const auto area = std::find_if(areas.begin(), areas.end(), [&index](const Area& one) {
    return one.offset == index.area;
  });
  if (area == areas.end() || area->kind != AreaKind::index ||
      area->size < index.areaSize())
    addIfSettled("the index of 2^%u words at offset %lu is in no area of its own",
                 index.log2, index.area);
  rows(index, count);
  ring();
}

void TableScan::rows(const Index& index, Count count) {
  for (U64 at = 0; at < index.count(); ++at)
    row(at, index);
  const U64 counted = load(&impl_.object.header().rows);
  const U64 tolerance = count == Count::withinOne;
  if (count != Count::ignored && counted + tolerance - report.rows > 2 * tolerance)
    addIfSettled("the count of rows at offset %zu is %lu, there are %lu sound ones",
                 offsetof(Header, rows), counted, report.rows);
  if (used == index.count()) addIfSettled("no word of the index is empty");
}

void TableScan::row(U64 at, const Index& index) {
  constexpr int maxAttempts = 1000;
  const U64 place = index.words() + at * 8;
  U64 word;
  TableReaderImpl::Row seen;
  for (int attempt = 0;; ++attempt) {
    // Before the word: while no further change is counted, the slot that it names stands.
    const U64 changes = impl_.changes();
    word = load(impl_.object.at(place), __ATOMIC_ACQUIRE);
    if (attempt == 0) used += word != emptyWord;
    if (word == emptyWord || word == deletedWord) return;
    const Seen state = impl_.see(packed_, place, word, nullptr, seen);
    if (state == Seen::row) break;
    if (state == Seen::fault && impl_.isTrue(changes, packed_)) {
      add("%s", impl_.fault().c_str());
      return;
    }
    // The writer's doing: it is not settled.
    if (attempt == maxAttempts || impl_.index() != packed_) return;
  }
  const U64 key = seen.bytes.key, hash = hashOf(key, impl_.seed);
  const U64 changes = impl_.changes();
  if (!sameTag(word, hash) ||
      ((at - index.home(hash)) & (index.count() - 1)) >= maxProbes) {
    addIfSettled("the index word at offset %lu is not that of its key %#lx", place, key);
    return;
  }
  if (seen.stamp > changes + 1) {
    addIfSettled("the row of key %#lx has change number %lu of %lu", key, seen.stamp,
                 changes);
    return;
  }
  const U64 slot = slotOf(word);
  const auto after =
      std::upper_bound(areas.begin(), areas.end(), slot,
                       [](U64 offset, const Area& area) { return offset < area.offset; });
  const U64 which = static_cast<U64>(after - areas.begin()) - 1;
  if (after == areas.begin() || areas[which].kind != AreaKind::rows ||
      slot < areas[which].slotAt(0) ||
      (slot - areas[which].slotAt(0)) % areas[which].slotSize != 0 ||
      slot + slotSizeFor(seen.bytes.length) > areas[which].offset + areas[which].size ||
      slotSizeFor(seen.bytes.length) != areas[which].slotSize) {
    addIfSettled("the row of key %#lx at offset %lu is in no slot of its size", key,
                 slot);
    return;
  }
  std::vector<bool>::reference mine =
      taken[which][(slot - areas[which].slotAt(0)) / areas[which].slotSize];
  if (mine) {
    addIfSettled("two words of the index point to the slot at offset %lu", slot);
    return;
  }
  mine = true;
  TableReaderImpl::Row found;
  if (impl_.lookUp(key, packed_, found) != Seen::row || found.stamp != seen.stamp) {
    addIfSettled("the row of key %#lx at offset %lu is not the one that is found", key,
                 slot);
    return;
  }
  ++report.rows;
}

void TableScan::ring() {
  const U64 changes = impl_.changes();
  const U64 count = std::min(changes, ringCount), first = changes - count + 1;
  for (U64 number = first; number - first < count; ++number) {
    const U64 at = ringOffset + number % ringCount * sizeof(RingEntry);
    const U64 found = load(impl_.object.at(at));
    // The change under way may already have overwritten the oldest.
    if (found != number && found != number + ringCount &&
        !(number == first && found == 0))
      addIfSettled("ring entry at offset %lu has number %lu, not %lu", at, found, number);
  }
}

void TableScan::settle() {
  report.faultCount += unsettled_.faultCount;
  for (std::string& fault : unsettled_.faults)
    if (report.faults.size() < maxFaults) report.faults.push_back(std::move(fault));
}

}  // namespace Quarn
