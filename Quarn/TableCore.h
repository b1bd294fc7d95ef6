#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "Kop/Exception.h"
#include "Kop/Types.h"
#include "Quarn/Export.h"

// What Table.h is made of: a table whose rows are bytes. Use Table.h.

namespace Quarn {

// A table that cannot be made, opened, grown or believed. The message names the table, then
// the system call with the text of errno, or the offset in the object and what was found there.
class QUARN_EXPORT TableException : public Kop::Exception {
 public:
  using Exception::Exception;
  ~TableException() override;
};

// How a table is made.
struct TableOptions {
  mode_t mode = 0640;  // whatever the umask is; an existing table gets it too
  std::optional<uid_t> owner;
  std::optional<gid_t> group;
  U64 reserveRows = 0;  // so many rows come in without the index being rebuilt
};

struct TableStats {     // how big a table is, and how full
  U64 bytesMapped = 0;  // of address space
  U64 bytesUsed = 0;    // of the object: header, change ring, index, slots
  U64 bytesFree = 0;    // of these, in areas that serve nothing at the moment
  U64 rows = 0;
  U64 slots = 0;      // room for rows, all sizes
  U64 slotsFree = 0;  // of these, without a row
  U64 indexWords = 0;
  U64 changes = 0;  // ever made
};

// What verify() found.
struct TableReport {
  std::vector<std::string> faults;  // the first hundred
  U64 faultCount = 0;
  U64 rows = 0;  // sound rows seen
  // False: the writer was at a change all the while, so that counts were not compared; rows
  // were checked all the same.
  bool settled = true;
  bool ok() const { return faultCount == 0; }
};

// What a look-up found. busy: the writer came between at every attempt; see TableReader.
enum class RowState : U8 { found, absent, busy };

// A copy of a row, in memory of the core that gave it, until its next call.
struct RowBytes {
  U64 key = 0;
  const U8* data = nullptr;  // 8-byte aligned
  U32 length = 0;
};

class QUARN_EXPORT TableWriterCore {  // the writing end, of rows that are bytes
 public:
  TableWriterCore(std::string_view name, std::string_view kind, const TableOptions&);
  TableWriterCore(TableWriterCore&&) noexcept;
  TableWriterCore& operator=(TableWriterCore&&) noexcept;
  ~TableWriterCore();

  U8* scratch(U32 length);  // room for the bytes of the next rowIs
  bool rowIs(U64 key, U32 length);
  bool rowDel(U64 key);
  void rowDelAll();
  bool row(U64 key, RowBytes& out) const;
  bool rowHas(U64 key) const;
  U64 rowCount() const;
  U64 changeCount() const;
  // Walks from place 0 on; false at the end.
  bool next(U64& place, RowBytes& out) const;
  // Changes when a walk's place no longer means anything.
  U64 generation() const;
  TableStats stats() const;
  const std::string& name() const;
  static bool remove(std::string_view name);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Throws TableException: the bytes of this row of a table are not a record.
[[noreturn]] QUARN_EXPORT void throwNotARecord(const std::string& table,
                                               U64 key,
                                               const char* why);

class TableReaderImpl;

class QUARN_EXPORT TableReaderCore {  // the reading end
 public:
  TableReaderCore(std::string_view name, std::string_view kind);
  // Over an open object or file, which it takes over.
  TableReaderCore(int fd, std::string_view name, std::string_view kind);
  TableReaderCore(TableReaderCore&&) noexcept;
  TableReaderCore& operator=(TableReaderCore&&) noexcept;
  ~TableReaderCore();

  RowState row(U64 key, RowBytes& out) const;
  U64 rowCount() const;
  U64 changeCount() const;
  bool changedSince(U64 since, std::vector<U64>& keys, U64& upTo) const;
  pid_t writerPid() const;
  bool writerAlive() const;
  bool isRemoved() const;
  TableReport verify() const;
  TableStats stats() const;
  const std::string& name() const;

  // One walk over all rows.
  class QUARN_EXPORT Walk {
   public:
    explicit Walk(const TableReaderCore&);
    ~Walk();
    bool next(RowBytes& out);

   private:
    struct State;
    std::unique_ptr<State> state_;
  };

 private:
  std::unique_ptr<TableReaderImpl> impl_;
};

}  // namespace Quarn
