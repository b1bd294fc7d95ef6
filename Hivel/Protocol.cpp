#include "Hivel/Protocol.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

#include "Kop/Module.h"

namespace Hivel {

using Kop::NboAttrLog::In;
using Kop::NboAttrLog::Out;

namespace {

constexpr const char* frameNames[] = {
    "hello",   "mount",     "mounted", "refused",  "waiting",   "adopted", "pathState",
    "unmount", "unmounted", "gone",    "list",     "listEntry", "listEnd", "unwatch",
    "sync",    "synced",    "status",  "statusIs", "error",
};
constexpr std::size_t lengthSize = 4;         // bytes of the length word
constexpr std::size_t pieceKept = 256 << 10;  // bytes of an empty buffer that is kept

// The fields of a message in the order of the wire; the only place that says so.
template <class Message, class Visitor>
void visitFields(Message& m, Visitor& v) {
  using M = std::remove_const_t<Message>;
  if constexpr (std::same_as<M, Frame::ModuleDigest>)
    v(m.name), v(m.digest);
  else if constexpr (std::same_as<M, Frame::Mount>)
    v(m.mount), v(m.mode), v(m.waits), v(m.path), v(m.type), v(m.rootName),
        v(m.rootIdentity);
  else if constexpr (std::same_as<M, Frame::Mounted>)
    v(m.mount), v(m.type), v(m.rootName), v(m.rootIdentity), v(m.epoch), v(m.writer),
        v(m.settled);
  else if constexpr (std::same_as<M, Frame::Refused> || std::same_as<M, Frame::Gone>)
    v(m.mount), v(m.reason);
  else if constexpr (std::same_as<M, Frame::Adopted>)
    v(m.mount), v(m.rootIdentity);
  else if constexpr (std::same_as<M, Frame::PathState>)
    v(m.mount), v(m.epoch), v(m.writer), v(m.settled);
  else if constexpr (std::same_as<M, Frame::Unmount>)
    v(m.mount), v(m.remove);
  else if constexpr (std::same_as<M, Frame::List>)
    v(m.request), v(m.watch), v(m.prefix);
  else if constexpr (std::same_as<M, Frame::ListEntry>)
    v(m.request), v(m.appeared), v(m.path), v(m.type);
  else if constexpr (std::same_as<M, Frame::StatusIs>)
    v(m.request), v(m.status);
  else if constexpr (std::same_as<M, Frame::Error>)
    v(m.lasting), v(m.reason);
  else if constexpr (std::same_as<M, ServerStatus>)
    v(m.name), v(m.pid), v(m.uptime), v(m.accepted), v(m.turnedAway), v(m.refusals),
        v(m.errors), v(m.connections), v(m.paths);
  else if constexpr (std::same_as<M, ConnectionStatus>)
    v(m.id), v(m.client), v(m.pid), v(m.uid), v(m.reads), v(m.writes), v(m.messagesIn),
        v(m.messagesOut), v(m.bytesIn), v(m.bytesOut), v(m.bytesWaiting), v(m.coalesced),
        v(m.catchUps), v(m.refusals);
  else if constexpr (std::same_as<M, PathStatus>)
    v(m.path), v(m.type), v(m.writer), v(m.epoch), v(m.readers), v(m.waiting),
        v(m.refusals);
  else
    v(m.number);
}

struct Writer {
  Out& out;
  void operator()(const std::string& s) { out.writeString(s); }
  void operator()(U32 n) { out.writeU32(n); }
  void operator()(U64 n) { out.writeU64(n); }
  void operator()(bool b) { out.writebool(b); }
  void operator()(Mode mode) { out.writeU8(static_cast<U8>(mode)); }
  template <class T>
  void operator()(const std::vector<T>& list) {
    out.writeU32(static_cast<U32>(list.size()));
    for (const T& element : list)
      visitFields(element, *this);
  }
  void operator()(const ServerStatus& status) { visitFields(status, *this); }
};

struct Reader {
  In& in;
  void operator()(std::string& s) {
    const U32 size = in.nextU32();
    const U8* const bytes = in.at();
    in.skip(size);
    s.assign(reinterpret_cast<const char*>(bytes), size);
  }
  void operator()(U32& n) { n = in.nextU32(); }
  void operator()(U64& n) { n = in.nextU64(); }
  void operator()(bool& b) { b = limited(1, "flag") != 0; }
  void operator()(Mode& mode) { mode = static_cast<Mode>(limited(2, "mode")); }
  template <class T>
  void operator()(std::vector<T>& list) {
    // Each element has at least 4 bytes, so a count alone allocates nothing.
    const U32 count = in.nextU32();
    for (U32 i = 0; i < count; ++i)
      visitFields(list.emplace_back(), *this);
  }
  void operator()(ServerStatus& status) { visitFields(status, *this); }
  U8 limited(U8 limit, const char* what) {
    const U8 value = in.nextU8();
    if (value > limit)
      throw ProtocolException(Kop::stringPrintf("%s %u, at most %u", what, value, limit));
    return value;
  }
};

// The rest of another version's hello may mean anything.
template <class Visitor>
void visitHello(auto& hello, Visitor& v) {
  v(hello.magic), v(hello.version);
  if (hello.magic == protocolMagic && hello.version == protocolVersion)
    v(hello.name), v(hello.instance), v(hello.modules);
}

}  // namespace

const char* frameName(U8 kind) {
  const auto index = static_cast<std::size_t>(kind) - static_cast<U8>(FrameKind::hello);
  return index < std::size(frameNames) ? frameNames[index] : nullptr;
}

template <class Message>
void encode(Out& out, const Message& message) {
  const std::size_t begin = out.size();
  out.writeU32(0);
  out.writeU8(static_cast<U8>(Message::kind));
  Writer writer{out};
  if constexpr (std::same_as<Message, Frame::Hello>)
    visitHello(message, writer);
  else
    visitFields(message, writer);
  out.patchU32(begin, static_cast<U32>(out.size() - begin - lengthSize));
}

template <class Message>
Message decode(std::span<const U8> frame) {
  const char* const name = frameName(static_cast<U8>(Message::kind));
  In in(frame.data(), frame.size());
  Message message;
  try {
    if (const U8 kind = in.nextU8(); kind != static_cast<U8>(Message::kind))
      throw ProtocolException(
          Kop::stringPrintf("kind %u, not %u", kind, static_cast<U8>(Message::kind)));
    Reader reader{in};
    if constexpr (std::same_as<Message, Frame::Hello>) {
      visitHello(message, reader);
      if (message.magic != protocolMagic || message.version != protocolVersion)
        return message;
    } else {
      visitFields(message, reader);
    }
    if (!in.atEnd())
      throw ProtocolException(Kop::stringPrintf("%zu bytes left over", in.remaining()));
  } catch (const ProtocolException& e) {
    throw ProtocolException(Kop::stringPrintf("bad %s frame: %s", name, e.what()));
  } catch (const Kop::LogCorruptException& e) {
    throw ProtocolException(Kop::stringPrintf("bad %s frame: %s", name, e.what()));
  }
  return message;
}

#define HIVEL_MESSAGE(Message)                       \
  template void encode(Out&, const Frame::Message&); \
  template Frame::Message decode(std::span<const U8>)
HIVEL_MESSAGE(Hello);
HIVEL_MESSAGE(Mount);
HIVEL_MESSAGE(Mounted);
HIVEL_MESSAGE(Refused);
HIVEL_MESSAGE(Waiting);
HIVEL_MESSAGE(Adopted);
HIVEL_MESSAGE(PathState);
HIVEL_MESSAGE(Unmount);
HIVEL_MESSAGE(Unmounted);
HIVEL_MESSAGE(Gone);
HIVEL_MESSAGE(List);
HIVEL_MESSAGE(ListEntry);
HIVEL_MESSAGE(ListEnd);
HIVEL_MESSAGE(Unwatch);
HIVEL_MESSAGE(Sync);
HIVEL_MESSAGE(Synced);
HIVEL_MESSAGE(Status);
HIVEL_MESSAGE(StatusIs);
HIVEL_MESSAGE(Error);
#undef HIVEL_MESSAGE

Frame::Hello helloOf(std::string name, U64 instance) {
  Frame::Hello hello;
  hello.name = std::move(name);
  hello.instance = instance;
  for (const auto* module : Kop::modules())
    hello.modules.push_back({std::string(module->name), module->digest});
  return hello;
}

void checkHello(const Frame::Hello& ours, const Frame::Hello& theirs) {
  if (theirs.magic != ours.magic)
    throw ProtocolException(Kop::stringPrintf(
        "not a peer of this protocol: magic %08x, not %08x", theirs.magic, ours.magic));
  if (theirs.version != ours.version)
    throw ProtocolException(Kop::stringPrintf(
        "protocol version %u on the other side, %u here", theirs.version, ours.version));
  for (const auto& mine : ours.modules)
    for (const auto& other : theirs.modules)
      if (mine.name == other.name && mine.digest != other.digest)
        throw ProtocolException(Kop::stringPrintf(
            "module %s: digest %016llx on the other side, %016llx here",
            mine.name.c_str(), static_cast<unsigned long long>(other.digest),
            static_cast<unsigned long long>(mine.digest)));
}

void FrameReader::feed(std::span<const U8> bytes) {
  if (bytes.empty()) return;
  std::memcpy(room(bytes.size()).data(), bytes.data(), bytes.size());
  arrived(bytes.size());
}

std::span<U8> FrameReader::room(std::size_t size) {
  if (head_ == tail_) {
    head_ = tail_ = 0;
    if (capacity_ > pieceKept && size <= pieceKept) {
      bytes_.reset();
      capacity_ = 0;
    }
  }
  if (capacity_ - tail_ < size) {
    const std::size_t left = tail_ - head_;
    if (capacity_ - left >= size && head_ >= left) {
      std::memcpy(bytes_.get(), bytes_.get() + head_, left);
    } else {
      const std::size_t capacity = std::max(left + size, 2 * left);
      std::unique_ptr<U8[]> bytes(new U8[capacity]);
      if (left > 0) std::memcpy(bytes.get(), bytes_.get() + head_, left);
      bytes_ = std::move(bytes);
      capacity_ = capacity;
    }
    head_ = 0;
    tail_ = left;
  }
  return {bytes_.get() + tail_, size};
}

std::optional<std::span<const U8>> FrameReader::next() {
  if (buffered() < lengthSize) return std::nullopt;
  const U32 size = In(bytes_.get() + head_, lengthSize).nextU32();
  if (size == 0 || size > maxFrameSize_)
    throw ProtocolException(Kop::stringPrintf(
        "frame of %u bytes, from 1 to %zu are allowed", size, maxFrameSize_));
  if (buffered() - lengthSize < size) return std::nullopt;
  const std::span<const U8> frame(bytes_.get() + head_ + lengthSize, size);
  head_ += lengthSize + size;
  return frame;
}

std::string printable(std::string_view bytes, std::size_t limit) {
  std::string line(bytes.substr(0, limit));
  for (char& c : line)
    if (c < ' ' || c > '~') c = '?';
  return line;
}

}  // namespace Hivel
