#pragma once

#include <iosfwd>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "apps/tunnelctl/Json.h"

// How results and errors are shown.

namespace Tunnelctl {

constexpr int exitFailed = 1;
constexpr int exitDiffers = 1;
constexpr int exitUsage = 2;

// A wrong argument: names it, what was found and what is allowed. Exit status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What was asked for could not be done. Exit status 1, unless 1 has another meaning.
class Failure : public std::runtime_error {
 public:
  explicit Failure(const std::string& text, int exitStatus = exitFailed)
      : std::runtime_error(text), status(exitStatus) {}
  int status;
};

struct Style {
  bool json = false;
  bool pretty = false;
  bool detail = false;
  bool brief = false;
  bool colour = false;

  // Text in colour, or as it stands.
  enum Colour { heading, key, added, removed, faint };
  std::string paint(Colour colour, std::string_view text) const;
};

// Orders runs of digits by their number: Ethernet2 before Ethernet10.
bool naturalLess(std::string_view a, std::string_view b);

// A text as it may be printed: quoted with escapes when it is empty or holds control
// characters, so that no name can move the cursor or pass for another one.
std::string printable(std::string_view text);

// Rows in columns two blanks apart. The last column is not padded; a row may be short.
//
// Cost     the bytes of the cells and 4 bytes per cell, so that a million rows may stand in
//          it.
class Columns {
 public:
  void row(const std::vector<std::string>& cells);
  // A line of its own, which no column is measured by.
  void line(std::string_view text);
  bool empty() const { return rows_.empty(); }
  // The first row is a heading when style and `hasHeading` say so.
  void print(std::ostream& out,
             const Style& style,
             bool hasHeading,
             std::size_t indent = 0) const;

 private:
  static constexpr U32 isLine = ~U32{0};

  std::string text_;         // of all cells
  std::vector<U32> sizes_;   // of each cell: bytes
  std::vector<U32> rows_;    // cells of each row, or isLine, which is one
  std::vector<U32> widths_;  // of each column: columns of a terminal
};

// An array of objects with equal names: as JSON when the style asks for it; else as a table,
// or with `down` one name and value per line.
void printRecords(std::ostream& out, const Style& style, const Json& records, bool down);

// An array as JSON with a line end.
void printJson(std::ostream& out, const Style& style, const Json& json);

// The same piece by piece, so that an array need not be held as a whole. Prints nothing
// unless the style asks for JSON.
class JsonArray {
 public:
  JsonArray(std::ostream& out, const Style& style) : out_(out), style_(style) {}
  void push(const Json& item);
  void finish();  // with a line end

 private:
  std::ostream& out_;
  const Style& style_;
  bool isOpen_ = false;
};

// A scalar for people: null is "-", booleans are yes and no.
std::string plain(const Json& json);

}  // namespace Tunnelctl
