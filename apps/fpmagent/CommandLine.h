#pragma once

#include <optional>
#include <string>

#include "Hivel/Client.h"
#include "Quarn/Table.h"
#include "Vantor/IpGenAddr.h"
#include "apps/fpmagent/Session.h"

namespace Fpm {

inline constexpr int exitFailed = 1, exitUsage = 2;

struct Arguments {
  std::string socket;
  std::string agent = "fpm";
  Vantor::IpGenAddr address = Vantor::IpGenAddr::fromIpv4(0x7f000001);
  U16 port = 2620;
  std::string replay;  // a file; empty: listen
  double pace = 0;     // frames per second
  bool hold = false;
  bool remove = false;
  std::string log = "info";
  milliseconds statusInterval{0};  // 0: no lines about the state
  milliseconds timeout{10'000};
  Session::Options session;
  Quarn::TableOptions table;
};

// Reads a command line; the exit status when nothing is to be done. Help goes to standard
// output, what is wrong to standard error.
std::optional<int> parse(int argc, const char* const* argv, Arguments& arguments);

// The agent, until a signal or the end of its replay. The exit status.
// Errors   std::exception that says what cannot be done.
int run(const Arguments& arguments);

}  // namespace Fpm
