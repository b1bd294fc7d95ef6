#pragma once

#include <concepts>
#include <exception>
#include <utility>

#include "Kop/Assert.h"
#include "Kop/Text.h"
#include "Quarn/TableCore.h"

// A table of records of any length by 64-bit key, in POSIX shared memory: one process writes,
// any number of processes read without locks. The form is drawn in Quarn/TableLayout.h.
//
// Names    a '/' and 1 to 254 bytes without another; Kop::RangeException otherwise.
// Writer   one at a time: it holds a lock on the object that the kernel drops when the process
//          ends, however it ends. The next writer finds every row that was completed, and a
//          change that was under way either made or not made. A child that the process forks
//          holds the lock as well, until it executes another program or ends.
// Readers  copy a row out and know that the copy is one version of the row that stood in the
//          table between the call and its return. They never wait for the writer, and a dead
//          writer leaves nothing that they would stumble over. A row is not written where it
//          stands, so a reader is disturbed only when, between two of its instructions, the
//          writer makes so many changes that the slot it copies from is used anew: at least 64
//          changes of rows of that size (fewer of rows over 1 KiB, at least 2). It then begins
//          again, at most 64 times, and answers `busy`. A walk goes on for longer and
//          gives other threads the processor meanwhile; it throws after 100000 attempts at
//          one row.
// Trust    a reader checks each offset, length and count against the object's size before it
//          follows it, bounds each loop, and compares a checksum over each row. What does not
//          fit throws TableException. A writer checks everything once, when it opens the table,
//          and relies on being the only one who may write afterwards.
//          No check helps against an object that is cut short under its readers: touching what
//          was cut off is SIGBUS. The library never shortens an object; whoever could is
//          someone whom mode and owner allow to write.
// Errors   TableException; the table is as it was. Room is reserved before it is used, so a
//          full memory is an exception and never SIGBUS. A limit on file sizes
//          (RLIMIT_FSIZE) counts as full where SIGXFSZ is ignored.
// Widths   a row has at most 16 MiB, a table 16 TiB and 2^31 rows; change numbers are 64 bits.
// Cost     a look-up touches one word of the index and the row. A table takes 1.1 MiB, and
//          per row 24 bytes, rounding up to 16, and 11 to 22 bytes of index. The index is
//          rebuilt when three quarters of it are used: one change then costs as much as a walk.
// Threads  one thread at a time for each writer and each reader object; any number of readers.
// Owner    the table outlives its processes, until remove(). Those who have it open keep it.

namespace Quarn {

// serialize writes serializeLen() bytes. deserializeLen(bytes, available) is 0 when the record
// needs more than the available bytes; otherwise deserialize may be called. Both must stand
// any bytes; deserialize may throw what derives from std::exception.
template <class R>
concept TableRecord = std::default_initializable<R> && std::copyable<R> &&
    requires(const R& record, R& target, void* to, const void* from, U32 n) {
  { record.serializeLen() } -> std::convertible_to<U32>;
  record.serialize(to);
  target.deserialize(from, n);
  { record.deserializeLen(from, n) } -> std::convertible_to<U32>;
};

// What a table says that its rows are: the record's tableKind, if it has one, otherwise its
// qualified name. A table is opened only for what it was made for. At most 192 bytes.
template <class R>
constexpr std::string_view tableKind() {
  if constexpr (requires { std::string_view(R::tableKind); })
    return R::tableKind;
  else
    return Kop::typeName<R>();
}

// Reads a row into `out`: the bytes must be one whole record and nothing else. Otherwise false,
// after isNot(why), and `out` is unspecified. Some records answer deserializeLen with a yes or
// no instead of their length, so what was read is measured.
template <TableRecord R, class IsNot>
bool rowToRecord(const RowBytes& bytes, R& out, IsNot&& isNot) {
  const auto refuse = [&isNot](const char* why) {
    isNot(why);
    return false;
  };
  // A row of no bytes is whole for records that may be empty.
  if (std::as_const(out).deserializeLen(bytes.data, bytes.length) == 0 &&
      (bytes.length > 0 || R().serializeLen() > 0))
    return refuse("it ends early");
  try {
    out.deserialize(bytes.data, bytes.length);
  } catch (const std::exception& e) {
    return refuse(e.what());
  }
  if (std::as_const(out).serializeLen() != bytes.length)
    return refuse("its length is not that of its content");
  return true;
}

template <TableRecord R>
class TableWriter {
 public:
  // Creates the table, or opens it and checks all of it. TableException: a live writer (with
  // its pid), other rows, another version or byte order, corrupt, or a system call.
  explicit TableWriter(std::string_view name, const TableOptions& options = {})
      : core_(name, tableKind<R>(), options) {}

