#include "Kop/Exception.h"

namespace Kop {

Exception::~Exception() = default;
const char* Exception::what() const noexcept {
  return message_.c_str();
}
RangeException::~RangeException() = default;
InternalException::~InternalException() = default;
UnhashableTypeException::~UnhashableTypeException() = default;
UnorderedTypeException::~UnorderedTypeException() = default;
NewEntityArgsException::~NewEntityArgsException() = default;
WriteUpdateFromReadOnlyProxyException::~WriteUpdateFromReadOnlyProxyException() = default;
LogCorruptException::~LogCorruptException() = default;

}  // namespace Kop
