#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Hivel/Database.h"
#include "Hivel/Exception.h"
#include "Hivel/Status.h"
#include "Kop/NboAttrLog.h"

// What client and server say to each other, as bytes and as messages; no I/O.
//
// Both directions are a run of frames, numbers in network byte order:
//
//   | U32 length of the rest | U8 kind | body |
//
// Kinds 1 to 31 belong to the attribute log. The others, with their bodies (string: U32
// size, bytes; list: U32 count, elements; flag: one byte, 0 or 1):
//
//   kind           from     body
//   64 hello       both     U32 magic "HIVL", U32 version, string name, U64 instance,
//                           list of (string module, U64 digest)
//   65 mount       client   U32 mount, U8 mode (0 read, 1 replace, 2 adopt), flag waits,
//                           string path, string type, string root name, U64 root identity
//   66 mounted     server   U32 mount, string type, string root name, U64 root identity,
//                           U64 epoch, string writer, flag settled
//   67 refused     server   U32 mount, string reason
//   68 waiting     server   U32 mount
//   69 adopted     client   U32 mount, U64 root identity
//   70 pathState   server   U32 mount, U64 epoch, string writer, flag settled
//   71 unmount     client   U32 mount, flag remove
//   72 unmounted   server   U32 mount
//   73 gone        server   U32 mount, string reason
//   74 list        client   U32 request, flag watch, string prefix
//   75 listEntry   server   U32 request, flag appeared, string path, string type
//   76 listEnd     server   U32 request
//   77 unwatch     client   U32 request
//   78 sync        client   U32 request
//   79 synced      server   U32 request
//   80 status      client   U32 request
//   81 statusIs    server   U32 request, the fields of ServerStatus in their order
//   82 error       both     flag lasting, string reason; its sender closes
//
// The first frame each way is hello. The client numbers its mounts and requests, each number
// once per connection.
//
// Reading: mount -> waiting -> mounted, then the log from the server; gone takes a path
// away, after which a mount that waits may be mounted again. Replacing: mount -> mounted,
// then the log from the client. Adopting: mount -> mounted; unless the root identity in it
// is 0 (there was nothing), one catch-up from the server, then adopted; then the log from the
// client. Instead of mounted, refused may come. Unmount ends each; what the server had under
// way comes before unmounted. A writer answers gone with unmount, and what it
// had under way until then changes nothing at the path.
//
// `settled` is false while the path is between two states because its writer catches up.
//
// sync is answered when everything before it has been applied.

