#pragma once

#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "Kop/Exception.h"
#include "Kop/Types.h"

namespace Fpm {

// Bytes of a stream that are not what they must be. Names the place in the stream, the
// field, what was found there and the limit.
class MalformedException : public Kop::Exception {
 public:
  MalformedException(U64 offset,
                     std::string_view field,
                     std::string_view found,
                     std::string_view expected);
  U64 offset() const { return offset_; }  // bytes from the beginning of the stream

 private:
  U64 offset_;
};

// A run of bytes that knows where in the stream it stands.
struct Run {
  std::span<const U8> bytes;
  U64 offset = 0;  // of bytes[0]

  U32 size() const { return static_cast<U32>(bytes.size()); }
  // `at` and `size` lie inside.
  Run part(U32 at, U32 size) const { return {bytes.subspan(at, size), offset + at}; }
  Run behind(U32 at) const { return {bytes.subspan(at), offset + at}; }
};

// Cuts a stream into the frames in which a forwarding-plane manager sends messages. Does no
// I/O: the caller brings bytes in pieces of any size.
//
//     0         1        2           4                length
//     | version | type   | length    | messages ...   |
//     | 1       | 1      | big-endian, with this head |
//
// Type 1 says that the messages are netlink's; no other is taken.
//
//   for (const auto room = frames.room(); ...) {
//     frames.arrived(read(fd, room.data(), room.size()));
//     while (const auto frame = frames.next()) ...
//   }
//
// Memory   a fixed buffer of two frames of the greatest length.
class FrameReader {
 public:
  static constexpr U32 headSize = 4;
  static constexpr U32 minLength = headSize + 16;  // one message without a body
  static constexpr U32 maxLength = 0xffff;

  FrameReader() : buffer_(2 * std::size_t{maxLength}) {}

  // Where the next bytes go; never empty once next() gave nothing. Ends the last frame.
  std::span<U8> room();
  void arrived(std::size_t size);  // of room()
  // What next() has not given yet stands in front of these. All of them fit once next() gave
  // nothing and they are no more than maxLength.
  void feed(std::span<const U8> bytes);

  // The messages of the next whole frame, valid until room() or feed(); none when more bytes
  // are needed. After an exception the stream cannot go on.
  std::optional<Run> next();  // Errors   MalformedException

  U64 offset() const { return offset_; }  // of the first byte that is in no frame yet
  std::size_t waiting() const { return end_ - begin_; }  // bytes behind offset()

 private:
  std::vector<U8> buffer_;
  std::size_t begin_ = 0, end_ = 0;
  U64 offset_ = 0;
};

}  // namespace Fpm
