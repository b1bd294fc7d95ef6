#include "apps/tunnelctl/Completion.h"

#include <algorithm>
#include <map>
#include <ostream>

#include <dlfcn.h>

#include <CLI/CLI.hpp>

#include "apps/tunnelctl/Record.h"
#include "apps/tunnelctl/Session.h"
#include "apps/tunnelctl/Tables.h"

namespace Tunnelctl {

namespace {

// Longer waits would be felt at the keyboard.
constexpr std::chrono::milliseconds moment{300};

enum class Kind : U8 {
  none,
  files,
  paths,
  tables,
  names,  // of tunnels
  modulesAndTypes,
  values,
  records,
  tunnelKinds,
  encapKinds,
};

// What an option or a positional argument takes. Without a verb: of any.
struct Rule {
  std::string_view verb, argument;
  Kind kind;
};
constexpr Rule rules[] = {
    {"id encode",    "KIND",     Kind::tunnelKinds    },
    {"encap encode", "KIND",     Kind::encapKinds     },
    {"types",        "NAME",     Kind::modulesAndTypes},
    {"value",        "TYPE",     Kind::values         },
    {"record",       "TYPE",     Kind::records        },
    {"table",        "NAME",     Kind::tables         },
    {"table",        "--name",   Kind::names          },
    {"names",        "NAME",     Kind::names          },
    {"",             "FILE",     Kind::files          },
    {"",             "PATH",     Kind::paths          },
    {"",             "--also",   Kind::paths          },
    {"",             "--socket", Kind::files          },
    {"",             "--types",  Kind::files          },
    {"",             "--state",  Kind::files          },
};

Kind kindOf(std::string_view verb, const CLI::Option& argument) {
  const std::string name = argument.get_positional() ? argument.get_name()
                           : argument.get_lnames().empty()
                               ? ""
                               : "--" + argument.get_lnames().front();
  for (const Rule& rule : rules)
    if ((rule.verb.empty() || rule.verb == verb) && rule.argument == name)
      return rule.kind;
  return Kind::none;
}

// Where a command line stands behind all its words but the last.
class Reader {
 public:
  explicit Reader(const CLI::App& app) : verb_(&app) {}

  void read(const std::string& word) {
    if (pending_) return give(word);
    if (!optionsEnded_ && word == "--") {
      optionsEnded_ = true;
    } else if (!optionsEnded_ && word.starts_with("--")) {
      const auto equals = word.find('=');
      expect(find(word.substr(0, equals)));
      if (pending_ && equals != word.npos) give(word.substr(equals + 1));
    } else if (!optionsEnded_ && word.size() > 1 && word[0] == '-') {
      for (std::size_t i = 1; i < word.size() && !pending_; ++i) {
        expect(find(std::string("-") + word[i]));
        if (pending_ && i + 1 < word.size()) return give(word.substr(i + 1));
      }
    } else if (const CLI::App* const below = verbNamed(word)) {
      verb_ = below;
    } else {
      ++positionals_;
    }
  }

  const CLI::App& verb() const { return *verb_; }
  std::string verbName() const {
    const CLI::App* const up = verb_->get_parent();
    if (!up) return "";
    return (up->get_parent() ? up->get_name() + " " : "") + verb_->get_name();
  }
  bool optionsEnded() const { return optionsEnded_; }
  const CLI::Option* pending() const { return pending_; }  // it waits for its value
  bool isFirst() const { return positionals_ == 0; }
  // The argument that the next word is, or null.
  const CLI::Option* positional() const {
    std::size_t left = positionals_;
    for (const CLI::Option* const option : verb_->get_options()) {
      if (!option->get_positional()) continue;
      if (option->get_items_expected_max() > 1 || left == 0) return option;
      --left;
    }
    return nullptr;
  }
  const CLI::Option* find(const std::string& name) const {
    for (const CLI::App* app = verb_; app; app = app->get_parent())
      if (const CLI::Option* const option = app->get_option_no_throw(name)) return option;
    return nullptr;
  }
  const std::string* given(const std::string& option) const {
    const auto found = given_.find(option);
    return found == given_.end() ? nullptr : &found->second;
  }

 private:
  void expect(const CLI::Option* option) {
    if (option && option->get_items_expected_max() > 0) pending_ = option;
  }
  void give(const std::string& value) {
    given_[pending_->get_lnames().empty() ? "" : pending_->get_lnames().front()] = value;
    pending_ = nullptr;
  }
  const CLI::App* verbNamed(const std::string& word) const {
    if (positionals_ > 0) return nullptr;
    for (const CLI::App* const below : verb_->get_subcommands(nullptr))
      if (below->get_name() == word) return below;
    return nullptr;
  }

  const CLI::App* verb_;
  const CLI::Option* pending_ = nullptr;
  bool optionsEnded_ = false;
  std::size_t positionals_ = 0;
  std::map<std::string, std::string> given_;
};

class Candidates {
 public:
  Candidates(std::string head, std::string prefix)
      : head_(std::move(head)), prefix_(std::move(prefix)) {}

  const std::string& prefix() const { return prefix_; }
  void add(std::string_view word, std::string_view what = {}) {
    // A name that no line can hold is not offered.
    const bool isText =
        printable(word) == word || word.find_first_of(" '\\") != word.npos;
    const bool isLine = std::none_of(word.begin(), word.end(), [](char c) {
      return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
    });
    if (!word.empty() && isText && isLine && word.starts_with(prefix_))
      all_.emplace(word, what.substr(0, what.find('\n')));
  }
  void addFiles() { files_ = true; }

