#include <algorithm>
#include <cerrno>
#include <deque>
#include <map>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "Quarn/TableMaking.h"
#include "Quarn/TableScan.h"

namespace Quarn {

using namespace TableLayout;

namespace {

constexpr U64 quarantineCount = 64;       // slots that rest before they are used anew
constexpr U64 quarantineSize = 64 << 10;  // and of big slots so many bytes, at least two
constexpr U64 maxRowArea = 1 << 20;       // bytes, but at least a slot
constexpr U64 minGrowth = 256 << 10, maxGrowth = 64 << 20;  // bytes of memory at a time

constexpr U64 pages(U64 size) {
  return (size + page - 1) / page * page;
}

// Slots are told apart by size: a number for each.
std::size_t classOf(U64 slotSize) {
  if (slotSize <= 512) return slotSize / slotUnit;
  const int log2 = std::bit_width(slotSize - 1) - 1;
  return 32 + static_cast<std::size_t>(log2 - 9) * 4 +
         ((slotSize - (U64{1} << log2)) >> (log2 - 2));
}

}  // namespace

struct TableWriterCore::Impl {
  // The slots of one size.
  struct Slots {
    std::deque<U64> free;   // oldest first
    U64 next = 0, end = 0;  // never used ones of the newest area
    U64 areaSize = 0;       // of the newest area
  };

  Impl(std::string name, int fd, std::string_view kind)
      : reader(std::move(name), fd, kind, true), object(reader.object) {}
  ~Impl() { store(&object.header().writerPid, 0); }

  U8* base() const { return object.base(); }
  U64 word(U64 at) const { return load(base() + index.words() + at * 8); }
  void wordIs(U64 at, U64 value) {
    store(base() + index.words() + at * 8, value, __ATOMIC_RELEASE);
  }
  U64 mask() const { return index.count() - 1; }
  U64 keyOf(U64 word) const {
    return load(base() + slotOf(word) + offsetof(SlotHeader, key));
  }
  U32 lengthOf(U64 word) const {
    return static_cast<U32>(
        load(base() + slotOf(word) + offsetof(SlotHeader, lengthAndSum)));
  }

  // Where a key is, or where it would be put.
  struct Place {
    U64 at = 0, word = emptyWord;
    bool found = false;
    bool isPlace = true;  // false: it would be too far from where a search begins
  };
  Place find(U64 key) const;
  bool hasBytes(U64 word, U32 length) const;
  void copyOut(U64 word, RowBytes& out);

  void recover();
  void reserve(U64 size);
  U64 areaTake(U64 size);
  void areaGive(U64 offset, U64 size);
  void areaIs(U64 offset, AreaKind kind, U64 slotSize);
  void indexIs(U32 log2);
  bool indexFill(const Index& to) const;

  U64 slotTake(U64 slotSize);
  void slotGive(U64 word);
  void slotIs(U64 slot, U64 key, U64 stamp, U32 length);
  // Change `number` is about to be made; then, it is made.
  void announce(U64 number, U64 key);
  void count(U64 number);
  void rowDelAt(U64 at, U64 word);

