#include "Quarn/TableObject.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Quarn {

using namespace TableLayout;

TableException::~TableException() = default;

void throwTable(const std::string& table, const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  throw TableException(Kop::stringPrintf("table %s: %s", table.c_str(), text));
}

void throwTableSystem(const std::string& table, const char* call, int error) {
  throwTable(table, "%s: %s", call, std::strerror(error));
}

void checkTableName(std::string_view name) {
  constexpr std::size_t longest =
      255;  // what a file's name may have, the '/' not counted
  const std::string_view rest = name.substr(std::min<std::size_t>(1, name.size()));
  if (name.size() < 2 || name.size() > longest || name[0] != '/' || rest == "." ||
      rest == ".." || rest.find('/') != rest.npos || rest.find('\0') != rest.npos)
    throw Kop::RangeException(Kop::stringPrintf(
        "'%.*s' is not the name of a table: a '/' and 1 to 254 bytes without another",
        static_cast<int>(std::min<std::size_t>(name.size(), 300)), name.data()));
}

TableObject::TableObject(std::string name, int fd, bool writable)
    : name_(std::move(name)), fd_(fd), writable_(writable) {}

TableObject::~TableObject() {
  if (base_) ::munmap(base_, mapped_);
  if (fd_ >= 0) ::close(fd_);
}

U64 TableObject::fileSize() const {
  struct stat status;
  if (::fstat(fd_, &status) != 0) throwTableSystem(name_, "fstat", errno);
  return static_cast<U64>(status.st_size);
}

void TableObject::limitIs(U64 limit) {
  if (limit > mapped_) {
    const U64 size = std::max<U64>(4 << 20, std::bit_ceil(limit) * 2);
    void* const at =
        base_ ? ::mremap(base_, mapped_, size, MREMAP_MAYMOVE)
              : ::mmap(nullptr, size, writable_ ? PROT_READ | PROT_WRITE : PROT_READ,
                       MAP_SHARED, fd_, 0);
    if (at == MAP_FAILED) throwTableSystem(name_, "mmap", errno);
    base_ = static_cast<U8*>(at);
    mapped_ = size;
  }
  limit_ = limit;
}

bool TableObject::isComplete() const {
  U64 wanted;
  std::memcpy(&wanted, magic, sizeof wanted);
  return load(base_, __ATOMIC_ACQUIRE) == wanted;
}

bool TableObject::headerFault(std::string_view kind, std::string& what) const {
  // By words, because a hostile writer may be at it.
  alignas(8) U8 copy[offsetof(Header, size)];
  for (U64 i = 0; i < sizeof copy; i += 8) {
    const U64 word = load(base_ + i);
    std::memcpy(copy + i, &word, sizeof word);
  }
  Header header;
  std::memcpy(static_cast<void*>(&header), copy, sizeof copy);
  const auto fault = [&what](const char* item, U64 offset, U64 found, U64 wanted) {
    what = Kop::stringPrintf("%s at offset %lu is %#lx, not %#lx", item, offset, found,
                             wanted)
               .c_str();
    return true;
  };
  if (std::memcmp(header.magic, magic, sizeof magic) != 0) {
    what = "not a table: its first bytes are others";
    return true;
  }
  const struct {
    const char* item;
    U64 offset, found, wanted;
  } rows[] = {
      {"byte-order mark",     offsetof(Header, byteOrder),      header.byteOrder,      byteOrderMark},
      {"version",             offsetof(Header, version),        header.version,        version      },
      {"size of header",      offsetof(Header, headerSize),     header.headerSize,     page         },
      {"size of slot header", offsetof(Header, slotHeaderSize), header.slotHeaderSize,
       sizeof(SlotHeader)                                                                           },
      {"offset of ring",      offsetof(Header, ringOffset),     header.ringOffset,     ringOffset   },
      {"entries of ring",     offsetof(Header, ringEntries),    header.ringEntries,    ringCount    },
      {"offset of areas",     offsetof(Header, areasOffset),    header.areasOffset,    areasOffset  },
  };
  for (const auto& row : rows)
    if (row.found != row.wanted)
      return fault(row.item, row.offset, row.found, row.wanted);
  if (header.kindLength > maxKind)
    return fault("length of kind", offsetof(Header, kindLength), header.kindLength,
                 maxKind);
  const std::string_view found(header.kind, header.kindLength);
  if (found != kind) {
    what = "its rows are '";
    for (const char c : found)
      what += c >= ' ' && c <= '~' ? c : '?';
    what += "', not '" + std::string(kind) + "'";
    return true;
  }
  return false;
}

bool TableObject::writerLives() const {
  struct flock lock {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  lock.l_len = 1;
  if (::fcntl(fd_, F_OFD_GETLK, &lock) != 0) throwTableSystem(name_, "fcntl", errno);
  return lock.l_type != F_UNLCK;
}

}  // namespace Quarn
