#include "Routing/Multicast/MulticastTreeId.h"

#include <cstring>
#include <memory>

#include "Drem/Error.h"
#include "Kop/Exception.h"

namespace Routing::Multicast {

namespace {

U32 needCount(U64 count) {
  if (count > MulticastTreeId::maxByteCount)
    throw Kop::RangeException(
        Kop::stringPrintf("a multicast tree id of %lu bytes, at most %u are possible",
                          count, MulticastTreeId::maxByteCount));
  return static_cast<U32>(count);
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

Kop::String bytesOf(std::string_view hex) {
  const U32 count = needCount(hex.size() / 2);
  const auto bytes = std::make_unique<char[]>(count);
  bool isGood = hex.size() % 2 == 0;
  for (U32 i = 0; isGood && i < count; ++i) {
    const int high = hexValue(hex[2 * i]), low = hexValue(hex[2 * i + 1]);
    isGood = high >= 0 && low >= 0;
    bytes[i] = static_cast<char>(high << 4 | low);
  }
  if (!isGood) {
    Kop::TextOut text;
    text.append("not a multicast tree id: ");
    Kop::strepWriteQuoted(text, hex);
    throw Kop::Exception(text.string());
  }
  return Kop::String(bytes.get(), count);
}

// The size that the form claims, from its first 4 bytes; counts are up to 2^32 - 1.
U64 claimedSize(Kop::VoidPtrConst buffer) {
  U32 count;
  std::memcpy(&count, buffer, sizeof count);
  return U64{4} + count;
}

}  // namespace

MulticastTreeId::MulticastTreeId(Kop::VoidPtrConst bytes, U32 count)
    : bytes_(static_cast<const char*>(bytes), needCount(count)) {}

MulticastTreeId::MulticastTreeId(const Kop::String& hex) : bytes_(bytesOf(hex)) {}

MulticastTreeId::MulticastTreeId(Kop::TextIt& it, const Kop::TextIt& end) {
  Kop::TextIt behind = it;
  Kop::needString(behind, end, "'");
  const Kop::TextIt begin = behind;
  while (behind != end && *behind != '\'')
    ++behind;
  const std::string_view hex(begin.at(), static_cast<std::size_t>(behind - begin));
  Kop::needString(behind, end, "'");
  bytes_ = bytesOf(hex);
  it = behind;
}

MulticastTreeId::MulticastTreeId(Kop::NboAttrLog::In& in) : bytes_(in.nextString()) {
  if (bytes_.size() > maxByteCount)
    throw Kop::LogCorruptException(
        Kop::stringPrintf("a multicast tree id of %u bytes", bytes_.size()));
}

void MulticastTreeId::serialize(Kop::VoidPtr buffer) const {
  if (!buffer) return;
  const U32 count = byteCount();
  std::memcpy(buffer, &count, sizeof count);
  std::memcpy(static_cast<U8*>(buffer) + 4, bytes_.data(), count);
}

U32 MulticastTreeId::deserializeLen(Kop::VoidPtrConst buffer, U32 len) {
  if (len < 4) return 0;
  const U64 size = claimedSize(buffer);
  return size <= len && size - 4 <= maxByteCount ? static_cast<U32>(size) : 0;
}

void MulticastTreeId::deserialize(Kop::VoidPtrConst buffer, U32 len) {
  if (deserializeLen(buffer, len) == 0)
    Drem::fmthrow<Drem::InvalidSizeException>("MulticastTreeId", "deserialize",
                                              "expected size <= {}, instead got {}", len,
                                              len < 4 ? 4 : claimedSize(buffer));
  bytes_ = Kop::String(static_cast<const char*>(buffer) + 4, claimedSize(buffer) - 4);
}

void MulticastTreeId::bareWrite(Kop::TextOut& out) const {
  constexpr char digits[] = "0123456789abcdef";
  for (const U8 byte : bytes()) {
    out.append(digits[byte >> 4]);
    out.append(digits[byte & 15]);
  }
}

Kop::String MulticastTreeId::stringValue() const {
  Kop::TextOut out;
  bareWrite(out);
  return out.string();
}

void strepWrite(Kop::TextOut& out, const MulticastTreeId& tree) {
  out.append('\'');
  tree.bareWrite(out);
  out.append('\'');
}

std::ostream& operator<<(std::ostream& out, const MulticastTreeId& tree) {
  return Kop::writeText(out, tree.stringValue());
}

Kop::NboAttrLog::Out& operator<<(Kop::NboAttrLog::Out& out, const MulticastTreeId& tree) {
  const auto bytes = tree.bytes();
  out.writeString({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  return out;
}

}  // namespace Routing::Multicast