  void print(std::ostream& out) const {
    std::vector<std::pair<std::string, std::string>> sorted(all_.begin(), all_.end());
    std::sort(sorted.begin(), sorted.end(),
              [](const auto& a, const auto& b) { return naturalLess(a.first, b.first); });
    for (const auto& [word, what] : sorted)
      out << head_ << word << '\t' << what << '\n';
    if (files_) out << "\tfiles\n";
  }

 private:
  std::string head_;  // of the word, before what is completed: "--socket="
  std::string prefix_;
  std::map<std::string, std::string> all_;
  bool files_ = false;
};

void addTypes(Candidates& candidates, bool onlyValues) {
  for (const auto* const module : Kop::modules()) {
    if (!onlyValues) candidates.add(module->name, "module");
    for (const Kop::TypeRecord& type : module->types) {
      if (onlyValues && !type.value) continue;
      candidates.add(type.name, module->name);
      // The end of a name serves when it is that of no other.
      const std::string end(type.name.substr(type.name.rfind(':') + 1));
      if (candidates.prefix().empty() || !end.starts_with(candidates.prefix())) continue;
      try {
        findTypeNamed(end);
        candidates.add(end, module->name);
      } catch (const UsageError&) {
      }
    }
  }
}

void addEnumerators(Candidates& candidates, std::string_view enumeration) {
  if (const Kop::TypeRecord* const type = Kop::findType(enumeration))
    for (const Kop::MemberRecord& member : type->members)
      candidates.add(member.name);
}

void addPaths(Candidates& candidates, const Context& context) {
  // The server is asked for whole parts only.
  const auto slash = candidates.prefix().rfind('/');
  const std::string above =
      slash == std::string::npos ? "" : candidates.prefix().substr(0, slash);
  Session session(context);
  for (const auto& info : session.paths(above))
    candidates.add(info.path, info.type);
}

void addTables(Candidates& candidates, const Context& context) {
  Tables tables(context);
  for (const auto& table : tables.directory().tables())
    candidates.add(std::string_view(table.info.tableName()), table.agent);
}

void addNames(Candidates& candidates, const Context& context) {
  Tables tables(context);
  tables.follow(followsNames);
  for (const std::string& agent : tables.directory().agents()) {
    const auto names = tables.directory().names(agent);
    if (!names) continue;
    for (auto it = names->localTunnelNameStatusIteratorConst(); it; it.advance()) {
      const auto status = names->localTunnelNameStatus(it.key());
      for (auto name = status->tunnelNameToIdIteratorConst(); name; name.advance())
        candidates.add(std::string_view(name->key()), agent);
    }
  }
}

void add(Candidates& candidates, Kind kind, const Context& context) {
  switch (kind) {
    case Kind::none: break;
    case Kind::files: candidates.addFiles(); break;
    case Kind::paths: addPaths(candidates, context); break;
    case Kind::tables: addTables(candidates, context); break;
    case Kind::names: addNames(candidates, context); break;
    case Kind::modulesAndTypes: addTypes(candidates, false); break;
    case Kind::values: addTypes(candidates, true); break;
    case Kind::records:
      for (const RecordForm& form : recordForms())
        candidates.add(form.type.substr(form.type.rfind(':') + 1));
      break;
    case Kind::tunnelKinds:
      addEnumerators(candidates, "Tunnel::TunnelTable::TunnelType");
      break;
    case Kind::encapKinds:
      addEnumerators(candidates, "Tunnel::TunnelTable::EncapType");
      break;
  }
}

void addOptions(Candidates& candidates, const CLI::App* app) {
  for (; app; app = app->get_parent())
    for (const CLI::Option* const option : app->get_options())
      for (const std::string& name : option->get_lnames())
        candidates.add("--" + name, option->get_description());
}

}  // namespace

void complete(const CLI::App& app,
              const std::vector<std::string>& words,
              const Context& context) {
  Reader reader(app);
  for (std::size_t i = 0; i + 1 < words.size(); ++i)
    reader.read(words[i]);
  std::string last = words.empty() ? "" : words.back(), head;
  const CLI::Option* argument = reader.pending();
  const bool isOption = !argument && !reader.optionsEnded() && last.starts_with('-');
  if (const auto equals = last.find('=');
      isOption && last.starts_with("--") && equals != last.npos) {
    argument = reader.find(last.substr(0, equals));
    head = last.substr(0, equals + 1);
    last.erase(0, equals + 1);
  }
  Candidates candidates(head, last);
  try {
    if (const std::string* const library = reader.given("types"))
      dlopen(library->c_str(), RTLD_NOW | RTLD_GLOBAL);
    const std::string* const socket = reader.given("socket");
    const Context live{context.style, socket ? *socket : context.socketPath, moment,
                       context.out};
    if (isOption && head.empty()) {
      addOptions(candidates, &reader.verb());
    } else {
      if (!argument && reader.isFirst())
        for (const CLI::App* const below : reader.verb().get_subcommands(nullptr))
          candidates.add(below->get_name(), below->get_description());
      if (!argument) argument = reader.positional();
      if (argument) add(candidates, kindOf(reader.verbName(), *argument), live);
    }
  } catch (const std::exception&) {
    // Who presses a key wants no message in the middle of the line.
  }
  candidates.print(context.out);
}

}  // namespace Tunnelctl
