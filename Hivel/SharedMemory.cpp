#include "Hivel/SharedMemory.h"

#include <algorithm>
#include <filesystem>

#include "Kop/Hash.h"
#include "Kop/String.h"

namespace Hivel {

std::string shmName(const std::string& socketPath, std::string_view mountPath) {
  std::string name = '/' + std::string(mountPath);
  std::replace(name.begin() + 1, name.end(), '/', '.');
  std::error_code ignored;  // what is not there has no links to resolve
  const auto plain = std::filesystem::absolute(socketPath, ignored);
  auto absolute = std::filesystem::weakly_canonical(plain, ignored);
  if (absolute.empty()) absolute = plain.lexically_normal();
  const std::string socket = absolute.string();
  if (socket == defaultSocketPath) return name;
  return name + std::string(Kop::stringPrintf("@%08x", Kop::String(socket).hash()));
}

}  // namespace Hivel
