#include <cstdio>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include "Kop/Module.h"

// load_probe <library> <file>: loads the library twice, with its output going to the file, and
// prints the modules that it registered.

static void printModules() {
  for (const auto* module : Kop::modules())
    std::printf("%.*s\n", static_cast<int>(module->name.size()), module->name.data());
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const int file = open(argv[2], O_WRONLY | O_CREAT | O_TRUNC, 0600);
  const int out = dup(STDOUT_FILENO), err = dup(STDERR_FILENO);
  if (file < 0 || out < 0 || err < 0) return 3;
  printModules();  // none yet
  std::fflush(stdout);
  dup2(file, STDOUT_FILENO);
  dup2(file, STDERR_FILENO);
  for (int i = 0; i < 2; ++i) {
    void* const library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!library) {
      dprintf(err, "%s\n", dlerror());
      return 4;
    }
    dlclose(library);
  }
  std::fflush(nullptr);
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  printModules();  // also after dlclose: a descriptor must outlive it
  return 0;
}
