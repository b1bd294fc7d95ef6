#include <algorithm>

#include "Check.h"
#include "Hivel/Exception.h"
#include "Hivel/Protocol.h"

// One frame without its length word. What is read from it and written again is the same
// bytes, because every message has one form.

using namespace Hivel;

namespace {

template <class Message>
void roundTrip(std::span<const U8> frame) {
  const Message message = decode<Message>(frame);
  if constexpr (std::is_same_v<Message, Frame::Hello>)
    if (message.magic != protocolMagic || message.version != protocolVersion)
      return;  // the rest is not read
  Kop::NboAttrLog::Out out;
  encode(out, message);
  FUZZ_CHECK(out.size() == 4 + frame.size());
  FUZZ_CHECK(std::equal(frame.begin(), frame.end(), out.data() + 4));
}

template <class... Message>
void roundTripOf(std::span<const U8> frame) {
  ((frame[0] == static_cast<U8>(Message::kind) ? roundTrip<Message>(frame) : void()),
   ...);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return 0;
  const std::span<const U8> frame(bytes, size);
  const char* const name = frameName(frame[0]);
  try {
    using namespace Frame;
    roundTripOf<Hello, Mount, Mounted, Refused, Adopted, PathState, Frame::Unmount, Gone,
                List, ListEntry, StatusIs, Error, Waiting, Unmounted, ListEnd, Unwatch,
                Sync, Synced, Frame::Status>(frame);
    if (!name) decode<Hello>(frame);
  } catch (const ProtocolException&) {
    return 0;
  }
  FUZZ_CHECK(name);
  return 0;
}
