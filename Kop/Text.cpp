#include "Kop/Text.h"

#include <cmath>
#include <ostream>

namespace Kop {

namespace {

constexpr char hexDigits[] = "0123456789abcdef";

String message(std::string_view head, std::string_view middle, std::string_view tail) {
  TextOut out;
  out.append(head);
  out.append(middle);
  out.append(tail);
  return out.string();
}

[[noreturn]] void throwUnreadable(const char* attributeName) {
  throw Exception(message("cannot read attribute '", attributeName, "'"));
}
[[noreturn]] void throwTooLarge(const char* attributeName) {
  throw RangeException(message("attribute '", attributeName, "' out of range"));
}

template <class T>
T readNumber(TextIt& it, const TextIt& end, const char* attributeName) {
  T value{};
  const auto [at, error] = std::from_chars(it.at(), end.at(), value);
  if (error == std::errc::result_out_of_range) throwTooLarge(attributeName);
  if (error != std::errc{}) throwUnreadable(attributeName);
  it += at - it.at();
  return value;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

}  // namespace

void TextOut::grow(std::size_t size) {
  const std::size_t used = this->size();
  const std::size_t capacity = (used + size) * 2;
  char* larger = new char[capacity];
  std::memcpy(larger, begin_, used);
  if (begin_ != inline_) delete[] begin_;
  begin_ = larger;
  at_ = larger + used;
  end_ = larger + capacity;
}

template <>
void strepWrite(TextOut& out, const bool& value) {
  out.append(value ? std::string_view("True") : std::string_view("False"));
}

template <>
void strepWrite(TextOut& out, const float& value) {
  if (std::isnan(value)) return out.append("nan");  // one form, whatever its sign bit
  char buffer[32];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
  const std::string_view digits(buffer, static_cast<std::size_t>(end - buffer));
  out.append(digits);
  if (digits.find_first_not_of("-0123456789") == digits.npos) out.append(".0");
}

void strepWriteQuoted(TextOut& out, std::string_view bytes) {
  out.append('\'');
  std::size_t plain = 0;  // start of the run not yet written
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const char c = bytes[i];
    const U8 byte = static_cast<U8>(c);
    if (byte >= 0x20 && byte != 0x7f && c != '\'' && c != '\\') continue;
    out.append(bytes.substr(plain, i - plain));
    plain = i + 1;
    out.append('\\');
    switch (c) {
      case '\n': out.append('n'); break;
      case '\r': out.append('r'); break;
      case '\t': out.append('t'); break;
      case '\'':
      case '\\': out.append(c); break;
      default:
        out.append('x');
        out.append(hexDigits[byte >> 4]);
        out.append(hexDigits[byte & 15]);
    }
  }
  out.append(bytes.substr(plain));
  out.append('\'');
}

template <>
void strepWrite(TextOut& out, const String& value) {
  strepWriteQuoted(out, value);
}

template <>
U8 readAttr(TextIt& it, const TextIt& end, const char* attributeName) {
  return readNumber<U8>(it, end, attributeName);
}
template <>
U16 readAttr(TextIt& it, const TextIt& end, const char* attributeName) {
  return readNumber<U16>(it, end, attributeName);
}
template <>
U32 readAttr(TextIt& it, const TextIt& end, const char* attributeName) {
  return readNumber<U32>(it, end, attributeName);
}
template <>
U64 readAttr(TextIt& it, const TextIt& end, const char* attributeName) {
  return readNumber<U64>(it, end, attributeName);
}

template <>
float readAttr(TextIt& it, const TextIt& end, const char* attributeName) {
  // from_chars would also take "infinity", "NAN" and "nan(...)", which are never printed.
  const std::string_view rest(it.at(), static_cast<std::size_t>(end - it));
  TextIt word = it;
  if (word != end && *word == '-') ++word;
  if (word == end || *word < 'A') return readNumber<float>(it, end, attributeName);
  const std::string_view letters = readWord(word, end);
  if (letters != "inf" && !(letters == "nan" && rest.starts_with('n')))
    throwUnreadable(attributeName);
  return readNumber<float>(it, word, attributeName);
}

template <>
bool readAttr(TextIt& it, const TextIt& end, const char* attributeName) {
  TextIt behind = it;
  const std::string_view word = readWord(behind, end);
  if (word != "True" && word != "False") throwUnreadable(attributeName);
  it = behind;
  return word == "True";
}

template <>
String readAttr(TextIt& it, const TextIt& end, const char* attributeName) {
  if (it == end || *it != '\'') throwUnreadable(attributeName);
  TextOut out;
  for (TextIt at = it + 1; at != end; ++at) {
    char c = *at;
    if (c == '\'') {
      it = at + 1;
      return out.string();
    }
    if (c == '\\') {
      if (++at == end) break;
      switch (*at) {
        case 'n': c = '\n'; break;
        case 'r': c = '\r'; break;
        case 't': c = '\t'; break;
        case '\'':
        case '\\': c = *at; break;
        case 'x': {
          if (end - at < 3 || hexValue(at[1]) < 0 || hexValue(at[2]) < 0)
            throwUnreadable(attributeName);
          c = static_cast<char>(hexValue(at[1]) << 4 | hexValue(at[2]));
          at += 2;
          break;
        }
        default: throwUnreadable(attributeName);
      }
    }
    out.append(c);
  }
  throwUnreadable(attributeName);
}

void throwExpected(std::string_view literal) {
  throw Exception(message("expected \"", literal, "\""));
}

void needEndOfText(const TextIt& it, const TextIt& end) {
  if (it == end) return;
  const std::string_view rest(it.at(), static_cast<std::size_t>(end - it));
  throw Exception(message("unexpected text after the value: ", rest, ""));
}

void rethrowFromDeserializeAttr(const RangeException& error, const char* attributeName) {
  throw RangeException(message(attributeName, ": ", error.what()));
}

std::string_view readWord(TextIt& it, const TextIt& end) {
  const TextIt begin = it;
  const auto inWord = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '_';
  };
  while (it != end && inWord(*it))
    ++it;
  return {begin.at(), static_cast<std::size_t>(it - begin)};
}

std::ostream& writeText(std::ostream& out, std::string_view text) {
  return out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

}  // namespace Kop
