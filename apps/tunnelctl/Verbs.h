#pragma once

#include <chrono>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "Kop/Module.h"
#include "apps/tunnelctl/Identifiers.h"
#include "apps/tunnelctl/Output.h"

// What each verb does once its arguments are read. The result is the exit status.
//
// Errors   UsageError, Failure; whoever calls shows them.

namespace Tunnelctl {

struct Context {
  Style style;
  std::string socketPath;
  std::chrono::milliseconds timeout{5000};  // for an answer of the server
  std::ostream& out;
};

// Without a server.
// Of a module, of a type, or with an empty name of all modules. `all`: whole modules, a line
// for each of their types and members.
int types(const Context& context, const std::string& name, bool all);
int value(const Context& context,
          const std::string& typeName,
          const std::optional<std::string>& text,
          const std::optional<std::string>& json);

// A type by its qualified name, or by the end of it when only one type ends so.
const Kop::TypeRecord& findTypeNamed(const std::string& name);
// Whether values of the type can be read from text. Those that hold a collection cannot, and
// must not be asked to.
bool isReadable(const Kop::TypeOps& type);

struct RecordOptions {
  std::string type;
  std::optional<std::string> hex;  // otherwise of a file
  std::string file;                // - is standard input
  bool all = false;                // one record behind another, to the end of the bytes
};
int record(const Context& context, const RecordOptions& options);

struct TableOptions {
  std::string name;  // of a table; empty: which tables there are
  std::string endpoint;
  std::string glob;  // of names of tunnels
  std::optional<U64> limit;
  bool verify = false;
};
int table(const Context& context, const TableOptions& options);

int rib(const Context& context, const std::string& prefix);  // empty: all endpoints

// All names, or those of one tunnel: its identifier, or a glob of names.
int names(const Context& context, const std::string& wanted);

struct ApplyOptions {
  std::string file;
  bool check = false;  // compare only; exit status 1 when something differs
};
int apply(const Context& context, const ApplyOptions& options);
// What apply would do. Exit status 0 nothing, 1 something, 2 it cannot be told.
int diff(const Context& context, const std::string& file);

struct SaveOptions {
  std::string file;                   // empty or -: standard output
  std::vector<std::string> prefixes;  // empty: everywhere
  std::vector<std::string> also;      // below these whatever it is
  bool all = false;                   // not only configuration
};
// Writes the configuration as apply reads it, always indented.
int save(const Context& context, const SaveOptions& options);

int show(const Context& context, const std::string& prefix);

struct MonitorOptions {
  std::string prefix;
  std::optional<U64> count;                        // changes
  std::optional<std::chrono::milliseconds> limit;  // of time
  std::string stateFile;                   // where to write what is held at the end
  std::chrono::milliseconds interval{50};  // between two looks at a table's rows
};
// Of tables with rows in shared memory the rows too.
int monitor(const Context& context, const MonitorOptions& options);

// The best tunnel of each endpoint instead; the prefix, if there is one, is that of endpoints.
int monitorRib(const Context& context, const MonitorOptions& options);

int status(const Context& context);

struct ImportLinuxOptions {
  std::string name = "linux";                      // the last part of the tables' paths
  bool watch = false;                              // goes on until a signal
  std::optional<std::chrono::milliseconds> limit;  // of that time
  // Between two looks at all interfaces: the kernel tells no change of one that is down.
  std::chrono::milliseconds interval{5000};
};
// Makes tables in the database equal to the tunnels of this machine's kernel.
int importLinux(const Context& context, const ImportLinuxOptions& options);

}  // namespace Tunnelctl
