#pragma once

#include <charconv>
#include <concepts>
#include <cstring>
#include <iosfwd>
#include <string_view>

#include "Kop/Exception.h"
#include "Kop/String.h"
#include "Kop/Types.h"

// Text of values and back.
//
// The machine form of a record reads as a literal of a scripting language:
//   Value('Tunnel::TunnelTable::HwTunnelKey', ** {'index': 5, 'chipId': 1})
// so every form below ends unambiguously before ", '" and "})":
//   U8..U64     decimal, no sign, no leading zeros
//   bool        True, False
//   float       shortest digits that read back, with ".0" when there is neither point,
//               exponent nor word: 0.0, 0.1, 1e+09, inf, -inf, nan
//   String      in single quotes; \\ \' \n \r \t, \xHH for other bytes below 0x20 and 0x7f
//   enumeration the bare name, or the number when there is no such enumerator
// A nested value stands as it is, at every depth, and is never escaped again, because each
// level is read by that type's own reader.

namespace Kop {

using TextIt = String::IteratorConst;

// The types the runtime itself can write. Exact types only: an enumeration or a literal
// must never slip in by conversion.
template <class T>
concept BuiltIn = std::same_as<T, bool> || std::same_as<T, U8> || std::same_as<T, U16> ||
    std::same_as<T, U32> || std::same_as<T, U64> || std::same_as<T, float> ||
    std::same_as<T, String>;

// Where text is written: a buffer that grows and first stands in the object itself, so that
// a text of ordinary length costs no allocation until it becomes a String.
class KOP_EXPORT TextOut {
 public:
  TextOut() : begin_(inline_), at_(inline_), end_(inline_ + sizeof inline_) {}
  ~TextOut() {
    if (begin_ != inline_) delete[] begin_;
  }
  TextOut(const TextOut&) = delete;
  TextOut& operator=(const TextOut&) = delete;

  void append(const char* bytes, std::size_t size) {
    if (static_cast<std::size_t>(end_ - at_) < size) grow(size);
    std::memcpy(at_, bytes, size);
    at_ += size;
  }
  void append(std::string_view text) { append(text.data(), text.size()); }
  // Of a text that stands in memory of padded(size) bytes: copied in pieces that need no
  // call, the last one with what is behind the text.
  static constexpr std::size_t piece = 16;
  static constexpr std::size_t padded(std::size_t size) {
    return (size + piece - 1) / piece * piece;
  }
  void appendPadded(std::string_view text) {
    if (static_cast<std::size_t>(end_ - at_) < padded(text.size()))
      grow(padded(text.size()));
    for (std::size_t i = 0; i < text.size(); i += piece)
      std::memcpy(at_ + i, text.data() + i, piece);
    at_ += text.size();
  }
  void append(char c) {
    if (at_ == end_) grow(1);
    *at_++ = c;
  }
  void number(U64 value) {
    if (end_ - at_ < 20) grow(20);
    if (value < 10)
      *at_++ = static_cast<char>('0' + value);
    else
      at_ = std::to_chars(at_, end_, value).ptr;
  }
  std::string_view view() const { return {begin_, size()}; }
  std::size_t size() const { return static_cast<std::size_t>(at_ - begin_); }
  String string() const { return String(begin_, size()); }
  void clear() { at_ = begin_; }

