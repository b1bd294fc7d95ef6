#include <cstdio>
#include <optional>
#include <set>

#include "Hivel/Exception.h"
#include "Kop/Exception.h"
#include "apps/tunnelctl/Configuration.h"
#include "apps/tunnelctl/File.h"
#include "apps/tunnelctl/Session.h"
#include "apps/tunnelctl/Verbs.h"

namespace Tunnelctl {

namespace {

using Clock = std::chrono::steady_clock;

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

// Prints each change, or keeps it for an array.
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
  Json& records() { return records_; }

 private:
  const Context& context_;
  bool wanted_;
  Json records_ = Json::array();
};

void reportJson(const Context& context,
                const Outcome& outcome,
                Clock::duration time,
                ChangeList& list) {
  const Changes& changes = outcome.changes;
  Json json = Json::object();
  json.add("paths", Json::number(outcome.paths));
  json.add("pathsMade", Json::number(outcome.made));
  json.add("pathsDeleted", Json::number(outcome.deleted));
  json.add("attributesSet", Json::number(changes.attributes));
  json.add("entriesAdded", Json::number(changes.added));
  json.add("entriesChanged", Json::number(changes.changed));
  json.add("entriesRemoved", Json::number(changes.removed));
  json.add("milliseconds", Json::number(milliseconds(time)));
  if (context.style.detail) json.add("changes", std::move(list.records()));
  printJson(context.out, context.style, Json(Json::array().push(std::move(json))));
}

void report(const Context& context,
            const Outcome& outcome,
            Clock::duration time,
            bool isCheck) {
  const Changes& changes = outcome.changes;
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

// Applies a file, or tells what applying it would do: the same steps, but on replicas, which
// are only compared, and on fresh entities in place of those that do not exist.
//
// To write, all paths are mounted before anything is written, so that a path that somebody
// else writes stops the whole.
class Application {
 public:
  Application(const Context& context, const Configuration& configuration, bool writes)
      : context_(context), writes_(writes), session_(context) {
    if (writes_) wait_.emplace();
    for (const auto& info : session_.paths(""))
      present_.insert(info.path);
    outcome_.paths = configuration.paths.size();
    std::vector<Hivel::Mount*> mounts;
    for (const PlannedPath& plan : configuration.paths) {
      if (plan.remove && !isPresent(plan)) continue;
      Hivel::Mount* const mount = this->mount(plan);
      if (mount) mounts.push_back(mount);
      targets_.push_back({&plan, mount});
    }
    try {
      session_.settle(mounts);
    } catch (const Failure&) {
      if (writes_) giveUp();
      throw;
    }
  }

  const Outcome& run(ChangeList& list) {
    for (const Target& target : targets_)
      if (!target.plan->remove) change(target, list);
    if (writes_) session_.sync();
    for (const Target& target : targets_) {
      if (writes_) session_.client().unmount(target.plan->path, target.plan->remove);
      if (!target.plan->remove) continue;
      ++outcome_.deleted;
      list.path(target.plan->path, "deleted");
    }
    if (writes_) session_.sync();
    return outcome_;
  }

 private:
  struct Target {
    const PlannedPath* plan;
    Hivel::Mount* mount;  // null when nothing is written and there is nothing to read
  };

  bool isPresent(const PlannedPath& plan) const { return present_.contains(plan.path); }

  Hivel::Mount* mount(const PlannedPath& plan) {
    Hivel::MountOptions options;
    if (!plan.remove) options.type = plan.entity.type->name;
    if (writes_) {
      if (!plan.remove) options.entity = plan.entity.type->entity->make(plan.name);
      return &session_.client().mount(plan.path, Hivel::Mode::adopt, options);
    }
    if (!isPresent(plan) || plan.remove) return nullptr;
    options.waits = false;
    return &session_.client().mount(plan.path, Hivel::Mode::read, options);
  }

  void change(const Target& target, ChangeList& list) {
    const PlannedPath& plan = *target.plan;
    if (!isPresent(plan)) {
      ++outcome_.made;
      list.path(plan.path, "made");
    }
    const Kop::Ptr<Kop::Entity> entity =
        target.mount ? target.mount->entity() : plan.entity.type->entity->make(plan.name);
    Tunnelctl::apply(plan.entity, *entity, !writes_ && target.mount, outcome_.changes,
                     list.sinkFor(plan.path));
  }

  // What only this attempt made goes again.
  void giveUp() {
    for (const Target& target : targets_)
      session_.client().unmount(
          target.plan->path,
          !isPresent(*target.plan) && target.mount->state() == Hivel::Mount::State::live);
    session_.client().syncAndWait(context_.timeout);
  }

  const Context& context_;
  const bool writes_;
  Session session_;
  std::optional<SignalsWait>
      wait_;  // from the first path that is made to the last change
  std::set<std::string> present_;
  std::vector<Target> targets_;
  Outcome outcome_;
};

Configuration read(const std::string& file) {
  try {
    return parseConfiguration(readFile(file), file);
  } catch (const ConfigurationError& error) {
    throw Failure(error.what());
  }
}

// The exit status.
int compare(const Context& context, const std::string& file, bool isCheck) {
  const Configuration configuration = read(file);
  const auto begin = Clock::now();
  ChangeList list(context, true);
  const Outcome outcome = Application(context, configuration, false).run(list);
  if (context.style.json)
    printJson(context.out, context.style, list.records());
  else if (isCheck)
    report(context, outcome, Clock::now() - begin, true);
  return outcome.anything() ? exitDiffers : 0;
}

}  // namespace

int apply(const Context& context, const ApplyOptions& options) {
  try {
    if (options.check) return compare(context, options.file, true);
    const Configuration configuration = read(options.file);
    const auto begin = Clock::now();
    ChangeList list(context, context.style.detail);
    const Outcome outcome = Application(context, configuration, true).run(list);
    if (context.style.json)
      reportJson(context, outcome, Clock::now() - begin, list);
    else
      report(context, outcome, Clock::now() - begin, false);
    return 0;
  } catch (const Kop::Exception& error) {
    throw Failure(error.what());
  }
}

int diff(const Context& context, const std::string& file) {
  try {
    const int status = compare(context, file, false);
    context.out.flush();
    if (!context.out) throw Failure("standard output cannot be written");
    return status;
  } catch (const UsageError&) {
    throw;
  } catch (const std::exception& error) {
    throw Failure(error.what(), exitUsage);
  }
}

}  // namespace Tunnelctl
