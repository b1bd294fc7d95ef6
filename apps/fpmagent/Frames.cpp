#include "apps/fpmagent/Frames.h"

#include <cstring>
#include <string>

namespace Fpm {
namespace {

constexpr U8 version = 1, netlink = 1;

}  // namespace

MalformedException::MalformedException(U64 offset,
                                       std::string_view field,
                                       std::string_view found,
                                       std::string_view expected)
    : Kop::Exception([&] {
        std::string text = "offset " + std::to_string(offset) + ": ";
        text.append(field).append(": found ").append(found);
        return text.append(", expected ").append(expected);
      }()),
      offset_(offset) {}

std::span<U8> FrameReader::room() {
  std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
  end_ -= begin_;
  begin_ = 0;
  return std::span(buffer_).subspan(end_);
}

void FrameReader::arrived(std::size_t size) {
  end_ += size;
}

void FrameReader::feed(std::span<const U8> bytes) {
  const std::span<U8> to = room();
  if (bytes.size() > to.size())
    throw Kop::RangeException("more bytes at once than a frame can have");
  if (!bytes.empty()) std::memcpy(to.data(), bytes.data(), bytes.size());
  arrived(bytes.size());
}

std::optional<Run> FrameReader::next() {
  if (end_ - begin_ < headSize) return {};
  const U8* const head = buffer_.data() + begin_;
  if (head[0] != version)
    throw MalformedException(offset_, "frame version", std::to_string(head[0]), "1");
  if (head[1] != netlink)
    throw MalformedException(offset_ + 1, "frame type", std::to_string(head[1]),
                             "1 (netlink)");
  const U32 length = U32{head[2]} << 8 | head[3];
  if (length < minLength)
    throw MalformedException(offset_ + 2, "frame length", std::to_string(length),
                             "at least " + std::to_string(minLength));
  if (end_ - begin_ < length) return {};
  const Run frame{
      {head + headSize, length - headSize},
      offset_ + headSize
  };
  begin_ += length;
  offset_ += length;
  return frame;
}

}  // namespace Fpm
