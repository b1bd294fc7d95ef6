#pragma once

#include <concepts>
#include <cstddef>
#include <exception>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

// Marks what libDrem shows to others; everything else is hidden by the build.
#define DREM_EXPORT [[gnu::visibility("default")]]

// Errors of the storage layers below the runtime. Depends on the standard library alone.

namespace Drem {

// More elements or bytes than the place for them holds. what() is the message alone, without
// component and function, so that callers compare it.
class DREM_EXPORT InvalidSizeException : public std::exception {
 public:
  // Component and function are kept as they are given: string literals.
  InvalidSizeException(const char* component, const char* function, std::string message);
  ~InvalidSizeException() override;
  const char* what() const noexcept override { return message_->c_str(); }
  const char* component() const noexcept { return component_; }
  const char* function() const noexcept { return function_; }

 private:
  const char* component_;
  const char* function_;
  std::shared_ptr<const std::string>
      message_;  // shared: copying an exception must not throw
};

// One value for a "{}" of a format: a number in decimal, a pointer as 0x and lower-case hex
// digits, a text as it is, bool as true or false.
class FormatArg {
 public:
  template <std::integral T>
  FormatArg(T value) : kind_(std::signed_integral<T> ? isSigned : isUnsigned) {
    if constexpr (std::same_as<T, bool>) {
      kind_ = isText;
      text_ = value ? "true" : "false";
    } else {
      number_ = static_cast<unsigned long long>(value);
    }
  }
  FormatArg(std::string_view text) : kind_(isText), text_(text) {}
  FormatArg(const std::string& text) : kind_(isText), text_(text) {}
  FormatArg(const char* text) : kind_(isText), text_(text ? text : "(null)") {}
  FormatArg(const void* pointer)
      : kind_(isPointer), number_(reinterpret_cast<unsigned long>(pointer)) {}

  DREM_EXPORT void appendTo(std::string& out) const;

 private:
  enum Kind { isSigned, isUnsigned, isPointer, isText };
  Kind kind_;
  unsigned long long number_ = 0;
  std::string_view text_;
};

// Replaces each "{}" by the next argument. What an argument brings is not looked through
// again; a "{}" without an argument stands as it is, an argument without a "{}" is left out.
DREM_EXPORT std::string fill(std::string_view format,
                             std::initializer_list<FormatArg> args);

// Throws E(component, function, filled format).
template <class E, class... A>
[[noreturn]] void fmthrow(const char* component,
                          const char* function,
                          const char* format,
                          const A&... args) {
  throw E(component, function, fill(format, {FormatArg(args)...}));
}

// Two lower-case digits per byte, a blank between bytes: "00 0a ff".
DREM_EXPORT std::string dumpHex(const void* bytes, std::size_t size);

}  // namespace Drem
