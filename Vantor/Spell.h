#pragma once

#include <string_view>

#include "Kop/Text.h"

// What the texts of this library's values have in common. Not installed.

namespace Vantor {

template <class E>
[[noreturn]] void throwUnreadable(const char* what, std::string_view found) {
  Kop::TextOut text;
  text.append(what);
  text.append(": ");
  Kop::strepWriteQuoted(text, found);
  throw E(text.string());
}

// Splits the typed form of a value whose bare form has neither quotes nor escapes: returns
// what is between the quotes at `it`, and in `behind` the place behind them.
inline std::string_view quotedAt(const Kop::TextIt& it,
                                 const Kop::TextIt& end,
                                 const char* what,
                                 Kop::TextIt& behind) {
  behind = it;
  Kop::needString(behind, end, "'");
  const std::string_view rest(behind.at(), static_cast<std::size_t>(end - behind));
  const std::size_t size = rest.find('\'');
  if (size == rest.npos) throwUnreadable<Kop::Exception>(what, rest);
  behind += static_cast<std::ptrdiff_t>(size) + 1;
  return rest.substr(0, size);
}

// Takes a decimal number without leading zeros, at most `max`, from the front of a text.
inline bool decimalTake(std::string_view& rest, U32 max, U32& value) {
  std::size_t size = 0;
  U64 number = 0;
  while (size < rest.size() && rest[size] >= '0' && rest[size] <= '9' && number <= max)
    number = number * 10 + static_cast<U64>(rest[size++] - '0');
  if (size == 0 || number > max || (size > 1 && rest[0] == '0')) return false;
  value = static_cast<U32>(number);
  rest.remove_prefix(size);
  return true;
}

// Of a hex digit in either case, else -1.
inline int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

inline bool literalTake(std::string_view& rest, std::string_view literal) {
  if (!rest.starts_with(literal)) return false;
  rest.remove_prefix(literal.size());
  return true;
}

template <class T>
void quotedWrite(Kop::TextOut& out, const T& value) {
  out.append('\'');
  value.bareWrite(out);
  out.append('\'');
}
template <class T>
Kop::String bareString(const T& value) {
  Kop::TextOut out;
  value.bareWrite(out);
  return out.string();
}
template <class T>
std::ostream& bareToStream(std::ostream& stream, const T& value) {
  Kop::TextOut out;
  value.bareWrite(out);
  return Kop::writeText(stream, out.view());
}

}  // namespace Vantor
