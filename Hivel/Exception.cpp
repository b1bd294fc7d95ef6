#include "Hivel/Exception.h"

namespace Hivel {

SocketException::~SocketException() = default;
ProtocolException::~ProtocolException() = default;
RefusedException::~RefusedException() = default;

}  // namespace Hivel