  TableReaderImpl reader;
  TableObject& object;
  Index index;
  U64 used = 0;  // words of the index that are not empty
  U64 rows = 0;
  U64 changes = 0;
  U64 allocated = 0;  // bytes of memory the object has, from its beginning on
  U64 zeroFrom = 0;   // nothing was ever written from here on
  std::vector<Slots> slots = std::vector<Slots>(classOf(maxSlotSize) + 1);
  std::map<U64, U64> freeAreas;  // size by offset
  std::vector<U64> scratch;
};

TableWriterCore::Impl::Place TableWriterCore::Impl::find(U64 key) const {
  const U64 hash = hashOf(key, reader.seed);
  Place place;
  bool hasPlace = false;
  U64 at = index.home(hash);
  for (U64 probe = 0; probe < maxProbes; ++probe, at = (at + 1) & mask()) {
    const U64 word = this->word(at);
    if (word == emptyWord || word == deletedWord) {
      if (!hasPlace) place = {at, word, false, true};
      hasPlace = true;
      if (word == emptyWord) return place;
    } else if (sameTag(word, hash) && keyOf(word) == key) {
      return {at, word, true, true};
    }
  }
  place.isPlace = hasPlace;
  return place;
}

bool TableWriterCore::Impl::hasBytes(U64 word, U32 length) const {
  if (lengthOf(word) != length) return false;
  const U8* const at = base() + slotOf(word) + sizeof(SlotHeader);
  for (U64 i = 0; i < (U64{length} + 7) / 8; ++i)
    if (load(at + i * 8) != scratch[i]) return false;
  return true;
}

void TableWriterCore::Impl::copyOut(U64 word, RowBytes& out) {
  const U32 length = lengthOf(word);
  const U64 words = (U64{length} + 7) / 8;
  if (scratch.size() < words) scratch.resize(words);
  const U8* const at = base() + slotOf(word) + sizeof(SlotHeader);
  for (U64 i = 0; i < words; ++i)
    scratch[i] = load(at + i * 8);
  out = {keyOf(word), reinterpret_cast<const U8*>(scratch.data()), length};
}

// Takes over what an earlier writer left: checks all of it, finishes the change that it was at,
// and finds out which slots are free.
void TableWriterCore::Impl::recover() {
  const U64 packed = reader.index();
  changes = reader.changes();
  TableScan sound(reader, packed);
  sound.run(TableScan::Count::ignored);  // a writer that died may not have come to count
  sound.settle();
  if (!sound.report.ok())
    throwTable(object.name(), "corrupt: %s", sound.report.faults.front().c_str());

  reader.indexOf(packed, index);
  rows = sound.report.rows;
  used = sound.used;
  store(&object.header().rows, rows);
  zeroFrom = object.fileSize();
  reserve(0);
  for (std::size_t i = 0; i < sound.areas.size(); ++i) {
    const Area& area = sound.areas[i];
    const std::vector<bool>& taken = sound.taken[i];
    const bool isUsed = area.kind == AreaKind::rows
                            ? std::find(taken.begin(), taken.end(), true) != taken.end()
                            : area.offset == index.area;
    if (area.kind != AreaKind::rows) {
      if (!isUsed) areaGive(area.offset, area.size);
      continue;
    }
    for (U64 slot = 0; slot < taken.size(); ++slot) {
      if (taken[slot]) continue;
      // A row that was never put into the table must not pass for one that is counted.
      U8* const at = base() + area.slotAt(slot);
      if (load(at) > changes) store(at, 0, __ATOMIC_RELEASE);
      if (isUsed) slots[classOf(area.slotSize)].free.push_back(area.slotAt(slot));
    }
    Slots& mine = slots[classOf(area.slotSize)];
    mine.areaSize = std::max(mine.areaSize, area.size);
    if (!isUsed) areaGive(area.offset, area.size);
  }
  // Made or not, it is told: the ring names the row.
  if (reader.isUnderWay(changes)) count(changes + 1);
}

// Has memory for `size` more bytes at the end of the object.
void TableWriterCore::Impl::reserve(U64 size) {
  const U64 end = object.limit() + size;
  if (end <= allocated) return;
  if (end > maxSize)
    throwTable(object.name(), "full: it has %lu bytes of at most %lu", object.limit(),
               maxSize);
  const U64 more = pages(std::clamp(allocated / 8, minGrowth, maxGrowth));
  for (const U64 wanted : {size ? std::max(end, allocated + more) : end, end}) {
    int error;
    do
      error = ::posix_fallocate(object.fd(), static_cast<off_t>(allocated),
                                static_cast<off_t>(wanted - allocated));
    while (error == EINTR);
    if (error == 0) {
      allocated = wanted;
      return;
    }
    if (wanted == end) throwTableSystem(object.name(), "posix_fallocate", error);
  }
}

void TableWriterCore::Impl::areaIs(U64 offset, AreaKind kind, U64 slotSize) {
  store(base() + offset + offsetof(AreaHeader, kind),
        static_cast<U64>(kind) | slotSize << 8, __ATOMIC_RELEASE);
}

// A free area of this size, a multiple of a page: the smallest that is large enough, cut to
// size, or new memory. Every store leaves areas that lie end to end.
U64 TableWriterCore::Impl::areaTake(U64 size) {
  auto best = freeAreas.end();
  for (auto it = freeAreas.begin(); it != freeAreas.end(); ++it)
    if (it->second >= size && (best == freeAreas.end() || it->second < best->second))
      best = it;
  U64 offset;
  if (best == freeAreas.end()) {
    reserve(size);
    offset = object.limit();
    object.limitIs(offset + size);
    areaIs(offset, AreaKind::free, 0);
    store(base() + offset, size);
    store(&object.header().size, offset + size, __ATOMIC_RELEASE);
    return offset;
  }
  // A reader that sees a word of the new use sees afterwards that the old one was over.
  __atomic_thread_fence(__ATOMIC_RELEASE);
  offset = best->first;
  if (const U64 rest = best->second - size; rest > 0) {
    areaIs(offset + size, AreaKind::free, 0);
    store(base() + offset + size, rest, __ATOMIC_RELEASE);
    freeAreas.emplace(offset + size, rest);
    store(base() + offset, size, __ATOMIC_RELEASE);
  }
  freeAreas.erase(best);
  return offset;
}

void TableWriterCore::Impl::areaGive(U64 offset, U64 size) {
  areaIs(offset, AreaKind::free, 0);
  auto it = freeAreas.emplace(offset, size).first;
  const auto join = [this](std::map<U64, U64>::iterator first) {
    const auto second = std::next(first);
    if (second == freeAreas.end() || first->first + first->second != second->first)
      return;
    first->second += second->second;
    store(base() + first->first, first->second, __ATOMIC_RELEASE);
    freeAreas.erase(second);
  };
  join(it);
  if (it != freeAreas.begin()) join(std::prev(it));
}

bool TableWriterCore::Impl::indexFill(const Index& to) const {
  constexpr U64 ahead = 16;  // places, to have the keys at hand
  const U64 toMask = to.count() - 1;
  for (U64 at = 0; at < index.count(); ++at) {
    __builtin_prefetch(base() + slotOf(word((at + ahead) & mask())));
    const U64 old = word(at);
    if (old == emptyWord || old == deletedWord) continue;
    const U64 hash = hashOf(keyOf(old), reader.seed);
    U64 place = to.home(hash), probe = 0;
    while (load(base() + to.words() + place * 8) != emptyWord) {
      place = (place + 1) & toMask;
      if (++probe == maxProbes) return false;
    }
    store(base() + to.words() + place * 8, old);
  }
  return true;
}

// Replaces the index by one of that size, or larger, without deleted words.
void TableWriterCore::Impl::indexIs(U32 log2) {
  for (;; ++log2) {
    if (log2 > maxLog2)
      throwTable(object.name(), "full: no index of at most 2^%u words has room", maxLog2);
    Index next{0, log2, index.generation + 1};
    next.area = areaTake(next.areaSize());
    if (next.area < zeroFrom)
      for (U64 at = 0; at < next.count(); ++at)
        store(base() + next.words() + at * 8, emptyWord);
    zeroFrom = std::max(zeroFrom, next.area + next.areaSize());
    if (!indexFill(next)) {
      areaGive(next.area, next.areaSize());
      continue;
    }
    areaIs(next.area, AreaKind::index, 0);
    store(&object.header().index, next.packed(), __ATOMIC_RELEASE);
    std::swap(index, next);
    index = unpackedIndex(index.packed());
    used = rows;
    areaGive(next.area, next.areaSize());
    return;
  }
}

U64 TableWriterCore::Impl::slotTake(U64 slotSize) {
  Slots& mine = slots[classOf(slotSize)];
  const U64 resting = std::clamp<U64>(quarantineSize / slotSize, 2, quarantineCount);
  const auto oldest = [&mine] {
    const U64 slot = mine.free.front();
    mine.free.pop_front();
    return slot;
  };
  if (mine.free.size() > resting) return oldest();
  if (mine.next == mine.end) {
    const U64 least =
        pages(sizeof(AreaHeader) + std::max<U64>(1, page / slotSize) * slotSize);
    const U64 size = std::clamp(mine.areaSize * 2, least, std::max(least, maxRowArea));
    U64 area;
    try {
      area = areaTake(size);
    } catch (const TableException&) {
      // Rather a reader that looks again than a change that is refused.
      if (mine.free.size() > 2) return oldest();
      throw;
    }
    zeroFrom = std::max(zeroFrom, area + size);
    areaIs(area, AreaKind::rows, slotSize);
    mine.areaSize = size;
    mine.next = area + sizeof(AreaHeader);
    mine.end = mine.next + (size - sizeof(AreaHeader)) / slotSize * slotSize;
  }
  const U64 slot = mine.next;
  mine.next += slotSize;
  return slot;
}

void TableWriterCore::Impl::slotGive(U64 word) {
  slots[classOf(slotSizeFor(lengthOf(word)))].free.push_back(slotOf(word));
}

void TableWriterCore::Impl::slotIs(U64 slot, U64 key, U64 stamp, U32 length) {
  U8* const at = base() + slot;
  // A reader that sees a word of the new row sees the stamp 0 or the new one afterwards; one
  // that sees the 0 sees that the slot was given up.
  store(at, 0, __ATOMIC_RELEASE);
  __atomic_thread_fence(__ATOMIC_RELEASE);
  Checksum sum;
  for (U64 i = 0; i < (U64{length} + 7) / 8; ++i) {
    sum.add(scratch[i]);
    store(at + sizeof(SlotHeader) + i * 8, scratch[i]);
  }
  store(at + offsetof(SlotHeader, key), key);
  store(at + offsetof(SlotHeader, lengthAndSum),
        length | U64{sum.result(key, stamp, length)} << 32);
  store(at, stamp, __ATOMIC_RELEASE);
}

void TableWriterCore::Impl::announce(U64 number, U64 key) {
  U8* const entry = base() + ringOffset + number % ringCount * sizeof(RingEntry);
  store(entry, 0);
  __atomic_thread_fence(__ATOMIC_RELEASE);
  store(entry + offsetof(RingEntry, key), key);
  store(entry, number, __ATOMIC_RELEASE);
}

void TableWriterCore::Impl::count(U64 number) {
  store(&object.header().rows, rows);
  store(&object.header().changes, number, __ATOMIC_RELEASE);
  changes = number;
}

void TableWriterCore::Impl::rowDelAt(U64 at, U64 word) {
  announce(changes + 1, keyOf(word));
  const bool endsRun = this->word((at + 1) & mask()) == emptyWord;
  wordIs(at, endsRun ? emptyWord : deletedWord);
  --rows;
  count(changes + 1);
  slotGive(word);
  if (!endsRun) return;
  --used;
  for (at = (at - 1) & mask(); this->word(at) == deletedWord;
       at = (at - 1) & mask(), --used)
    wordIs(at, emptyWord);
}

TableWriterCore::TableWriterCore(std::string_view name,
                                 std::string_view kind,
                                 const TableOptions& options) {
  checkTableName(name);
  const std::string text(name);
  impl_ = std::make_unique<Impl>(text, tableForWriter(text, kind, options), kind);
  Impl& impl = *impl_;
  impl.recover();
  if (log2For(options.reserveRows) > impl.index.log2)
    impl.indexIs(log2For(options.reserveRows));
  store(&impl.object.header().writerPid, static_cast<U64>(::getpid()));
}

TableWriterCore::TableWriterCore(TableWriterCore&&) noexcept = default;
TableWriterCore& TableWriterCore::operator=(TableWriterCore&&) noexcept = default;
TableWriterCore::~TableWriterCore() = default;

U8* TableWriterCore::scratch(U32 length) {
  if (length > maxLength)
    throwTable(name(), "a row of %u bytes, at most %u", length, maxLength);
  const U64 words = (U64{length} + 7) / 8;
  if (impl_->scratch.size() < words + 1) impl_->scratch.resize(words + 1);
  if (words > 0) impl_->scratch[words - 1] = 0;
  return reinterpret_cast<U8*>(impl_->scratch.data());
}

bool TableWriterCore::rowIs(U64 key, U32 length) {
  Impl& impl = *impl_;
  Impl::Place place = impl.find(key);
  if (place.found && impl.hasBytes(place.word, length)) return false;
  if (!place.isPlace ||
      (place.word == emptyWord && impl.used + 1 > impl.index.count() / 4 * 3)) {
    // Twice the size, unless it is the deleted words that fill it.
    const bool grows = !place.isPlace || impl.rows + 1 > impl.index.count() / 8 * 3;
    impl.indexIs(impl.index.log2 + grows);
    place = impl.find(key);
  }
  const U64 number = impl.changes + 1;
  const U64 slot = impl.slotTake(slotSizeFor(length));
  impl.slotIs(slot, key, number, length);
  impl.announce(number, key);
  impl.wordIs(place.at, wordOf(hashOf(key, impl.reader.seed), slot));
  impl.rows += !place.found;
  impl.used += place.word == emptyWord;
  impl.count(number);
  if (place.found) impl.slotGive(place.word);
  return true;
}

bool TableWriterCore::rowDel(U64 key) {
  const Impl::Place place = impl_->find(key);
  if (place.found) impl_->rowDelAt(place.at, place.word);
  return place.found;
}

void TableWriterCore::rowDelAll() {
  Impl& impl = *impl_;
  const U64 rows = impl.rows;
  for (U64 at = impl.index.count(); at-- > 0;)
    if (const U64 word = impl.word(at); word != emptyWord && word != deletedWord)
      impl.rowDelAt(at, word);
  // Few slots would not have rested long enough.
  if (rows <= quarantineCount) return;
  for (Impl::Slots& slots : impl.slots)
    slots = {};
  std::vector<Area> areas;
  forEachArea(impl.object, [&areas](const Area& area) {
    if (area.kind == AreaKind::rows) areas.push_back(area);
  });
  for (const Area& area : areas)
    impl.areaGive(area.offset, area.size);
}

bool TableWriterCore::row(U64 key, RowBytes& out) const {
  const Impl::Place place = impl_->find(key);
  if (place.found) impl_->copyOut(place.word, out);
  return place.found;
}

bool TableWriterCore::rowHas(U64 key) const {
  return impl_->find(key).found;
}
U64 TableWriterCore::rowCount() const {
  return impl_->rows;
}
U64 TableWriterCore::changeCount() const {
  return impl_->changes;
}
U64 TableWriterCore::generation() const {
  return impl_->index.generation;
}

bool TableWriterCore::next(U64& place, RowBytes& out) const {
  for (; place < impl_->index.count(); ++place) {
    const U64 word = impl_->word(place);
    if (word == emptyWord || word == deletedWord) continue;
    ++place;
    impl_->copyOut(word, out);
    return true;
  }
  return false;
}

TableStats TableWriterCore::stats() const {
  return statsOf(impl_->object);
}
const std::string& TableWriterCore::name() const {
  return impl_->object.name();
}

bool TableWriterCore::remove(std::string_view name) {
  checkTableName(name);
  const std::string text(name);
  if (::shm_unlink(text.c_str()) == 0) return true;
  if (errno != ENOENT) throwTableSystem(text, "shm_unlink", errno);
  return false;
}

}  // namespace Quarn
