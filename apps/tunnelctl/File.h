#pragma once

#include <string>
#include <string_view>

#include <signal.h>

// Whole files, read and written; signals meanwhile.

namespace Tunnelctl {

// The bytes of a file; - is standard input.
//
// Errors   Failure that names the file.
std::string readFile(const std::string& name);

// Makes the text the whole of a file: after any failure, or the death of the process, the
// name still stands for all that it stood for before. A new file gets the mode that the
// umask allows, one that is replaced keeps its own; a link is followed. What is no file (a
// terminal, a pipe) is written as it is.
//
// Errors   Failure that names the file and what the system said.
void replaceFile(const std::string& name, std::string_view text);

// While one lives, signals that people end a process with wait: for what is not to be left
// half done. It has to be over soon, or after a time-out.
class SignalsWait {
 public:
  SignalsWait();
  ~SignalsWait();
  SignalsWait(const SignalsWait&) = delete;
  SignalsWait& operator=(const SignalsWait&) = delete;

 private:
  sigset_t before_;
};

}  // namespace Tunnelctl
