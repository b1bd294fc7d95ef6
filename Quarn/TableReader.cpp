#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "Quarn/TableReaderImpl.h"
#include "Quarn/TableScan.h"

namespace Quarn {

using namespace TableLayout;
using Seen = TableReaderImpl::Seen;

namespace {

constexpr int maxAttempts = 64;
constexpr int maxWalkAttempts = 100000;  // at one row
constexpr int creatorWaits = 100;  // of a millisecond, for a creator to come to the end
constexpr int lockWaits = 3;       // of these, for it to lock the object
// The walk asks for rows so many places ahead of where it is: about what a memory access takes
// while this many rows are copied.
constexpr U64 walkAhead = 12;
// A walk goes by groups of so many places of the index, in the order of hashes.
constexpr U64 groupCount = 1024;

int openReader(const std::string& name) {
  checkTableName(name);
  const int fd = ::shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) throwTableSystem(name, "shm_open", errno);
  return fd;
}

}  // namespace

TableReaderImpl::TableReaderImpl(std::string name,
                                 int fd,
                                 std::string_view kind,
                                 bool writable)
    : object(std::move(name), fd, writable), copy_(128) {
  // A creator first makes the object, then locks it, then lets it grow, fills it and says so.
  for (int waits = 0;; ++waits) {
    const U64 size = object.fileSize();
    if (size >= page && object.limit() == 0) object.limitIs(page);
    if (object.limit() != 0 && object.isComplete()) break;
    const bool isMade = (size == 0 && waits < lockWaits) || object.writerLives();
    if (!isMade || waits == creatorWaits) {
      if (object.limit() == 0) throwTable(object.name(), "not a table: %lu bytes", size);
      break;
    }
    const timespec pause{0, 1000000};
    ::nanosleep(&pause, nullptr);
  }
  std::string fault;
  if (object.headerFault(kind, fault)) throwTable(object.name(), "%s", fault.c_str());
  seed = load(&object.header().seed);
  if (!has(areasOffset, page)) {
    const U64 size = load(&object.header().size), found = object.fileSize();
    throwTable(object.name(),
               "size in use at offset %zu is %lu, the object has %lu bytes",
               offsetof(Header, size), size, found);
  }
  for (int attempt = 0; attempt < maxAttempts; ++attempt) {
    const U64 at = changes(), packed = index();
    Index unpacked;
    if (indexOf(packed, unpacked)) break;
    throwIfTrue(at, packed);
  }
}

bool TableReaderImpl::hasNow(U64 offset, U64 size) {
  const U64 used = load(&object.header().size, __ATOMIC_ACQUIRE);
  if (used <= object.limit() || used % page != 0 || used > maxSize) return false;
  if (used > object.fileSize()) return false;
  object.limitIs(used);
  return object.has(offset, size);
}

Seen TableReaderImpl::faultIs(const char* format, ...) {
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  fault_ = text;
  return Seen::fault;
}

bool TableReaderImpl::isTrue(U64 changesBefore, U64 packed) const {
  __atomic_thread_fence(__ATOMIC_ACQUIRE);
  return changes() == changesBefore && index() == packed;
}

void TableReaderImpl::throwIfTrue(U64 changesBefore, U64 packed) {
  if (isTrue(changesBefore, packed))
    throwTable(object.name(), "corrupt: %s", fault_.c_str());
}

bool TableReaderImpl::indexOf(U64 packed, Index& out) {
  out = unpackedIndex(packed);
  if (out.log2 >= minLog2 && out.log2 <= maxLog2 && out.area >= areasOffset &&
      has(out.words(), out.count() * 8)) [[likely]]
    return true;
  faultIs("index of 2^%u words at offset %lu of %lu bytes", out.log2, out.area,
          object.limit());
  return false;
}

