#include "apps/tunnelctl/CommandLine.h"

#include <algorithm>
#include <cstdlib>
#include <ostream>
#include <set>

#include <dlfcn.h>

#include <CLI/CLI.hpp>

#include "Kop/Exception.h"
#include "apps/tunnelctl/Completion.h"
#include "apps/tunnelctl/Session.h"
#include "apps/tunnelctl/Verbs.h"

namespace Tunnelctl {

namespace {

struct Arguments {
  Style style;
  std::string socketPath = defaultSocketPath();
  double timeout = 5;  // seconds
  std::vector<std::string> typeLibraries;
  std::vector<std::string> words;
  TunnelIdParts parts;
  std::string algorithm;
  std::string type, text, json;
  bool allTypes = false;
  RecordOptions record;
  std::string hex;
  TableOptions table;
  U64 limit = 0;
  ApplyOptions apply;
  SaveOptions save;
  MonitorOptions monitor;
  ImportLinuxOptions importLinux;
  std::string prefix;
  U64 count = 0;
  double seconds = 0;
  double interval = 50;  // milliseconds
  bool isRib = false;
};

std::chrono::milliseconds milliseconds(double seconds) {
  return std::chrono::milliseconds(static_cast<long>(seconds * 1000));
}

void loadTypes(const std::vector<std::string>& libraries) {
  for (const std::string& library : libraries)
    if (!dlopen(library.c_str(), RTLD_NOW | RTLD_GLOBAL)) {
      const char* const reason = dlerror();
      throw Failure("--types '" + library +
                    "': " + (reason ? reason : "cannot be loaded"));
    }
}

// CLI11 takes the bare "-br" for two options.
std::vector<std::string> reversed(const std::vector<std::string>& arguments) {
  std::vector<std::string> result(arguments.rbegin(), arguments.rend());
  for (std::string& argument : result)
    if (argument == "-br") argument = "--brief";
  return result;
}

class Command {
 public:
  explicit Command(Arguments& arguments) : a_(arguments) {
    app_.name("tunnelctl");
    app_.require_subcommand(0, 1);  // see verbs(): a better error than its own
    app_.fallthrough();
    app_.set_help_flag("-h,--help", "Show this text");
    app_.add_flag("-j,--json", a_.style.json,
                  "JSON: always an array; events are one line each");
    app_.add_flag("-p,--pretty", a_.style.pretty, "indent JSON");
    app_.add_flag("-d,--details", a_.style.detail, "show more");
    app_.add_flag("--brief", a_.style.brief, "show less; also -br");
    app_.add_option("-s,--socket", a_.socketPath,
                    "the state database's socket; otherwise $HIVEL_SOCKET or " +
                        std::string("/run/hivel/hivel.sock"));
    app_.add_option("--timeout", a_.timeout, "seconds to wait for the database")
        ->check(CLI::Range(0.01, 86400.0));
    app_.add_option("--types", a_.typeLibraries, "load a library of types, by name")
        ->type_name("LIB")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    addIdentifiers();
    addTypes();
    addRecord();
    addTables();
    addState();
    addImportLinux();
  }

  CLI::App& app() { return app_; }
  const std::function<int(const Context&)>& action() const { return action_; }
  std::string verbs() const {
    std::string names;
    for (const CLI::App* verb : app_.get_subcommands(nullptr))
      names += (names.empty() ? "" : ", ") + verb->get_name();
    return names;
  }

 private:
  using Action = std::function<int(const Context&)>;
  void does(CLI::App* verb, Action action) {
    verb->callback([this, action] {
      if (!action_) action_ = action;
    });
  }
  // A verb that decodes words, with a verb below it that encodes.
  static int showRecords(const Context& context, Json records) {
    const bool down = records.items.size() == 1 || context.style.detail;
    // What a table leaves out, because it follows from the rest or is wide.
    static const std::set<std::string> wide = {"number", "type", "text", "diagnostic"};
    if (!down && !context.style.json)
      for (Json& record : records.items)
        for (std::size_t i = record.names.size(); i-- > 0;)
          if (record.find("table") && wide.contains(record.names[i])) {
            record.names.erase(record.names.begin() + static_cast<std::ptrdiff_t>(i));
            record.items.erase(record.items.begin() + static_cast<std::ptrdiff_t>(i));
          }
    printRecords(context.out, context.style, records, down);
    return 0;
  }

