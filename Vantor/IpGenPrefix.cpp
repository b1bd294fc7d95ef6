#include "Vantor/IpGenPrefix.h"

#include <algorithm>

#include "Vantor/IpText.h"
#include "Vantor/Spell.h"

namespace Vantor {

namespace {

IpGenPrefix prefixOf(std::string_view text) {
  if (text.empty()) return IpGenPrefix();
  const std::size_t slash = text.find('/');
  IpGenAddr addr;
  const Spelling spelling = slash == text.npos || slash == 0
                                ? Spelling::malformed
                                : addrRead(text.substr(0, slash), addr);
  std::string_view rest = text.substr(std::min(slash, text.size() - 1) + 1);
  if (spelling == Spelling::malformed || rest.empty() ||
      rest.find_first_not_of("0123456789") != rest.npos ||
      (rest.size() > 1 && rest[0] == '0'))
    throwUnreadable<Kop::Exception>("not an IP prefix", text);
  if (spelling == Spelling::outOfRange)
    throwUnreadable<Kop::RangeException>("a part above 255 in an IP prefix", text);
  U32 len;
  if (!decimalTake(rest, addr.bitCount(), len))
    throwUnreadable<Kop::RangeException>("more bits than the address has", text);
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
