#pragma once

#include "Hivel/Export.h"
#include "Kop/Exception.h"

// What the state database throws, besides Kop::RangeException for a malformed path.

namespace Hivel {

// A system call failed: the message names call, operand and the text of errno.
class HIVEL_EXPORT SocketException : public Kop::Exception {
 public:
  using Exception::Exception;
  ~SocketException() override;
};

// Bytes that are not a frame of the protocol, or one that is not allowed here.
class HIVEL_EXPORT ProtocolException : public Kop::Exception {
 public:
  using Exception::Exception;
  ~ProtocolException() override;
};

// The database or the server said no: a path that is taken, a mount that was refused, an
// answer that did not come in time.
class HIVEL_EXPORT RefusedException : public Kop::Exception {
 public:
  using Exception::Exception;
  ~RefusedException() override;
};

}  // namespace Hivel