  void addIdentifiers() {
    auto* const id = app_.add_subcommand("id", "Take tunnel identifiers apart");
    id->add_option(
        "ID", a_.words,
        "numbers, texts such as LDP tunnel index 26, or interfaces of tunnels");
    auto* const encode = id->add_subcommand("encode", "Put a tunnel identifier together");
    encode->add_option("KIND", a_.parts.kind, "ldpTunnel, or LDP")->required();
    encode->add_option("INDEX", a_.parts.index, "a number")->required();
    encode->add_flag("--ipv6", a_.parts.ipv6, "an IPv6 tunnel");
    encode->add_option("--algo", a_.algorithm, "flex-algorithm, 0 to 255");
    does(encode, [this](const Context& context) {
      if (!a_.algorithm.empty()) a_.parts.algorithm = a_.algorithm;
      return showRecords(context,
                         Json(Json::array().push(describe(makeTunnelId(a_.parts)))));
    });
    does(id, [this](const Context& context) {
      needWords("id", "ID");
      return showRecords(context, decodeTunnelIds(a_.words));
    });

    auto* const encap =
        app_.add_subcommand("encap", "Take encapsulation identifiers apart");
    encap->add_option("NUMBER", a_.words, "32 bits");
    auto* const encapEncode =
        encap->add_subcommand("encode", "Put an encapsulation identifier together");
    encapEncode->add_option("KIND", a_.parts.kind, "mplsEncap, or MPLS")->required();
    encapEncode->add_option("INDEX", a_.parts.index, "28 bits")->required();
    does(encapEncode, [this](const Context& context) {
      return showRecords(
          context,
          Json(Json::array().push(describe(makeEncapId(a_.parts.kind, a_.parts.index)))));
    });
    does(encap, [this](const Context& context) {
      needWords("encap", "NUMBER");
      Json records = Json::array();
      for (const std::string& word : a_.words)
        records.push(describe(readEncapId(word)));
      return showRecords(context, records);
    });

    auto* const intf =
        app_.add_subcommand("intf", "Interface words and names, each from the other");
    intf->add_option("INTF", a_.words, "a name or a 64-bit word")->required();
    does(intf, [this](const Context& context) {
      Json records = Json::array();
      for (const std::string& word : a_.words)
        records.push(describe(readIntfId(word)));
      return showRecords(context, records);
    });
  }

  void addTypes() {
    auto* const types = app_.add_subcommand("types", "Modules, types and their members");
    types->add_option("NAME", a_.type, "a module or a type");
    types->add_flag("--all", a_.allTypes,
                    "modules whole, a line for each type and member");
    does(types, [this](const Context& context) {
      return Tunnelctl::types(context, a_.type, a_.allTypes);
    });

    auto* const value =
        app_.add_subcommand("value", "Read a value from text or JSON, print it");
    value->add_option("TYPE", a_.type, "a value type")->required();
    auto* const text = value->add_option("TEXT", a_.text, "as values print themselves");
    auto* const json = value->add_option("--json", a_.json, "the value as JSON");
    text->excludes(json);
    does(value, [this, text, json](const Context& context) {
      return Tunnelctl::value(context, a_.type,
                              text->count() ? std::optional(a_.text) : std::nullopt,
                              json->count() ? std::optional(a_.json) : std::nullopt);
    });
  }

  void addRecord() {
    auto* const record =
        app_.add_subcommand("record", "Take binary records of tables apart");
    record
        ->add_option("TYPE", a_.record.type,
                     "TunnelTableEntry, MplsCosVia, MulticastTunnelTableEntry, "
                     "DynamicMplsLabelStack or MulticastTreeId")
        ->required();
    auto* const file =
        record->add_option("FILE", a_.record.file, "bytes; - for standard input");
    auto* const hex = record->add_option("--hex", a_.hex, "the bytes in hexadecimal");
    file->excludes(hex);
    record->add_flag("--all", a_.record.all, "several records, one behind another");
    does(record, [this, file, hex](const Context& context) {
      if (hex->count()) a_.record.hex = a_.hex;
      if (!hex->count() && !file->count())
        throw UsageError("record: expected FILE or --hex TEXT");
      return Tunnelctl::record(context, a_.record);
    });
  }

