#include "Drem/Error.h"

#include <charconv>

namespace Drem {

InvalidSizeException::InvalidSizeException(const char* component,
                                           const char* function,
                                           std::string message)
    : component_(component),
      function_(function),
      message_(std::make_shared<const std::string>(std::move(message))) {}
InvalidSizeException::~InvalidSizeException() = default;

void FormatArg::appendTo(std::string& out) const {
  char digits[24];
  char* end = digits;
  switch (kind_) {
    case isText: out += text_; return;
    case isSigned:
      end = std::to_chars(digits, digits + sizeof digits, static_cast<long long>(number_))
                .ptr;
      break;
    case isUnsigned:
      end = std::to_chars(digits, digits + sizeof digits, number_).ptr;
      break;
    case isPointer:
      out += "0x";
      end = std::to_chars(digits, digits + sizeof digits, number_, 16).ptr;
      break;
  }
  out.append(digits, end);
}

std::string fill(std::string_view format, std::initializer_list<FormatArg> args) {
  std::string out;
  auto arg = args.begin();
  for (std::size_t hole; arg != args.end() && (hole = format.find("{}")) != format.npos;
       ++arg) {
    out += format.substr(0, hole);
    arg->appendTo(out);
    format.remove_prefix(hole + 2);
  }
  return out += format;
}

std::string dumpHex(const void* bytes, std::size_t size) {
  constexpr char digits[] = "0123456789abcdef";
  std::string out;
  if (size == 0) return out;
  out.reserve(size * 3 - 1);
  const auto* at = static_cast<const unsigned char*>(bytes);
  for (std::size_t i = 0; i < size; ++i) {
    if (i > 0) out += ' ';
    out += digits[at[i] >> 4];
    out += digits[at[i] & 15];
  }
  return out;
}

}  // namespace Drem
