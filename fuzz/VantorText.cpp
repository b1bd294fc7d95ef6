#include <cstring>
#include <string>

#include <arpa/inet.h>

#include "Check.h"
#include "Kop/Exception.h"
#include "Vantor/EthAddr.h"
#include "Vantor/IntfId.h"
#include "Vantor/IpGenAddr.h"
#include "Vantor/IpGenPrefix.h"

// The texts of addresses, prefixes and interfaces. What can be read is written in one form,
// which reads as the same; addresses are read as the C library reads them.

namespace {

template <class T>
bool bareRead(const Kop::String& text, T& value) {
  try {
    value = T(text);
    return true;
  } catch (const Kop::Exception&) {
    return false;
  }
}

template <class T>
void bare(const Kop::String& text) {
  T value, again;
  if (!bareRead(text, value)) return;
  const Kop::String written = value.stringValue();
  FUZZ_CHECK(bareRead(written, again));
  FUZZ_CHECK(again == value);
  FUZZ_CHECK(again.stringValue() == written);
  FUZZ_CHECK(Kop::strepToValue<T>(valueToStrep(value)) == value);
}

template <class T>
void typed(const Kop::String& text) {
  T value;
  try {
    value = Kop::strepToValue<T>(text);
  } catch (const Kop::Exception&) {
    return;
  }
  FUZZ_CHECK(Kop::strepToValue<T>(valueToStrep(value)) == value);
}

void likeLibrary(const Kop::String& text) {
  if (text.empty() || std::memchr(text.data(), 0, text.size())) return;
  Vantor::IpGenAddr address;
  const bool isRead = bareRead(text, address);
  U8 bytes[16] = {};
  bool known = ::inet_pton(AF_INET6, text.c_str(), bytes) == 1;
  const Vantor::AddressFamily family = known ? Vantor::ipv6 : Vantor::ipv4;
  if (!known) {
    std::memset(bytes, 0, sizeof bytes);
    known = ::inet_pton(AF_INET, text.c_str(), bytes) == 1;
  }
  FUZZ_CHECK(isRead == known);
  if (!known) return;
  FUZZ_CHECK(address.af() == family);
  FUZZ_CHECK(std::memcmp(address.bytes(), bytes, sizeof bytes) == 0);
}

// Every word is an interface with a name of its own.
void word(const std::uint8_t* bytes, std::size_t size) {
  U64 number;
  if (size < sizeof number) return;
  std::memcpy(&number, bytes, sizeof number);
  const auto intf = Vantor::IntfId::fromValue(number);
  FUZZ_CHECK(Vantor::IntfId(intf.stringValue()) == intf);
  FUZZ_CHECK(Kop::strepToValue<Vantor::IntfId>(valueToStrep(intf)) == intf);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const Kop::String text(reinterpret_cast<const char*>(bytes), size);
  bare<Vantor::IpGenAddr>(text);
  bare<Vantor::IpGenPrefix>(text);
  bare<Vantor::IntfId>(text);
  bare<Vantor::EthAddr>(text);
  typed<Vantor::IpGenAddr>(text);
  typed<Vantor::IpGenPrefix>(text);
  typed<Vantor::IntfId>(text);
  typed<Vantor::EthAddr>(text);
  likeLibrary(text);
  word(bytes, size);
  return 0;
}