  void addTables() {
    auto* const table = app_.add_subcommand(
        "table", "List tunnel tables, or show the rows of one, best first");
    table->add_option("NAME", a_.table.name,
                      "a table, its path or the type of its tunnels");
    table->add_option("--endpoint", a_.table.endpoint,
                      "only rows that end in this prefix, or at this address");
    table->add_option("--name", a_.table.glob, "only rows whose name matches: * ? [..]");
    auto* const limit = table->add_option("--limit", a_.limit, "only so many rows");
    table->add_flag("--verify", a_.table.verify,
                    "check the memory of the table, or of all, and its rows; tell every "
                    "fault; status 1 if there is any");
    does(table, [this, limit](const Context& context) {
      if (limit->count()) a_.table.limit = a_.limit;
      return Tunnelctl::table(context, a_.table);
    });

    auto* const rib = app_.add_subcommand(
        "rib", "Tables that contribute to the tunnel RIB, the best tunnel per endpoint");
    rib->add_option("PREFIX", a_.prefix, "only this endpoint; -d shows all candidates");
    does(rib,
         [this](const Context& context) { return Tunnelctl::rib(context, a_.prefix); });

    auto* const names = app_.add_subcommand("names", "Names of tunnels");
    names->add_option("NAME", a_.prefix,
                      "a name, a glob of names, or an identifier as `id` takes it");
    does(names,
         [this](const Context& context) { return Tunnelctl::names(context, a_.prefix); });
  }

  void addState() {
    auto* const apply = app_.add_subcommand("apply", "Make the database as a file says");
    apply->add_option("FILE", a_.apply.file, "a configuration, - for standard input")
        ->required();
    apply->add_flag("--check", a_.apply.check,
                    "only tell what differs; status 1 if anything does");
    does(apply,
         [this](const Context& context) { return Tunnelctl::apply(context, a_.apply); });

    auto* const diff =
        app_.add_subcommand("diff", "Tell what applying a file would change");
    diff->add_option("FILE", a_.apply.file, "a configuration, - for standard input")
        ->required();
    does(diff, [this](const Context& context) {
      return Tunnelctl::diff(context, a_.apply.file);
    });

    auto* const save =
        app_.add_subcommand("save", "Write the configuration as apply reads it");
    save->add_option("FILE", a_.save.file, "replaced as a whole; - is standard output");
    save->add_option("PATH", a_.save.prefixes, "only this path and all below it");
    save->add_option("--also", a_.save.also,
                     "this path and all below it as well, whatever they hold")
        ->type_name("PATH")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    save->add_flag("--all", a_.save.all, "every path, whatever it holds");
    does(save,
         [this](const Context& context) { return Tunnelctl::save(context, a_.save); });

    auto* const show =
        app_.add_subcommand("show", "List mounted paths, or show what they hold");
    show->add_option("PATH", a_.prefix, "this path and all below it; / is all");
    does(show,
         [this](const Context& context) { return Tunnelctl::show(context, a_.prefix); });

    auto* const monitor = app_.add_subcommand("monitor", "Follow changes as they come");
    monitor->add_option("PATH", a_.monitor.prefix,
                        "this path and all below it; with --rib a prefix of endpoints");
    monitor->add_flag("--rib", a_.isRib, "the best tunnel of each endpoint instead");
    monitor
        ->add_option("--interval", a_.interval,
                     "milliseconds between two looks at the rows of tables")
        ->check(CLI::Range(1.0, 3.6e6));
    auto* const count =
        monitor->add_option("--count", a_.count, "end after so many changes");
    auto* const seconds =
        monitor->add_option("--for", a_.seconds, "end after so many seconds")
            ->check(CLI::Range(0.0, 1e6));
    monitor->add_option(
        "--state", a_.monitor.stateFile,
        "at the end write what is held to a file, as `-j show /` prints it");
    does(monitor, [this, count, seconds](const Context& context) {
      if (count->count()) a_.monitor.count = a_.count;
      if (seconds->count()) a_.monitor.limit = milliseconds(a_.seconds);
      a_.monitor.interval = milliseconds(a_.interval / 1000);
      if (a_.isRib && !a_.monitor.stateFile.empty())
        throw UsageError("--state: --rib holds no state of paths");
      return a_.isRib ? monitorRib(context, a_.monitor)
                      : Tunnelctl::monitor(context, a_.monitor);
    });

    auto* const status =
        app_.add_subcommand("status", "The server, its connections and paths");
    does(status, [](const Context& context) { return Tunnelctl::status(context); });
  }

