#pragma once

#include <cstdarg>
#include <string>
#include <string_view>

#include "Quarn/TableCore.h"
#include "Quarn/TableLayout.h"

// Not installed: the object in shared memory as a descriptor and a mapping.

namespace Quarn {

// "<table>: <message>".
[[noreturn, gnu::format(printf, 2, 3)]] void throwTable(const std::string& table,
                                                        const char* format,
                                                        ...);
// "<table>: <call>: <text of errno>".
[[noreturn]] void throwTableSystem(const std::string& table, const char* call, int error);

// Kop::RangeException unless it is the name of a table.
void checkTableName(std::string_view name);

// A descriptor and its mapping. The mapping reaches beyond the end of the object, so that most
// growth needs no new one; only what lies below limit() may be touched.
class TableObject {
 public:
  TableObject(std::string name, int fd, bool writable);
  ~TableObject();
  TableObject(const TableObject&) = delete;

  const std::string& name() const { return name_; }
  int fd() const { return fd_; }
  U8* base() const { return base_; }
  U64 limit() const { return limit_; }
  U64 mapped() const { return mapped_; }
  // The object has these bytes and they are to be used; base() may move.
  void limitIs(U64 limit);
  U64 fileSize() const;

  const void* at(U64 offset) const { return base_ + offset; }
  void* at(U64 offset) { return base_ + offset; }
  // Whether so many bytes lie in the object.
  bool has(U64 offset, U64 size) const {
    return offset <= limit_ && size <= limit_ - offset;
  }
  const TableLayout::Header& header() const {
    return *reinterpret_cast<const TableLayout::Header*>(base_);
  }
  TableLayout::Header& header() { return *reinterpret_cast<TableLayout::Header*>(base_); }

  // Null, or what is wrong with the part of the header that never changes; the message is put
  // into `what`. limit() is at least a page.
  bool headerFault(std::string_view kind, std::string& what) const;
  bool isComplete() const;  // its creator came to the end
  // Pid of the process that holds the writer's lock as the header has it; false: nobody.
  bool writerLives() const;

 private:
  std::string name_;
  int fd_;
  bool writable_;
  U8* base_ = nullptr;
  U64 limit_ = 0, mapped_ = 0;
};

}  // namespace Quarn
