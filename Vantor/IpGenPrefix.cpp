#include "Vantor/IpGenPrefix.h"

#include "Vantor/IpText.h"
#include "Vantor/Spell.h"

namespace Vantor {

namespace {

IpGenPrefix prefixOf(std::string_view text) {
  if (text.empty()) return IpGenPrefix();
  const std::size_t slash = text.find('/');
  if (slash == text.npos || slash == 0)
    throwUnreadable<Kop::Exception>("not an IP prefix", text);
  const IpGenAddr addr = addrOf(text.substr(0, slash));
  std::string_view rest = text.substr(slash + 1);
  if (rest.empty() || rest.find_first_not_of("0123456789") != rest.npos ||
      (rest.size() > 1 && rest[0] == '0'))
    throwUnreadable<Kop::Exception>("not an IP prefix", text);
  U32 len;
  if (!decimalTake(rest, addr.bitCount(), len))
    throwUnreadable<Kop::RangeException>("an IP prefix that is too long", text);
  return IpGenPrefix(addr, len);
}

}  // namespace

IpGenPrefix::IpGenPrefix(const IpGenAddr& addr, U32 len) : addr_(addr), len_(len) {
  if (len > addr.bitCount())
    throw Kop::RangeException(Kop::stringPrintf(
        "a prefix of %u bits of an address of %u bits", len, addr.bitCount()));
}

IpGenPrefix::IpGenPrefix(const Kop::String& bare) : IpGenPrefix(prefixOf(bare)) {}

IpGenPrefix::IpGenPrefix(Kop::TextIt& it, const Kop::TextIt& end) {
  Kop::TextIt behind;
  *this = prefixOf(quotedAt(it, end, "not an IP prefix", behind));
  it = behind;
}

IpGenPrefix::IpGenPrefix(Kop::NboAttrLog::In& in) : addr_(in), len_(in.nextU8()) {
  if (len_ > addr_.bitCount())
    throw Kop::LogCorruptException(Kop::stringPrintf(
        "a prefix of %u bits of an address of %u bits", len_, addr_.bitCount()));
}

void IpGenPrefix::bareWrite(Kop::TextOut& out) const {
  if (*this == IpGenPrefix()) return;
  addr_.bareWrite(out);
  out.append('/');
  out.number(len_);
}

Kop::String IpGenPrefix::stringValue() const {
  return bareString(*this);
}
void strepWrite(Kop::TextOut& out, const IpGenPrefix& prefix) {
  quotedWrite(out, prefix);
}
std::ostream& operator<<(std::ostream& out, const IpGenPrefix& prefix) {
  return bareToStream(out, prefix);
}

}  // namespace Vantor
