#include <algorithm>
#include <vector>

#include "Check.h"
#include "Hivel/Exception.h"
#include "Hivel/Protocol.h"

// A run of bytes cut into frames. The first byte says in what pieces it arrives; the frames
// are those of the run that arrives at once, up to the same error.

using Hivel::FrameReader;

namespace {

constexpr std::size_t maxFrameSize = 1000;

struct Cut {
  std::vector<std::vector<U8>> frames;
  bool failed = false;
  bool operator==(const Cut&) const = default;
};

Cut cut(std::span<const U8> bytes, std::size_t piece, bool intoRoom) {
  FrameReader reader(maxFrameSize);
  Cut result;
  try {
    while (!bytes.empty()) {
      const auto now = bytes.first(std::min(piece, bytes.size()));
      bytes = bytes.subspan(now.size());
      if (intoRoom) {
        const auto room = reader.room(now.size());
        FUZZ_CHECK(room.size() >= now.size());
        std::copy(now.begin(), now.end(), room.begin());
        reader.arrived(now.size());
      } else {
        reader.feed(now);
      }
      while (const auto frame = reader.next()) {
        FUZZ_CHECK(!frame->empty() && frame->size() <= maxFrameSize);
        result.frames.emplace_back(frame->begin(), frame->end());
      }
    }
  } catch (const Hivel::ProtocolException&) {
    result.failed = true;
  }
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t piece = 1 + bytes[0] % 64;
  const std::span<const U8> run(bytes + 1, size - 1);
  const Cut whole = cut(run, std::max<std::size_t>(1, run.size()), false);
  FUZZ_CHECK(cut(run, piece, false) == whole);
  FUZZ_CHECK(cut(run, piece, true) == whole);
  return 0;
}
