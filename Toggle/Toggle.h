#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

// Marks what libToggle shows to others; everything else is hidden by the build.
#define TOGGLE_EXPORT [[gnu::visibility("default")]]

namespace Toggle {

// A toggle file that is there and cannot be used. The message is
//   <path>:<line>:<column>: <reason>
// with lines and columns (in bytes) from 1, or 0:0 when the file cannot be read at all.
class TOGGLE_EXPORT MalformedFileException : public std::runtime_error {
 public:
  MalformedFileException(const std::string& path,
                         std::size_t line,
                         std::size_t column,
                         const std::string& reason);
  ~MalformedFileException() override;
  std::size_t line() const noexcept { return line_; }
  std::size_t column() const noexcept { return column_; }

 private:
  std::size_t line_;
  std::size_t column_;
};

// See getToggleState.
TOGGLE_EXPORT bool state(const char* name, const char* file, bool dflt);

}  // namespace Toggle

// Whether a feature is switched on. Toggles stand in files of one JSON object each,
//   {"FlexAlgo": true, "OspfSegmentRoutingTunnel": false}
// in the directory $TOGGLE_DIR, or /etc/toggles when that is unset or empty. The default is
// the answer when there is no such file or no such name in it. The file is read at every
// call, so callers keep the answer.
//
// Errors   Toggle::MalformedFileException for a file that cannot be read, is no JSON object,
//          has a value that is no boolean, or has a name twice; also when the name that is
//          asked for is fine, because a file that was edited wrongly must not go unseen.
// Threads  any, while nobody changes the environment.
inline bool getToggleState(const char* name, const char* file, bool dflt) {
  return Toggle::state(name, file, dflt);
}
