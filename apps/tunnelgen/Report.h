#pragma once

#include <iosfwd>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "Kop/Types.h"

namespace Tunnelgen {

using Fields =
    std::vector<std::pair<const char*, std::variant<U64, double, std::string>>>;

// What the command tells on its output as it goes: lines for people, or a JSON object per
// line, whose first member "event" says what it tells of. Each is flushed.
class Report {
 public:
  Report(std::ostream& out, bool json) : out_(out), json_(json) {}

  void event(const std::string& name, const std::string& text, const Fields& fields);
  bool isWritten() const;  // false once the output has failed, as a closed pipe does

 private:
  std::ostream& out_;
  bool json_;
};

// 567,762
std::string grouped(U64 number);
// Seconds as 1.23 ms, 12.3 s
std::string shownTime(double seconds);
// "1 link", "2 links"
std::string counted(U64 count, const char* one, const char* many);

}  // namespace Tunnelgen
