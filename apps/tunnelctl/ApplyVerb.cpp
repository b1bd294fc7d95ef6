#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>

#include "Hivel/Exception.h"
#include "Kop/Exception.h"
#include "apps/tunnelctl/Configuration.h"
#include "apps/tunnelctl/Session.h"
#include "apps/tunnelctl/Verbs.h"

namespace Tunnelctl {

namespace {

using Clock = std::chrono::steady_clock;

std::string readFile(const std::string& name) {
  if (name == "-")
    return {std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>()};
  const std::string error = "FILE '" + name + "': cannot be read";
  if (std::filesystem::is_directory(name)) throw Failure(error + ", it is a directory");
  std::ifstream file(name, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(file),
                   std::istreambuf_iterator<char>()};
  if (!file.is_open() || file.bad()) throw Failure(error);
  return text;
}

std::string milliseconds(Clock::duration time) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f",
                std::chrono::duration<double, std::milli>(time).count());
  return text;
}

std::string counted(U64 count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

// What a whole file did.
struct Outcome {
  U64 paths = 0;  // in the file
  U64 made = 0, deleted = 0;
  Changes changes;
  bool anything() const { return made + deleted + changes.total() > 0; }
};

void report(const Context& context,
            const Outcome& outcome,
            Clock::duration time,
            bool isCheck) {
  const Changes& changes = outcome.changes;
  if (context.style.json && !isCheck) {
    Json json = Json::object();
    json.add("paths", Json::number(outcome.paths));
    json.add("pathsMade", Json::number(outcome.made));
    json.add("pathsDeleted", Json::number(outcome.deleted));
    json.add("attributesSet", Json::number(changes.attributes));
    json.add("entriesAdded", Json::number(changes.added));
    json.add("entriesChanged", Json::number(changes.changed));
    json.add("entriesRemoved", Json::number(changes.removed));
    json.add("milliseconds", Json::number(milliseconds(time)));
    printJson(context.out, context.style, Json(Json::array().push(std::move(json))));
    return;
  }
  std::string text;
  const auto add = [&](U64 count, const char* one, const char* many) {
    if (count > 0) text += ", " + counted(count, one, many);
  };
  add(outcome.made, "path made", "paths made");
  add(outcome.deleted, "path deleted", "paths deleted");
  add(changes.attributes, "attribute set", "attributes set");
  add(changes.added, "entry added", "entries added");
  add(changes.changed, "entry changed", "entries changed");
  add(changes.removed, "entry removed", "entries removed");
  context.out << counted(outcome.paths, "path", "paths")
              << (text.empty() ? isCheck ? ": equal" : ": nothing changed"
                               : (isCheck ? ": would be " : ": ") + text.substr(2))
              << ", " << milliseconds(time) << " ms\n";
}

// Prints each change, or keeps it for one array.
class ChangeList {
 public:
  ChangeList(const Context& context, bool wanted) : context_(context), wanted_(wanted) {}
  ChangeSink sinkFor(const std::string& path) {
    if (!wanted_) return {};
    return [this, path](const Change& change) {
      if (!context_.style.json) {
        context_.out << path << "  " << changeLine(context_.style, change) << '\n';
        return;
      }
      Json json = Json::object();
      json.add("path", Json::string(path));
      Json members = changeJson(change);
      for (std::size_t i = 0; i < members.items.size(); ++i)
        json.add(std::move(members.names[i]), std::move(members.items[i]));
      records_.push(std::move(json));
    };
  }
  void path(const std::string& path, const char* what) {
    if (!wanted_) return;
    if (!context_.style.json) {
      context_.out << path << "  " << what << '\n';
      return;
    }
    Json json = Json::object();
    json.add("path", Json::string(path));
    json.add("change", Json::string(what));
    records_.push(std::move(json));
  }
  const Json& records() const { return records_; }

 private:
  const Context& context_;
  bool wanted_;
  Json records_ = Json::array();
};

int check(const Context& context, const Configuration& configuration) {
  const auto begin = Clock::now();
  Session session(context);
  std::set<std::string> present;
  for (const auto& info : session.paths(""))
    present.insert(info.path);
  Outcome outcome;
  ChangeList list(context, true);
  std::vector<std::pair<const PlannedPath*, Hivel::Mount*>> wanted;
  std::vector<Hivel::Mount*> mounts;
  for (const PlannedPath& plan : configuration.paths) {
    ++outcome.paths;
    const bool isThere = present.contains(plan.path);
    if (plan.remove) {
      if (!isThere) continue;
      ++outcome.deleted;
      list.path(plan.path, "deleted");
    } else if (!isThere) {
      ++outcome.made;
      list.path(plan.path, "made");
    } else {
      Hivel::MountOptions options;
      options.type = plan.entity.type->name;
      options.waits = false;
      mounts.push_back(&session.client().mount(plan.path, Hivel::Mode::read, options));
      wanted.emplace_back(&plan, mounts.back());
    }
  }
  session.settle(mounts);
  for (const auto& [plan, mount] : wanted)
    apply(plan->entity, *mount->entity(), true, outcome.changes,
          list.sinkFor(plan->path));
  if (context.style.json)
    printJson(context.out, context.style, list.records());
  else
    report(context, outcome, Clock::now() - begin, true);
  return outcome.anything() ? exitFailed : 0;
}

// Mounts everything for writing before anything is written, so that a path that somebody
// else writes stops the whole.
class Application {
 public:
  Application(const Context& context, const Configuration& configuration)
      : context_(context), session_(context) {
    for (const auto& info : session_.paths(""))
      present_.insert(info.path);
    std::vector<Hivel::Mount*> mounts;
    for (const PlannedPath& plan : configuration.paths) {
      if (plan.remove && !present_.contains(plan.path)) continue;
      mounts.push_back(&mount(plan));
      targets_.push_back({&plan, mounts.back()});
    }
    try {
      session_.settle(mounts);
    } catch (const Failure&) {
      giveUp();
      throw;
    }
  }

  void run(Outcome& outcome, ChangeList& list) {
    for (const Target& target : targets_) {
      if (target.plan->remove) continue;
      if (!present_.contains(target.plan->path)) {
        ++outcome.made;
        list.path(target.plan->path, "made");
      }
      Tunnelctl::apply(target.plan->entity, *target.mount->entity(), false,
                       outcome.changes, list.sinkFor(target.plan->path));
    }
    session_.sync();
    for (const Target& target : targets_) {
      session_.client().unmount(target.plan->path, target.plan->remove);
      if (!target.plan->remove) continue;
      ++outcome.deleted;
      list.path(target.plan->path, "deleted");
    }
    session_.sync();
  }

 private:
  struct Target {
    const PlannedPath* plan;
    Hivel::Mount* mount;
  };

  Hivel::Mount& mount(const PlannedPath& plan) {
    Hivel::MountOptions options;
    if (!plan.remove) {
      options.type = plan.entity.type->name;
      options.entity = plan.entity.type->entity->make(plan.name);
    }
    return session_.client().mount(plan.path, Hivel::Mode::adopt, options);
  }
  // What only this attempt made goes again.
  void giveUp() {
    for (const Target& target : targets_)
      session_.client().unmount(target.plan->path,
                                !present_.contains(target.plan->path) &&
                                    target.mount->state() == Hivel::Mount::State::live);
    session_.client().syncAndWait(context_.timeout);
  }

  const Context& context_;
  Session session_;
  std::set<std::string> present_;
  std::vector<Target> targets_;
};

}  // namespace

int apply(const Context& context, const ApplyOptions& options) {
  Configuration configuration;
  try {
    configuration = parseConfiguration(readFile(options.file), options.file);
  } catch (const ConfigurationError& error) {
    throw Failure(error.what());
  }
  try {
    if (options.check) return check(context, configuration);
    const auto begin = Clock::now();
    Outcome outcome;
    outcome.paths = configuration.paths.size();
    ChangeList list(context, context.style.detail && !context.style.json);
    Application(context, configuration).run(outcome, list);
    report(context, outcome, Clock::now() - begin, false);
    return 0;
  } catch (const Kop::Exception& error) {
    throw Failure(error.what());
  }
}

}  // namespace Tunnelctl