namespace Hivel {

constexpr U32 protocolMagic = 0x4849564c;  // "HIVL"
constexpr U32 protocolVersion = 1;
constexpr U8 maxLogKind = 31;
constexpr std::size_t maxHelloSize = 64 << 10;  // bytes of the first frame
constexpr std::size_t maxNameSize = 128;        // bytes of a client's name

enum class HIVEL_EXPORT FrameKind : U8 {  // a frame's fifth byte
  hello = 64,
  mount,
  mounted,
  refused,
  waiting,
  adopted,
  pathState,
  unmount,
  unmounted,
  gone,
  list,
  listEntry,
  listEnd,
  unwatch,
  sync,
  synced,
  status,
  statusIs,
  error,
};

// Exported, because what is instantiated over them must be.
namespace Frame {

struct HIVEL_EXPORT ModuleDigest {  // a module that a peer knows
  std::string name;
  U64 digest = 0;
  bool operator==(const ModuleDigest&) const = default;
};

// When the version is another than ours, only magic and version are read.
struct HIVEL_EXPORT Hello {
  static constexpr FrameKind kind = FrameKind::hello;
  U32 magic = protocolMagic;
  U32 version = protocolVersion;
  std::string name;
  U64 instance = 0;  // of the client, the same after a reconnection; a server's is 0
  std::vector<ModuleDigest> modules;
  bool operator==(const Hello&) const = default;
};
struct HIVEL_EXPORT Mount {  // asks for a path
  static constexpr FrameKind kind = FrameKind::mount;
  U32 mount = 0;
  Mode mode = Mode::read;
  bool waits = false;
  std::string path, type, rootName;  // type empty: any
  U64 rootIdentity = 0;              // 0: not yet known
  bool operator==(const Mount&) const = default;
};
struct HIVEL_EXPORT Mounted {  // grants it, with what is there
  static constexpr FrameKind kind = FrameKind::mounted;
  U32 mount = 0;
  std::string type, rootName;
  U64 rootIdentity = 0;
  U64 epoch = 0;
  std::string writer;
  bool settled = true;
  bool operator==(const Mounted&) const = default;
};
struct HIVEL_EXPORT Refused {  // refuses it
  static constexpr FrameKind kind = FrameKind::refused;
  U32 mount = 0;
  std::string reason;
  bool operator==(const Refused&) const = default;
};
struct HIVEL_EXPORT Adopted {  // what was there has been taken over
  static constexpr FrameKind kind = FrameKind::adopted;
  U32 mount = 0;
  U64 rootIdentity = 0;
  bool operator==(const Adopted&) const = default;
};
struct HIVEL_EXPORT PathState {  // another writer, or its catch-up
  static constexpr FrameKind kind = FrameKind::pathState;
  U32 mount = 0;
  U64 epoch = 0;
  std::string writer;
  bool settled = true;
  bool operator==(const PathState&) const = default;
};
struct HIVEL_EXPORT Unmount {  // ends a mount, and the path if told so
  static constexpr FrameKind kind = FrameKind::unmount;
  U32 mount = 0;
  bool remove = false;
  bool operator==(const Unmount&) const = default;
};
struct HIVEL_EXPORT Gone {  // the path of a mount is no more
  static constexpr FrameKind kind = FrameKind::gone;
  U32 mount = 0;
  std::string reason;
  bool operator==(const Gone&) const = default;
};
struct HIVEL_EXPORT List {  // which paths are there, or come and go
  static constexpr FrameKind kind = FrameKind::list;
  U32 request = 0;
  bool watch = false;
  std::string prefix;
  bool operator==(const List&) const = default;
};
struct HIVEL_EXPORT ListEntry {  // one that is there, came or went
  static constexpr FrameKind kind = FrameKind::listEntry;
  U32 request = 0;
  bool appeared = true;
  std::string path, type;
  bool operator==(const ListEntry&) const = default;
};
struct HIVEL_EXPORT StatusIs {  // the server's status
  static constexpr FrameKind kind = FrameKind::statusIs;
  U32 request = 0;
  ServerStatus status;
  bool operator==(const StatusIs&) const = default;
};
struct HIVEL_EXPORT Error {  // the last frame of whoever closes
  static constexpr FrameKind kind = FrameKind::error;
  bool lasting = true;  // trying again soon is of no use
  std::string reason;
  bool operator==(const Error&) const = default;
};
// Frames whose body is a number of a mount or a request.
template <FrameKind k>
struct HIVEL_EXPORT Numbered {
  static constexpr FrameKind kind = k;
  U32 number = 0;
  bool operator==(const Numbered&) const = default;
};
using Waiting = Numbered<FrameKind::waiting>;
using Unmounted = Numbered<FrameKind::unmounted>;
using ListEnd = Numbered<FrameKind::listEnd>;
using Unwatch = Numbered<FrameKind::unwatch>;
using Sync = Numbered<FrameKind::sync>;
using Synced = Numbered<FrameKind::synced>;
using Status = Numbered<FrameKind::status>;

}  // namespace Frame

// The kind's name, or null for a kind that no frame has.
HIVEL_EXPORT const char* frameName(U8 kind);

// Appends a whole frame. Message is one of Frame.
template <class Message>
HIVEL_EXPORT void encode(Kop::NboAttrLog::Out& out, const Message& message);

// Reads a frame, without its length word, of exactly Message's kind.
// Errors   ProtocolException: another kind, bytes missing or left over, a value that is not
//          allowed. Nothing is allocated that the frame's own bytes do not justify.
template <class Message>
HIVEL_EXPORT Message decode(std::span<const U8> frame);

inline Frame::Hello decodeHello(std::span<const U8> frame) {
  return decode<Frame::Hello>(frame);
}

// This process's hello: the registered modules.
HIVEL_EXPORT Frame::Hello helloOf(std::string name, U64 instance);
// Whether two peers understand each other; a module that only one of them has does no harm.
// Errors   ProtocolException that names both values.
HIVEL_EXPORT void checkHello(const Frame::Hello& ours, const Frame::Hello& theirs);

// Cuts a run of bytes into frames.
//
//   reader.feed(bytes);  while (auto frame = reader.next()) ...
//
// Cost     memory is at most twice what has arrived and is not yet taken, plus a piece.
class HIVEL_EXPORT FrameReader {
 public:
  explicit FrameReader(std::size_t maxFrameSize) : maxFrameSize_(maxFrameSize) {}
  FrameReader(const FrameReader&) = delete;
  FrameReader& operator=(const FrameReader&) = delete;

  void maxFrameSizeIs(std::size_t size) { maxFrameSize_ = size; }

  void feed(std::span<const U8> bytes);
  // The same without a copy: bytes are put into room(), then arrived() says how many.
  std::span<U8> room(std::size_t size);
  void arrived(std::size_t size) { tail_ += size; }

  // The next whole frame without its length word, valid until the next room() or feed().
  // Errors   ProtocolException for a length of 0 or above the limit, as soon as it is there.
  std::optional<std::span<const U8>> next();

  std::size_t buffered() const { return tail_ - head_; }
  std::size_t memory() const { return capacity_; }

 private:
  std::unique_ptr<U8[]> bytes_;
  std::size_t head_ = 0, tail_ = 0, capacity_ = 0;
  std::size_t maxFrameSize_;
};

// Text from a peer as it may stand in a line: other bytes than printable ones are '?', and
// what is over the limit is cut.
HIVEL_EXPORT std::string printable(std::string_view text, std::size_t limit = 1024);

}  // namespace Hivel