  void addImportLinux() {
    auto* const import = app_.add_subcommand(
        "import-linux", "Make tables equal to the tunnels of the Linux kernel");
    import->add_flag("--watch", a_.importLinux.watch, "go on with every change");
    auto* const seconds =
        import->add_option("--for", a_.seconds, "end the watch after so many seconds")
            ->check(CLI::Range(0.0, 1e6));
    auto* const interval =
        import
            ->add_option(
                "--interval", a_.interval,
                "seconds between two looks at all interfaces: the kernel does not "
                "tell what changes at one that is down [5]")
            ->check(CLI::Range(0.01, 86400.0));
    import->add_option("--name", a_.importLinux.name,
                       "the last part of the tables' paths, \"linux\" by default");
    does(import, [this, seconds, interval](const Context& context) {
      if (interval->count()) a_.importLinux.interval = milliseconds(a_.interval);
      if (seconds->count()) {
        if (!a_.importLinux.watch) throw UsageError("--for: only with --watch");
        a_.importLinux.limit = milliseconds(a_.seconds);
      }
      return importLinux(context, a_.importLinux);
    });
  }

  void needWords(const char* verb, const char* name) const {
    if (a_.words.empty())
      throw UsageError(std::string(verb) + ": " + name + " is required; see " + verb +
                       " --help");
  }

  Arguments& a_;
  CLI::App app_{"Decodes tunnel identifiers, applies and shows the state of tunnels."};
  Action action_;
};

int fail(const Terminal& terminal, int status, std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  terminal.out.flush();
  terminal.err << "tunnelctl: " << text << '\n';
  return status;
}

}  // namespace

int run(const std::vector<std::string>& arguments, const Terminal& terminal) {
  try {
    Arguments read;
    Command command(read);
    // A verb for the shells: what follows it is somebody's command line, not its own.
    if (!arguments.empty() && arguments.front() == "complete") {
      complete(command.app(), {arguments.begin() + 1, arguments.end()},
               {read.style, read.socketPath, milliseconds(read.timeout), terminal.out});
      return 0;
    }
    try {
      command.app().parse(reversed(arguments));
    } catch (const CLI::CallForHelp&) {
      terminal.out << command.app().help();
      return 0;
    } catch (const CLI::ExtrasError& error) {
      const auto left = command.app().remaining(true);
      if (!command.action() && !left.empty() && !left.front().starts_with('-'))
        return fail(
            terminal, exitUsage,
            "VERB '" + printable(left.front()) + "': expected one of " + command.verbs());
      return fail(terminal, exitUsage, error.what());
    } catch (const CLI::ParseError& error) {
      return fail(terminal, exitUsage, error.what());
    }
    if (!command.action())
      return fail(terminal, exitUsage,
                  "VERB is missing: expected one of " + command.verbs());
    loadTypes(read.typeLibraries);
    read.style.colour = terminal.isTerminal && !std::getenv("NO_COLOR");
    const Context context{read.style, read.socketPath, milliseconds(read.timeout),
                          terminal.out};
    const int status = command.action()(context);
    terminal.out.flush();
    if (!terminal.out)
      return fail(terminal, exitFailed, "standard output cannot be written");
    return status;
  } catch (const UsageError& error) {
    return fail(terminal, exitUsage, error.what());
  } catch (const Failure& error) {
    return fail(terminal, error.status, error.what());
  } catch (const std::exception& error) {
    return fail(terminal, exitFailed, error.what());
  }
}

}  // namespace Tunnelctl
