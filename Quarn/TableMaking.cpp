#include "Quarn/TableMaking.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Quarn/TableObject.h"

namespace Quarn {

using namespace TableLayout;

U32 log2For(U64 rows) {
  U32 log2 = minLog2;
  while ((U64{1} << log2) / 4 * 3 < rows)
    ++log2;
  return log2;
}

namespace {

struct Descriptor {
  explicit Descriptor(int fd) : fd(fd) {}
  Descriptor(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd >= 0) ::close(fd);
  }
  int release() { return std::exchange(fd, -1); }
  int fd;
};

int openWriter(const std::string& name) {
  // First without O_CREAT: with it, some systems refuse an object that somebody else owns.
  int fd = ::shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
  // Until it has its owner, nobody else gets at it.
  if (fd < 0 && errno == ENOENT)
    fd = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) throwTableSystem(name, "shm_open", errno);
  return fd;
}

// Locks the object for a writer; false: it lost its name in the meantime.
bool lockIs(const std::string& name, int fd) {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_len = 1;
  if (::fcntl(fd, F_OFD_SETLK, &lock) != 0) {
    if (errno != EAGAIN && errno != EACCES) throwTableSystem(name, "fcntl", errno);
    U64 pid = 0;
    if (::pread(fd, &pid, sizeof pid, offsetof(Header, writerPid)) == sizeof pid &&
        pid != 0)
      throwTable(name, "has a live writer, process %lu", pid);
    throwTable(name, "has a live writer, which has just begun");
  }
  struct stat status;
  if (::fstat(fd, &status) != 0) throwTableSystem(name, "fstat", errno);
  return status.st_nlink != 0;
}

void accessIs(const std::string& name, int fd, const TableOptions& options) {
  struct stat status;
  if (::fstat(fd, &status) != 0) throwTableSystem(name, "fstat", errno);
  constexpr auto same = static_cast<uid_t>(-1);
  const uid_t owner = options.owner.value_or(status.st_uid);
  const gid_t group = options.group.value_or(status.st_gid);
  if ((owner != status.st_uid || group != status.st_gid) &&
      ::fchown(fd, options.owner.value_or(same), options.group.value_or(same)) != 0)
    throwTableSystem(name, "fchown", errno);
  if ((status.st_mode & 07777) != options.mode && ::fchmod(fd, options.mode) != 0)
    throwTableSystem(name, "fchmod", errno);
}

// Whether there is nothing yet, or what a creator left that did not come to the end.
bool isToBeMade(const std::string& name, int fd) {
  alignas(8) U8 first[page] = {};
  const ssize_t size = ::pread(fd, first, sizeof first, 0);
  if (size < 0) throwTableSystem(name, "pread", errno);
  Header header;
  std::memcpy(static_cast<void*>(&header), first, sizeof header);
  const char none[sizeof header.magic] = {};
  if (std::memcmp(header.magic, none, sizeof none) != 0) return false;
  return (header.byteOrder == byteOrderMark && header.version == version) ||
         std::all_of(first, first + sizeof first, [](U8 byte) { return byte == 0; });
}

void makeTable(const std::string& name, int descriptor, std::string_view kind, U64 rows) {
  const int fd = ::dup(descriptor);
  if (fd < 0) throwTableSystem(name, "dup", errno);
  TableObject object(name, fd, true);
  const Index index{areasOffset, log2For(rows), 1};
  const U64 size = index.area + index.areaSize();
  if (const int error = ::posix_fallocate(fd, 0, static_cast<off_t>(size)))
    throwTableSystem(name, "posix_fallocate", error);
  object.limitIs(size);
  std::memset(object.base() + sizeof(U64), 0, size - sizeof(U64));

  Header header{};
  header.byteOrder = byteOrderMark;
  header.version = version;
  header.headerSize = page;
  header.slotHeaderSize = sizeof(SlotHeader);
  if (::getrandom(&header.seed, sizeof header.seed, 0) != sizeof header.seed)
    throwTableSystem(name, "getrandom", errno);
  header.ringOffset = ringOffset;
  header.ringEntries = ringCount;
  header.kindLength = static_cast<U32>(kind.size());
  header.areasOffset = areasOffset;
  std::memcpy(header.kind, kind.data(), kind.size());
  header.size = size;
  header.index = index.packed();
  std::memcpy(object.base() + sizeof(U64), &header.byteOrder,
              sizeof header - sizeof(U64));
  store(object.base() + index.area, index.areaSize());
  store(object.base() + index.area + offsetof(AreaHeader, kind),
        static_cast<U64>(AreaKind::index));
  U64 first;
  std::memcpy(&first, magic, sizeof first);
  store(object.base(), first, __ATOMIC_RELEASE);
}

}  // namespace

int tableForWriter(const std::string& name,
                   std::string_view kind,
                   const TableOptions& options) {
  if (kind.size() > maxKind)
    throwTable(name, "the name of its rows has %zu bytes, at most %lu", kind.size(),
               maxKind);
  for (;;) {
    Descriptor fd(openWriter(name));
    if (!lockIs(name, fd.fd)) continue;
    const bool isNew = isToBeMade(name, fd.fd);
    try {
      accessIs(name, fd.fd, options);
      if (isNew) makeTable(name, fd.fd, kind, options.reserveRows);
    } catch (...) {
      if (isNew) ::shm_unlink(name.c_str());
      throw;
    }
    return fd.release();
  }
}

}  // namespace Quarn
