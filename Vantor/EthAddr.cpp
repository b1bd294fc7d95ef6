#include "Vantor/EthAddr.h"

#include "Vantor/Spell.h"

namespace Vantor {

namespace {

EthAddr ethAddrOf(std::string_view text) {
  constexpr std::size_t size = EthAddr::byteCount * 3 - 1;
  U8 bytes[EthAddr::byteCount];
  bool isGood = text.size() == size;
  for (std::size_t i = 0; isGood && i < EthAddr::byteCount; ++i) {
    const int high = hexValue(text[3 * i]), low = hexValue(text[3 * i + 1]);
    isGood =
        high >= 0 && low >= 0 && (i + 1 == EthAddr::byteCount || text[3 * i + 2] == ':');
    bytes[i] = static_cast<U8>(high << 4 | low);
  }
  if (!isGood) throwUnreadable<Kop::Exception>("not an Ethernet address", text);
  return EthAddr::fromBytes(bytes);
}

}  // namespace

EthAddr::EthAddr(const Kop::String& bare) : EthAddr(ethAddrOf(bare)) {}

EthAddr::EthAddr(Kop::TextIt& it, const Kop::TextIt& end) {
  Kop::TextIt behind;
  *this = ethAddrOf(quotedAt(it, end, "not an Ethernet address", behind));
  it = behind;
}

void EthAddr::bareWrite(Kop::TextOut& out) const {
  constexpr char digits[] = "0123456789abcdef";
  for (U32 i = 0; i < byteCount; ++i) {
    if (i > 0) out.append(':');
    out.append(digits[bytes_[i] >> 4]);
    out.append(digits[bytes_[i] & 15]);
  }
}

Kop::String EthAddr::stringValue() const {
  return bareString(*this);
}
void strepWrite(Kop::TextOut& out, const EthAddr& addr) {
  quotedWrite(out, addr);
}
std::ostream& operator<<(std::ostream& out, const EthAddr& addr) {
  return bareToStream(out, addr);
}

}  // namespace Vantor