 private:
  void grow(std::size_t size);
  char* begin_;
  char* at_;
  char* end_;
  char inline_[232];
};

// Appends the machine form. A type outside of Kop that is not declared by rows supplies an
// overload in its own namespace.
template <BuiltIn T>
void strepWrite(TextOut& out, const T& value) {
  out.number(value);
}
template <>
KOP_EXPORT void strepWrite(TextOut& out, const bool& value);
template <>
KOP_EXPORT void strepWrite(TextOut& out, const float& value);
template <>
KOP_EXPORT void strepWrite(TextOut& out, const String& value);

// The quoted form of a String, for text that is not one.
KOP_EXPORT void strepWriteQuoted(TextOut& out, std::string_view bytes);

// Any type that can be written, as a String of its own.
template <class T>
String strepOf(const T& value) {
  TextOut out;
  strepWrite(out, value);
  return out.string();
}
template <BuiltIn T>
String valueToStrep(const T& value) {
  return strepOf(value);
}

// Reads one built-in at it and advances.
//
// Errors   Exception "cannot read attribute '<name>'"; RangeException "attribute '<name>'
//          out of range" for a number too large for the width. `it` then stays.
template <BuiltIn T>
T readAttr(TextIt& it, const TextIt& end, const char* attributeName);
template <>
KOP_EXPORT bool readAttr(TextIt& it, const TextIt& end, const char* attributeName);
template <>
KOP_EXPORT U8 readAttr(TextIt& it, const TextIt& end, const char* attributeName);
template <>
KOP_EXPORT U16 readAttr(TextIt& it, const TextIt& end, const char* attributeName);
template <>
KOP_EXPORT U32 readAttr(TextIt& it, const TextIt& end, const char* attributeName);
template <>
KOP_EXPORT U64 readAttr(TextIt& it, const TextIt& end, const char* attributeName);
template <>
KOP_EXPORT float readAttr(TextIt& it, const TextIt& end, const char* attributeName);
template <>
KOP_EXPORT String readAttr(TextIt& it, const TextIt& end, const char* attributeName);

// Requires the text to go on with the literal and steps over it.
// Errors   Exception: expected "<literal>"
[[noreturn]] KOP_EXPORT void throwExpected(std::string_view literal);
inline void needString(TextIt& it, const TextIt& end, std::string_view literal) {
  const auto size = static_cast<std::ptrdiff_t>(literal.size());
  if (end - it < size || std::memcmp(it.at(), literal.data(), literal.size()) != 0)
    throwExpected(literal);
  it += size;
}

// Errors   Exception: unexpected text after the value: <rest>
KOP_EXPORT void needEndOfText(const TextIt& it, const TextIt& end);

// Raises a RangeException that names the attribute before the old message; nested records
// stack: "decapIntfKey: addressFamily: ...".
[[noreturn]] KOP_EXPORT void rethrowFromDeserializeAttr(const RangeException& error,
                                                        const char* attributeName);

// The longest run of letters, digits and '_' at it; steps over it.
KOP_EXPORT std::string_view readWord(TextIt& it, const TextIt& end);

// A value from a whole text: its string constructor, then the end of the text. The second
// argument only names the type.
template <class T>
T strepToValue(const String& text, T* = nullptr) {
  TextIt it = text.begin();
  const TextIt end = text.end();
  if constexpr (BuiltIn<T>) {
    const T value = readAttr<T>(it, end, "value");
    needEndOfText(it, end);
    return value;
  } else if constexpr (std::is_enum_v<T>) {
    T value{};
    sequenceToValue(it, end, &value);
    needEndOfText(it, end);
    return value;
  } else {
    T value(it, end);
    needEndOfText(it, end);
    return value;
  }
}

KOP_EXPORT std::ostream& writeText(std::ostream& out, std::string_view text);

}  // namespace Kop

// A namespace without types: g++ leaves out of a name what it shares with the function's own
// scope, so that "Kop::String" would be "String" in a function of Kop.
namespace KopSpelling {
template <class T>
consteval std::string_view nameOf() {
  constexpr std::string_view all = __PRETTY_FUNCTION__;
  constexpr auto begin = all.find("T = ") + 4;
  return all.substr(begin, all.find_first_of(";]", begin) - begin);
}
}  // namespace KopSpelling

namespace Kop {

// A type's qualified name, taken from the compiler: both spell a class and an enumeration
// alike, but not the built-in types, pointers and templates.
template <class T>
consteval std::string_view typeName() {
  if constexpr (std::same_as<T, U8>)
    return "U8";
  else if constexpr (std::same_as<T, U16>)
    return "U16";
  else if constexpr (std::same_as<T, U32>)
    return "U32";
  else if constexpr (std::same_as<T, U64>)
    return "U64";
  else if constexpr (std::same_as<T, VoidPtr>)
    return "Kop::VoidPtr";
  else if constexpr (std::same_as<T, VoidPtrConst>)
    return "Kop::VoidPtrConst";
  else
    return KopSpelling::nameOf<T>();
}

}  // namespace Kop
