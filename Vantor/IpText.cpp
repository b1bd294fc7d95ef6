#include "Vantor/IpText.h"

#include "Vantor/Spell.h"

namespace Vantor {

namespace {

constexpr U32 groupCount = 8;

// A part above 255 is only reported when the rest has the form of a quad.
Spelling quadRead(std::string_view text, U8* bytes) {
  bool outOfRange = false;
  for (int i = 0; i < 4; ++i) {
    if (i > 0 && !literalTake(text, ".")) return Spelling::malformed;
    std::size_t size = 0;
    U32 part = 0;
    for (; size < text.size() && text[size] >= '0' && text[size] <= '9'; ++size)
      part = part > 255 ? part : part * 10 + static_cast<U32>(text[size] - '0');
    if (size == 0 || (size > 1 && text[0] == '0')) return Spelling::malformed;
    outOfRange = outOfRange || part > 255;
    bytes[i] = static_cast<U8>(part);
    text.remove_prefix(size);
  }
  if (!text.empty()) return Spelling::malformed;
  return outOfRange ? Spelling::outOfRange : Spelling::good;
}

// Takes the hex digits at the front, any number of them.
std::size_t hexTake(std::string_view& text, U32& value) {
  std::size_t size = 0;
  value = 0;
  for (; size < text.size() && hexValue(text[size]) >= 0; ++size)
    value = value << 4 | static_cast<U32>(hexValue(text[size]));
  text.remove_prefix(size);
  return size;
}

// Groups are written to the front; those behind the gap move to the end afterwards.
Spelling ipv6Read(std::string_view text, U8 (&bytes)[IpGenAddr::byteCount]) {
  constexpr U32 noGap = groupCount + 1;
  U32 count = 0, gap = noGap;
  if (literalTake(text, "::"))
    gap = 0;
  else if (text.starts_with(':'))
    return Spelling::malformed;

  while (!text.empty()) {
    std::string_view behind = text;
    U32 group;
    const std::size_t digits = hexTake(behind, group);
    if (behind.starts_with('.')) {
      if (count > groupCount - 2) return Spelling::malformed;
      const Spelling quad = quadRead(text, bytes + 2 * count);
      if (quad != Spelling::good) return quad;
      count += 2;
      break;
    }
    if (digits == 0 || digits > 4 || count == groupCount) return Spelling::malformed;
    bytes[2 * count] = static_cast<U8>(group >> 8);
    bytes[2 * count + 1] = static_cast<U8>(group);
    ++count;
    text = behind;
    if (literalTake(text, "::")) {
      if (gap != noGap) return Spelling::malformed;
      gap = count;
    } else if (!text.empty() && (!literalTake(text, ":") || text.empty())) {
      return Spelling::malformed;
    }
  }
  if (gap == noGap) return count == groupCount ? Spelling::good : Spelling::malformed;
  if (count == groupCount) return Spelling::malformed;
  const U32 moved = 2 * (count - gap);
  std::memmove(bytes + IpGenAddr::byteCount - moved, bytes + 2 * gap, moved);
  std::memset(bytes + 2 * gap, 0, IpGenAddr::byteCount - 2 * count);
  return Spelling::good;
}

void quadWrite(Kop::TextOut& out, const U8* bytes) {
  for (int i = 0; i < 4; ++i) {
    if (i > 0) out.append('.');
    out.number(bytes[i]);
  }
}

void groupWrite(Kop::TextOut& out, U32 group) {
  int shift = 12;
  while (shift > 0 && group >> shift == 0)
    shift -= 4;
  for (; shift >= 0; shift -= 4)
    out.append("0123456789abcdef"[group >> shift & 15]);
}

void ipv6Write(Kop::TextOut& out, const U8* bytes) {
  constexpr U8 mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  if (std::memcmp(bytes, mapped, sizeof mapped) == 0) {
    out.append("::ffff:");
    return quadWrite(out, bytes + sizeof mapped);
  }
  U32 groups[groupCount];
  for (U32 i = 0; i < groupCount; ++i)
    groups[i] = U32{bytes[2 * i]} << 8 | bytes[2 * i + 1];

  U32 gap = groupCount, gapSize = 1;  // a single zero group is never left out
  for (U32 i = 0; i < groupCount;) {
    U32 end = i;
    while (end < groupCount && groups[end] == 0)
      ++end;
    if (end - i > gapSize) gap = i, gapSize = end - i;
    i = end + 1;
  }
  for (U32 i = 0; i < groupCount;) {
    if (i == gap) {
      out.append("::");
      i += gapSize;
      continue;
    }
    if (i > 0 && i != gap + gapSize) out.append(':');
    groupWrite(out, groups[i++]);
  }
}

}  // namespace

Spelling addrRead(std::string_view text, IpGenAddr& addr) {
  U8 bytes[IpGenAddr::byteCount];
  if (text.empty()) {
    addr = IpGenAddr();
    return Spelling::good;
  }
  const bool isIpv6 = text.find(':') != text.npos;
  const Spelling spelling = isIpv6 ? ipv6Read(text, bytes) : quadRead(text, bytes);
  if (spelling != Spelling::good) return spelling;
  addr = isIpv6 ? IpGenAddr::fromIpv6(bytes)
                : IpGenAddr::fromIpv4(U32{bytes[0]} << 24 | U32{bytes[1]} << 16 |
                                      U32{bytes[2]} << 8 | bytes[3]);
  return spelling;
}

IpGenAddr addrOf(std::string_view text) {
  IpGenAddr addr;
  switch (addrRead(text, addr)) {
    case Spelling::good: break;
    case Spelling::malformed: throwUnreadable<Kop::Exception>("not an IP address", text);
    case Spelling::outOfRange:
      throwUnreadable<Kop::RangeException>("a part above 255 in an IP address", text);
  }
  return addr;
}

void IpGenAddr::bareWrite(Kop::TextOut& out) const {
  switch (af_) {
    case noAddressFamily: return;
    case ipv4: return quadWrite(out, bytes_);
    case ipv6: return ipv6Write(out, bytes_);
  }
  // Only an image that was copied from elsewhere has another family.
  out.append("family");
  out.number(af_);
}

}  // namespace Vantor
