#include "apps/fpmagent/CommandLine.h"

#include <charconv>
#include <vector>

#include <grp.h>

#include <CLI/CLI.hpp>

#include "Kop/Exception.h"
#include "apps/agent/Places.h"

namespace Fpm {
namespace {

[[noreturn]] void refuse(const std::string& text, const std::string& expected) {
  throw CLI::ValidationError("found '" + text + "', expected " + expected);
}

// A whole number in decimal, up to `most`.
std::optional<U32> numberOf(std::string_view text, U32 most) {
  U32 value = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value > most) return {};
  return value;
}

void listenIs(const std::string& text, Arguments& arguments) {
  const char* const form = "ADDR:PORT such as 127.0.0.1:2620 or [::1]:2620";
  const auto colon = text.rfind(':');
  if (colon == text.npos || colon == 0) refuse(text, form);
  std::string address = text.substr(0, colon);
  if (address.front() == '[' && address.back() == ']')
    address = address.substr(1, address.size() - 2);
  else if (address.find(':') != address.npos)
    refuse(text, form);
  const auto port = numberOf(std::string_view(text).substr(colon + 1), 0xffff);
  if (!port || address.empty()) refuse(text, form);
  try {
    arguments.address = Vantor::IpGenAddr(Kop::String(address));
  } catch (const Kop::Exception&) {
    refuse(text, form);
  }
  arguments.port = static_cast<U16>(*port);
}

void interfaceIs(const std::string& text, Arguments& arguments) {
  const auto equals = text.find('=');
  const auto index = numberOf(std::string_view(text).substr(0, equals), 0x7fffffff);
  if (equals == text.npos || !index || *index == 0)
    refuse(text, "INDEX=NAME such as 3=Ethernet4");
  try {
    arguments.session.state.interfaces[*index] =
        Vantor::IntfId(Kop::String(text.substr(equals + 1)));
  } catch (const Kop::Exception& e) {
    throw CLI::ValidationError(text + ": " + e.what());
  }
}

void modeIs(const std::string& text, Arguments& arguments) {
  U32 mode = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), mode, 8);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() ||
      mode > 0777)
    refuse(text, "an octal mode such as 0640");
  arguments.table.mode = static_cast<mode_t>(mode);
}

milliseconds seconds(double value) {
  return milliseconds(static_cast<milliseconds::rep>(value * 1000));
}

constexpr const char* description =
    "Makes tunnels of the labelled routes and switched paths of a routing daemon, whose "
    "forwarding-plane manager connects here. IS-IS segment routing, LDP, static paths "
    "and "
    "SR-TE policies are tunnels; others are counted.";

constexpr const char* endings =
    "One daemon is heard at a time: a second connection takes over when it sends, and "
    "the "
    "first is closed. A connection that ends withdraws nothing.\n"
    "When the agent ends, by SIGTERM, SIGINT or SIGHUP or at the end of a replay, its "
    "tables "
    "stay, and the next agent of the same name goes on with the same identifiers; "
    "--remove "
    "deletes them.\n"
    "Exit status: 0; 1 when something failed, such as a malformed replay or a database "
    "that "
    "does not answer; 2 for a wrong command line.";

}  // namespace

std::optional<int> parse(int argc, const char* const* argv, Arguments& arguments) {
  using Text = std::string;
  CLI::App app{description, "fpmagent"};
  app.footer(endings);
  app.set_version_flag("--version", "fpmagent " FPMAGENT_VERSION);
  double quiet = 30, status = 0, timeout = 10;
  arguments.socket = Agent::defaultSocketPath;
  app.add_option("-s,--socket", arguments.socket, "Socket of the state database")
      ->type_name("PATH")
      ->envname("HIVEL_SOCKET")
      ->capture_default_str();
  app.add_option("--agent", arguments.agent, "Name of the agent, a part of paths")
      ->type_name("NAME")
      ->capture_default_str();
  auto* const listen =
      app.add_option_function<Text>(
             "--listen", [&](const Text& text) { listenIs(text, arguments); },
             "Where the daemon connects [127.0.0.1:2620]; port 0 is any that is free")
          ->type_name("ADDR:PORT");
  auto* const replay =
      app.add_option(
             "--replay", arguments.replay,
             "Take a recorded stream instead, and end when the database has it all")
          ->type_name("FILE")
          ->excludes(listen);
  app.add_option("--pace", arguments.pace, "Frames of a replay per second")
      ->type_name("N")
      ->check(CLI::Range(0.001, 1e9))
      ->needs(replay);
  app.add_flag("--hold", arguments.hold, "Stay after the replay until a signal")
      ->needs(replay);
  app.add_option(
         "--quiet-time", quiet,
         "Seconds without a frame after which the daemon has told everything, and "
         "what it did not tell is deleted; at the latest after ten times that")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.01, 86400.0))
      ->capture_default_str();
  app.add_option_function<std::vector<Text>>(
         "--interface",
         [&](const std::vector<Text>& texts) {
           for (const Text& text : texts)
             interfaceIs(text, arguments);
         },
         "Name of an interface by the daemon's index, otherwise if<INDEX>; may be given "
         "again")
      ->type_name("INDEX=NAME")
      ->allow_extra_args(false);
  app.add_option_function<Text>(
         "--mode", [&](const Text& text) { modeIs(text, arguments); },
         "Mode of tables in shared memory, octal [0640]")
      ->type_name("MODE");
  StateLimits& limits = arguments.session.state.limits;
  const CLI::Range countable(U64{1}, U64{100'000'000});
  app.add_option("--max-paths", limits.routes,
                 "Routes and switched paths; more are refused and counted")
      ->type_name("N")
      ->check(countable)
      ->capture_default_str();
  app.add_option("--max-next-hops", limits.nextHops,
                 "Next-hop identifiers; likewise, and four times as many hops")
      ->type_name("N")
      ->check(countable)
      ->capture_default_str();
  app.add_option("--timeout", timeout, "Seconds to wait for an answer of the database")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.01, 86400.0))
      ->capture_default_str();
  app.add_flag("--remove", arguments.remove, "At the end remove tables and all else");
  app.add_option("--status-interval", status, "Seconds between lines about the state")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.1, 86400.0));
  app.add_option("--log", arguments.log, "Least level that is said; debug: every message")
      ->type_name("LEVEL")
      ->check(CLI::IsMember({"debug", "info", "warn", "error"}))
      ->capture_default_str();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : exitUsage;
  }
  limits.hops = 4 * limits.nextHops;
  arguments.session.quiet = seconds(quiet);
  arguments.statusInterval = seconds(status);
  arguments.timeout = seconds(timeout);
  return {};
}

}  // namespace Fpm
