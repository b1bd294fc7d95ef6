#pragma once

#include "Kop/NboAttrLogSa.h"
#include "tests/Support/Testing.h"

// Two ends of a connection, and the bytes under way between them.

namespace Sample {

using Bytes = std::vector<U8>;
using Kop::EntitySa;
using Kop::NboAttrLog::Session;
using Kop::NboAttrLog::Stream;

inline U32 wordAt(const Bytes& bytes, std::size_t at) {
  return U32{bytes[at]} << 24 | U32{bytes[at + 1]} << 16 | U32{bytes[at + 2]} << 8 |
         bytes[at + 3];
}
inline Bytes bytesOf(const Kop::NboAttrLog::Out& out) {
  return Bytes(out.data(), out.data() + out.size());
}
// The frames of a run of bytes, without their length words.
inline std::vector<Bytes> framesOf(const Bytes& bytes) {
  std::vector<Bytes> frames;
  for (std::size_t at = 0; at < bytes.size(); at += 4 + wordAt(bytes, at))
    frames.emplace_back(bytes.begin() + static_cast<long>(at) + 4,
                        bytes.begin() + static_cast<long>(at + 4 + wordAt(bytes, at)));
  return frames;
}
// The frames that wait in a stream, which are taken out.
inline std::vector<Bytes> taken(Stream& stream) {
  const Bytes bytes = bytesOf(stream.out());
  stream.out().consume(bytes.size());
  return framesOf(bytes);
}

// The adapter of a writer, which is the entity's first observer.
inline EntitySa& adapterOf(Kop::Entity& entity) {
  return dynamic_cast<EntitySa&>(*entity.notifieeList().notifiee());
}

// The receiving end: bytes in pieces of any size, whole frames out.
class Reader {
 public:
  Reader(const Kop::Ptr<Kop::Entity>& to, U64 rootIdentity)
      : session(stream, to, Session::reads, rootIdentity) {}
  // True when at least one frame was applied.
  bool arrived(const U8* bytes, std::size_t size) {
    pending_.insert(pending_.end(), bytes, bytes + size);
    bool applied = false;
    while (pending_.size() >= 4 && pending_.size() >= 4 + wordAt(pending_, 0)) {
      const std::size_t end = 4 + wordAt(pending_, 0);
      const Bytes frame(pending_.begin() + 4, pending_.begin() + static_cast<long>(end));
      pending_.erase(pending_.begin(), pending_.begin() + static_cast<long>(end));
      stream.received(frame);
      applied = true;
    }
    return applied;
  }
  Stream stream;
  Session session;

 private:
  Bytes pending_;
};

class Link {
 public:
  Link(const Kop::Ptr<Kop::Entity>& from,
       const Kop::Ptr<Kop::Entity>& to,
       std::size_t highWater = Stream::defaultHighWater)
      : stream(highWater),
        writer(stream, from, Session::writes),
        reader(to, from->identity()) {}
  bool carry(std::size_t most) {
    const std::size_t size = std::min(most, stream.out().size());
    const Bytes bytes(stream.out().data(), stream.out().data() + size);
    stream.out().consume(size);
    return reader.arrived(bytes.data(), size);
  }
  void drain() {
    do
      carry(stream.out().size());
    while (!writer.process() || !stream.out().empty());
  }
  Stream stream;
  Session writer;
  Reader reader;
};

}  // namespace Sample