Seen TableReaderImpl::see(
    U64 packedIndex, U64 place, U64 word, const U64* wanted, Row& out) {
  const U64 slot = slotOf(word);
  if (slot < areasOffset || !has(slot, sizeof(SlotHeader))) [[unlikely]]
    return faultIs("index word at offset %lu points to %lu, the object has %lu bytes",
                   place, slot, object.limit());
  const U8* at = object.base() + slot;
  const U64 stamp = load(at + offsetof(SlotHeader, stamp), __ATOMIC_ACQUIRE);
  const U64 key = load(at + offsetof(SlotHeader, key));
  if (wanted && key != *wanted) {
    // Either two keys whose hashes agree where the index has them, or a slot in other use.
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    if (load(object.at(place)) != word || load(at) != stamp) return Seen::moved;
    if (sameTag(word, hashOf(key, seed))) return Seen::otherKey;
    return faultIs("index word at offset %lu is not that of key %#lx in the slot at %lu",
                   place, key, slot);
  }
  const U64 lengthAndSum = load(at + offsetof(SlotHeader, lengthAndSum));
  const U32 length = static_cast<U32>(lengthAndSum);
  const U64 words = (U64{length} + 7) / 8;
  if (stamp == 0) return faultIs("slot at offset %lu is being written", slot);
  if (length > maxLength || !has(slot + sizeof(SlotHeader), words * 8)) [[unlikely]]
    return faultIs("slot at offset %lu has a row of %u bytes, the object has %lu", slot,
                   length, object.limit());
  at = object.base() + slot;
  if (copy_.size() < words) copy_.resize(words);
  const U8* from = at + sizeof(SlotHeader);
  U64* const to = copy_.data();
  Checksum sum;
  for (U64 i = 0; i < words; ++i) {
    to[i] = load(from + i * 8);
    sum.add(to[i]);
  }
  __atomic_thread_fence(__ATOMIC_ACQUIRE);
  if (load(at) != stamp) return Seen::moved;
  // The copy is version `stamp`, whole. It was in the table if the index still points here, or
  // if it is a version of the wanted row that is counted: a slot may have been given to the
  // same row again, and that version may not be made yet.
  if ((load(object.at(place)) != word || index() != packedIndex) &&
      (!wanted || changes() < stamp))
    return Seen::moved;
  if (!wanted && !sameTag(word, hashOf(key, seed))) [[unlikely]]
    return faultIs("index word at offset %lu is not that of key %#lx in the slot at %lu",
                   place, key, slot);
  if (sum.result(key, stamp, length) != static_cast<U32>(lengthAndSum >> 32)) [[unlikely]]
    return faultIs("checksum of the row of key %#lx in the slot at offset %lu is wrong",
                   key, slot);
  out.stamp = stamp;
  out.bytes = {key, reinterpret_cast<const U8*>(to), length};
  return Seen::row;
}

Seen TableReaderImpl::lookUp(U64 key, U64 packed, Row& out) {
  Index index;
  if (!indexOf(packed, index)) [[unlikely]]
    return Seen::fault;
  const U64 hash = hashOf(key, seed), mask = index.count() - 1, words = index.words();
  U64 at = index.home(hash);
  for (U64 probe = 0; probe < maxProbes; ++probe, at = (at + 1) & mask) {
    const U64 place = words + at * 8;
    const U64 word = load(object.at(place), __ATOMIC_ACQUIRE);
    if (word == emptyWord) return this->index() == packed ? Seen::absent : Seen::moved;
    if (word == deletedWord || !sameTag(word, hash)) continue;
    const Seen seen = see(packed, place, word, &key, out);
    if (seen != Seen::otherKey) return seen;
  }
  return this->index() == packed ? Seen::absent : Seen::moved;
}

TableReaderCore::TableReaderCore(std::string_view name, std::string_view kind)
    : TableReaderCore(openReader(std::string(name)), name, kind) {}
TableReaderCore::TableReaderCore(int fd, std::string_view name, std::string_view kind)
    : impl_(std::make_unique<TableReaderImpl>(std::string(name), fd, kind, false)) {}
TableReaderCore::TableReaderCore(TableReaderCore&&) noexcept = default;
TableReaderCore& TableReaderCore::operator=(TableReaderCore&&) noexcept = default;
TableReaderCore::~TableReaderCore() = default;

RowState TableReaderCore::row(U64 key, RowBytes& out) const {
  TableReaderImpl::Row row;
  U64 changes = 0;
  for (int attempt = 0; attempt < maxAttempts; ++attempt) {
    // The first attempt leaves out the word that the writer writes most.
    if (attempt > 0) changes = impl_->changes();
    const U64 packed = impl_->index();
    const Seen seen = impl_->lookUp(key, packed, row);
    if (seen == Seen::row) {
      out = row.bytes;
      return RowState::found;
    }
    if (seen == Seen::absent) return RowState::absent;
    if (seen == Seen::fault && attempt > 0) impl_->throwIfTrue(changes, packed);
  }
  return RowState::busy;
}

U64 TableReaderCore::rowCount() const {
  return load(&impl_->object.header().rows);
}
U64 TableReaderCore::changeCount() const {
  return impl_->changes();
}

bool TableReaderCore::changedSince(U64 since, std::vector<U64>& keys, U64& upTo) const {
  keys.clear();
  upTo = impl_->changes();
  if (since > upTo || upTo - since > ringCount) return false;
  keys.reserve(upTo - since);
  for (U64 left = upTo - since, number = since + 1; left > 0; --left, ++number) {
    const void* const at =
        impl_->object.at(ringOffset + number % ringCount * sizeof(RingEntry));
    const U8* const entry = static_cast<const U8*>(at);
    const bool whole = load(entry, __ATOMIC_ACQUIRE) == number;
    const U64 key = load(entry + offsetof(RingEntry, key));
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    if (!whole || load(entry) != number) {
      keys.clear();
      upTo = impl_->changes();
      return false;
    }
    keys.push_back(key);
  }
  return true;
}

pid_t TableReaderCore::writerPid() const {
  return static_cast<pid_t>(load(&impl_->object.header().writerPid));
}
bool TableReaderCore::writerAlive() const {
  return impl_->object.writerLives();
}

bool TableReaderCore::isRemoved() const {
  struct stat status;
  if (::fstat(impl_->object.fd(), &status) != 0) throwTableSystem(name(), "fstat", errno);
  return status.st_nlink == 0;
}

const std::string& TableReaderCore::name() const {
  return impl_->object.name();
}

