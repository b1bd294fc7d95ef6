#include "Vantor/IpGenAddr.h"

#include "Vantor/IpText.h"
#include "Vantor/Spell.h"

namespace Vantor {

IpGenAddr::IpGenAddr(const Kop::String& bare) : IpGenAddr(addrOf(bare)) {}

IpGenAddr::IpGenAddr(Kop::TextIt& it, const Kop::TextIt& end) {
  Kop::TextIt behind;
  *this = addrOf(quotedAt(it, end, "not an IP address", behind));
  it = behind;
}

IpGenAddr::IpGenAddr(Kop::NboAttrLog::In& in) {
  const U32 family = in.nextU32();
  if (family > ipv6)
    throw Kop::LogCorruptException(
        Kop::stringPrintf("an IP address of unknown family %u", family));
  in.nextBytes(bytes_, byteCount);
  af_ = static_cast<AddressFamily>(family);
  std::memset(bytes_ + bitCount() / 8, 0, byteCount - bitCount() / 8);
}

Kop::String IpGenAddr::stringValue() const {
  return bareString(*this);
}
void strepWrite(Kop::TextOut& out, const IpGenAddr& addr) {
  quotedWrite(out, addr);
}
std::ostream& operator<<(std::ostream& out, const IpGenAddr& addr) {
  return bareToStream(out, addr);
}

}  // namespace Vantor