  // False: the same bytes stood there; nothing changed, nobody is told.
  bool rowIs(U64 key, const R& record) {
    const U32 length = record.serializeLen();
    record.serialize(core_.scratch(length));
    return core_.rowIs(key, length);
  }
  bool rowDel(U64 key) { return core_.rowDel(key); }  // false: was absent
  void rowDelAll() { core_.rowDelAll(); }             // one after the other
  bool row(U64 key, R& out) const {                   // false: absent
    RowBytes bytes;
    if (!core_.row(key, bytes)) return false;
    decode(bytes, out);
    return true;
  }
  bool rowHas(U64 key) const { return core_.rowHas(key); }
  U64 rowCount() const { return core_.rowCount(); }
  U64 changeCount() const { return core_.changeCount(); }
  // f(U64 key, const R&), in no particular order. It may change and delete rows of the table;
  // adding one is an assertion.
  template <class F>
  void forEachRow(F&& f) const {
    const U64 generation = core_.generation();
    RowBytes bytes;
    R record;
    for (U64 place = 0; core_.next(place, bytes);) {
      decode(bytes, record);
      f(bytes.key, std::as_const(record));
      KOP_ASSERT(core_.generation() == generation, "generation == writer.generation()",
                 "Quarn/Table");
    }
  }
  // Deletes the rows whose bytes are not a record, which row() and forEachRow() throw for: what
  // an earlier writer left that took the record for something else. How many; a writer that
  // takes a table over may do so first.
  U64 rowDelUnreadable() {
    RowBytes bytes;
    R record;
    U64 count = 0;
    for (U64 place = 0; core_.next(place, bytes);)
      if (!rowToRecord(bytes, record, [](const char*) {}))
        count += core_.rowDel(bytes.key);
    return count;
  }
  TableStats stats() const { return core_.stats(); }
  const std::string& name() const { return core_.name(); }
  // Takes the name away; who has the table open keeps it. False: there was none.
  static bool remove(std::string_view name) { return TableWriterCore::remove(name); }

 private:
  void decode(const RowBytes& bytes, R& out) const {
    rowToRecord(bytes, out,
                [&](const char* why) { throwNotARecord(name(), bytes.key, why); });
  }

  TableWriterCore core_;
};

template <TableRecord R>
class TableReader {
 public:
  // TableException: absent, not a table (or not yet: a live creator is given 100 ms), other
  // rows, another version or byte order, corrupt.
  explicit TableReader(std::string_view name) : core_(name, tableKind<R>()) {}
  // Over an open object or a file with the image of one; takes the descriptor over. The name
  // is what messages call it.
  TableReader(int fd, std::string_view name) : core_(fd, name, tableKind<R>()) {}

  // `out` is unspecified unless the row was found.
  RowState row(U64 key, R& out) const {
    RowBytes bytes;
    const RowState state = core_.row(key, bytes);
    if (state == RowState::found) decode(bytes, out);
    return state;
  }
  U64 rowCount() const { return core_.rowCount(); }
  // f(U64 key, const R&), in no particular order, each key at most once. A row that stands in
  // the table all the while is given once, as it was at some moment of the walk.
  template <class F>
  void forEachRow(F&& f) const {
    TableReaderCore::Walk walk(core_);
    RowBytes bytes;
    R record;
    while (walk.next(bytes)) {
      decode(bytes, record);
      f(bytes.key, std::as_const(record));
    }
  }
  // Number of changes ever made: a reader that sees it grow looks again.
  U64 changeCount() const { return core_.changeCount(); }
  // The keys that changed after change number `since`, oldest first, one for each change.
  // `upTo` is where to go on. False, and no keys: the ring of the last 65536 changes no longer
  // reaches back that far; walk everything, then go on from `upTo`.
  bool changedSince(U64 since, std::vector<U64>& keys, U64& upTo) const {
    return core_.changedSince(since, keys, upTo);
  }
  pid_t writerPid() const {
    return core_.writerPid();
  }  // the last one; 0: it ended in order
  bool writerAlive() const { return core_.writerAlive(); }
  bool isRemoved() const { return core_.isRemoved(); }  // a new one may have its name
  // Checks everything, reports every fault, follows none.
  TableReport verify() const { return core_.verify(); }
  TableStats stats() const { return core_.stats(); }
  const std::string& name() const { return core_.name(); }

 private:
  void decode(const RowBytes& bytes, R& out) const {
    rowToRecord(bytes, out,
                [&](const char* why) { throwNotARecord(name(), bytes.key, why); });
  }

  TableReaderCore core_;
};

// Both ends by one name.
template <TableRecord R>
struct Table {
  using Record = R;
  using Writer = TableWriter<R>;
  using Reader = TableReader<R>;
};

}  // namespace Quarn
