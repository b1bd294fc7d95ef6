#pragma once

#include <exception>
#include <utility>

#include "Kop/String.h"

// What the system throws. The classes are small and exported with their key function, so
// that they are caught across shared libraries.

namespace Kop {

class KOP_EXPORT Exception : public std::exception {  // what everything thrown here is
 public:
  explicit Exception(String message) : message_(std::move(message)) {}
  ~Exception() override;
  const char* what() const noexcept override;  // the message alone

 private:
  String message_;
};

// An argument, a text or a number outside of what is allowed.
class KOP_EXPORT RangeException : public Exception {
 public:
  using Exception::Exception;
  ~RangeException() override;
};

// A state that must not occur.
class KOP_EXPORT InternalException : public Exception {
 public:
  using Exception::Exception;
  ~InternalException() override;
};

// A hash was asked of a type that has none; the message is the type's qualified name.
class KOP_EXPORT UnhashableTypeException : public Exception {
 public:
  using Exception::Exception;
  ~UnhashableTypeException() override;
};

// An order was asked of a type that has none; the message is the type's qualified name.
class KOP_EXPORT UnorderedTypeException : public Exception {
 public:
  using Exception::Exception;
  ~UnorderedTypeException() override;
};

// A new entity was asked for with arguments that its type does not take.
class KOP_EXPORT NewEntityArgsException : public Exception {
 public:
  using Exception::Exception;
  ~NewEntityArgsException() override;
};

// A write to an entity that only mirrors another process's entity.
class KOP_EXPORT WriteUpdateFromReadOnlyProxyException : public Exception {
 public:
  using Exception::Exception;
  ~WriteUpdateFromReadOnlyProxyException() override;
};

// Bytes from a peer that are not a message of the attribute log.
class KOP_EXPORT LogCorruptException : public Exception {
 public:
  using Exception::Exception;
  ~LogCorruptException() override;
};

}  // namespace Kop
