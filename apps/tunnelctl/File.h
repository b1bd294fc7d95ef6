#pragma once

#include <string>
#include <string_view>

// Whole files, read and written.

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

}  // namespace Tunnelctl