void throwNotARecord(const std::string& table, U64 key, const char* why) {
  throwTable(table, "corrupt: the row of key %#lx is not a record: %s", key, why);
}

// A fault that only a table at rest can have is one only if the writer stored no word of the
// index in the meantime: it announces a change in the ring before. Areas change their shape
// without that, so what was seen once is looked for again.
TableReport TableReaderCore::verify() const {
  constexpr int maxScans = 3;
  for (int scans = 1;; ++scans) {
    const U64 changes = impl_->changes(), packed = impl_->index();
    const bool isUnderWay = impl_->isUnderWay(changes);
    const bool stands = !isUnderWay || !writerAlive();
    TableScan scan(*impl_, packed);
    scan.run(isUnderWay ? TableScan::Count::withinOne : TableScan::Count::exact);
    scan.report.settled = stands && impl_->isTrue(changes, packed) &&
                          impl_->isUnderWay(changes) == isUnderWay;
    if (scan.report.settled) scan.settle();
    if (scans == maxScans || (scan.report.settled && scan.report.ok()))
      return std::move(scan.report);
  }
}

TableStats TableReaderCore::stats() const {
  impl_->grow();
  return statsOf(impl_->object);
}

// Keys are given by groups of hashes. A key belongs to one group whatever the index, so what
// was given need be remembered only within a group: for rows that were deleted and put back
// elsewhere, and for an index that is replaced, after which the group begins again.
struct TableReaderCore::Walk::State {
  explicit State(TableReaderImpl& impl) : impl(impl) {}

  TableReaderImpl& impl;
  U64 packed = 0;
  Index index;
  U64 from = 0, last = 0;  // hashes of the group
  U64 at = 0, end = 0;     // places, not wrapped; from `end` on, up to an empty one
  U64 stop = 0;            // where the group ends in any case
  bool begun = false, again = false, done = false;
  U64 changes = 0;         // when the group began
  std::vector<U64> given;  // keys of the group

  // Looks for the group in the index in use.
  void seek() {
    for (int attempt = 0;; ++attempt) {
      changes = std::min(again ? changes : ~U64{0}, impl.changes());
      packed = impl.index();
      const U64 now = impl.changes();
      if (impl.indexOf(packed, index)) break;
      impl.throwIfTrue(now, packed);
      tired(attempt);
    }
    const U64 width = groupCount << (64 - index.log2);  // 0: all hashes
    if (!again) last = from + (width - 1);
    at = index.home(from);
    end = index.home(last) + 1;
    stop = std::min(end + maxProbes, at + index.count());
  }
  void tired(int attempt) {
    if (attempt == maxWalkAttempts)
      throwTable(impl.object.name(),
                 "the row at place %lu of the index changed at %d attempts",
                 at & (index.count() - 1), attempt);
    if (attempt % 16 == 15) ::sched_yield();
  }
  U64 placeOf(U64 place) const {
    return index.words() + (place & (index.count() - 1)) * 8;
  }
  void prefetch() {
    const U64 word = load(impl.object.at(placeOf(at + walkAhead)));
    const U64 slot = slotOf(word);
    if (!impl.object.has(slot, 3 * 64)) return;
    for (U64 line = 0; line < 3; ++line)
      __builtin_prefetch(impl.object.at(slot + line * 64));
  }
  bool wasGiven(U64 key, U64 stamp) const {
    return (again || stamp > changes) &&
           std::find(given.begin(), given.end(), key) != given.end();
  }

  bool next(RowBytes& out);
};

bool TableReaderCore::Walk::State::next(RowBytes& out) {
  TableReaderImpl::Row row;
  while (!done) {
    if (!begun) {
      begun = true;
      seek();
    }
    for (int attempt = 0; at < stop;) {
      const U64 changesNow = attempt > 0 ? impl.changes() : 0;
      const U64 place = placeOf(at);
      const U64 word = load(impl.object.at(place), __ATOMIC_ACQUIRE);
      if (impl.index() != packed) {
        again = true;
        seek();
        continue;
      }
      if (word == emptyWord && at >= end) break;
      if (word == emptyWord || word == deletedWord) {
        ++at, attempt = 0;
        continue;
      }
      if (attempt == 0) prefetch();
      const Seen seen = impl.see(packed, place, word, nullptr, row);
      if (seen != Seen::row) {
        if (seen == Seen::fault && attempt > 0) impl.throwIfTrue(changesNow, packed);
        tired(attempt++);
        continue;
      }
      ++at, attempt = 0;
      const U64 key = row.bytes.key, hash = hashOf(key, impl.seed);
      if (hash < from || hash > last || wasGiven(key, row.stamp)) continue;
      given.push_back(key);
      out = row.bytes;
      return true;
    }
    from = last + 1;
    done = from == 0;
    begun = again = false;
    given.clear();
  }
  return false;
}

TableReaderCore::Walk::Walk(const TableReaderCore& core)
    : state_(std::make_unique<State>(*core.impl_)) {}
TableReaderCore::Walk::~Walk() = default;
bool TableReaderCore::Walk::next(RowBytes& out) {
  return state_->next(out);
}

}  // namespace Quarn
