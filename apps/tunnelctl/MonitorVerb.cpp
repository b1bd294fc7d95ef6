#include <algorithm>
#include <fstream>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <utility>

#include "Kop/Exception.h"
#include "apps/tunnelctl/Events.h"
#include "apps/tunnelctl/HopWatch.h"
#include "apps/tunnelctl/Monitor.h"
#include "apps/tunnelctl/RowWatch.h"
#include "apps/tunnelctl/Tables.h"

namespace Tunnelctl {

namespace {

using Mount = Hivel::Mount;
using Tunnel::TunnelTable::TunnelId;
using Tunnel::TunnelTable::TunnelTableEntry;

constexpr std::string_view tableType = "Tunnel::TunnelTable::TunnelTableBase";

// Mounts every path below a prefix and tells what becomes of it: first what is there, then a
// mark, then each change. Of a table the rows are told with it, those of shared memory by
// looking again and again.
class Monitor {
 public:
  Monitor(const Context& context, const MonitorOptions& options)
      : context_(context),
        options_(options),
        log_(context),
        end_(options),
        session_(context) {}

  int run() {
    const std::string prefix = readPrefix(options_.prefix);
    for (const Hivel::PathInfo& info : session_.paths(prefix))
      follow(info);
    session_.client().watch(prefix, [this](const Hivel::PathInfo& info, bool appeared) {
      if (appeared)
        follow(info);
      else
        leave(info.path);
    });
    session_.client().onState = [this](Hivel::Client::State state,
                                       const std::string& reason) {
      log_.connectionIs(state, reason);
    };
    while (!isOver()) {
      while (session_.client().wants())
        session_.client().process();
      if (tables_)
        while (tables_->session().client().wants())
          tables_->session().client().process();
      markWhenSettled(end_.elapsed() > context_.timeout);
      pollRows();
      tellHops();
      context_.out.flush();
      if (isOver()) break;
      if (!wait()) break;
      session_.client().process();
      if (tables_) tables_->session().client().process();
    }
    if (!options_.stateFile.empty()) writeState();
    context_.out.flush();
    return 0;
  }

 private:
  struct Followed {
    Mount* mount = nullptr;
    ChangeSink sink;
    std::unique_ptr<EntityWatch> watch;
    bool toldOfEntity = false;
    std::unique_ptr<RowWatch> rows;  // of a table in shared memory
    std::map<U64, RowHops> hops;     // of its rows, as told last; with details
    std::string rowsFault;           // why they cannot be read, as it was told
  };

  bool isOver() const { return end_.isOver(log_, marked_); }

  bool wait() {
    std::optional<std::chrono::milliseconds> limit;
    if (!marked_) limit = std::chrono::milliseconds(100);
    for (const auto& [path, followed] : followed_)
      if (followed.rows) limit = options_.interval;
    std::vector<int> fds{session_.client().fd()};
    if (tables_) fds.push_back(tables_->session().client().fd());
    return end_.wait(fds, limit);
  }

  void follow(const Hivel::PathInfo& info) {
    if (followed_.contains(info.path)) return;
    Followed& followed = followed_[info.path];
    followed.sink = [this, path = info.path](const Change& change) {
      log_.change(path, change);
    };
    Hivel::MountOptions options;
    if (Kop::findType(info.type)) {
      options.type = info.type;
    } else {
      log_.note(info.path, "skipped",
                "type " + info.type + " is not known here; --types loads it");
      return;
    }
    if (info.type == tableType) followed.rows = std::make_unique<RowWatch>();
    followed.mount = &session_.client().mount(info.path, Hivel::Mode::read, options);
    followed.mount->onState = [this](Mount& mount) { mountChanged(mount); };
    mountChanged(*followed.mount);
  }

  void leave(const std::string& path) {
    const auto found = followed_.find(path);
    if (found == followed_.end()) return;
    const bool wasTold = found->second.toldOfEntity;
    if (found->second.rows && marked_) found->second.rows->leave(rowSink(path));
    if (found->second.mount) session_.client().unmount(path);
    followed_.erase(found);
    if (wasTold && marked_) {
      log_.note(path, "removed", "");
      log_.countChange();
    }
  }

  void mountChanged(Mount& mount) {
    const auto found = followed_.find(mount.path());
    if (found == followed_.end() || found->second.mount != &mount) return;
    Followed& followed = found->second;
    if (mount.state() == Mount::State::refused) {
      log_.note(mount.path(), "refused", mount.reason());
      return;
    }
    if (mount.state() != Mount::State::live || !marked_) return;
    if (followed.watch && followed.watch->entity() == mount.entity()) return;
    followed.watch.reset();
    log_.note(mount.path(), followed.toldOfEntity ? "replaced" : "appeared",
              std::string(typeOf(*mount.entity()).name));
    log_.countChange();
    watch(followed, true);
    if (followed.rows) followed.rows->detach();  // perhaps another table by now
  }

  void watch(Followed& followed, bool tellContents) {
    followed.toldOfEntity = true;
    followed.watch = std::make_unique<EntityWatch>(followed.mount->entity(), "",
                                                   followed.sink, tellContents);
  }

  // The snapshot, once everything that was there at the start has arrived.
  void markWhenSettled(bool timeIsOver) {
    if (marked_) return;
    if (!timeIsOver)
      for (const auto& [path, followed] : followed_)
        if (followed.mount && !followed.mount->settled()) return;
    marked_ = true;
    for (const std::string& path : sortedPaths()) {
      Followed& followed = followed_[path];
      if (!followed.mount || followed.mount->state() != Mount::State::live) continue;
      Kop::Entity& entity = *followed.mount->entity();
      if (context_.style.json) {
        Json event = EventLog::eventOf(path, "snapshot");
        event.add("state", stateOf(path, entity));
        log_.print(event);
      } else {
        printState(context_.out, context_.style, path, entity);
      }
      watch(followed, false);
      if (!followed.rows) continue;
      openRows(path, followed, [](auto&&...) {});
      printRows(path, *followed.rows);
    }
    log_.mark();
  }

  std::vector<std::string> sortedPaths() const {
    std::vector<std::string> paths;
    for (const auto& [path, followed] : followed_)
      paths.push_back(path);
    std::sort(paths.begin(), paths.end(), naturalLess);
    return paths;
  }

  // ---- rows of tables in shared memory ----

  // False when the table cannot be read: told once per reason, and tried again.
  bool guardRows(const std::string& path,
                 Followed& followed,
                 const std::function<void()>& action) {
    try {
      action();
      followed.rowsFault.clear();
      return true;
    } catch (const Kop::Exception& error) {
      followed.rows->detach();
      if (followed.rowsFault != error.what()) {
        followed.rowsFault = error.what();
        log_.note(path, "unreadable", followed.rowsFault);
      }
      return false;
    }
  }

  bool openRows(const std::string& path, Followed& followed, const RowWatch::Sink& sink) {
    return guardRows(path, followed, [&] {
      followed.rows->attach(
          std::make_unique<Agent::TableReader>(Agent::shmName(context_.socketPath, path)),
          sink);
    });
  }

  void printRows(const std::string& path, const RowWatch& watch) {
    RowSet rows;
    watch.forEach([&](U64 key, const TunnelTableEntry& row) { rows.add(key, row); });
    rows.sort(rows.count());
    Columns columns;
    const bool hasHeading =
        !context_.style.json && !context_.style.brief && rows.count() > 0;
    if (hasHeading) columns.row(rowHeading(context_.style));
    for (std::size_t i = 0; i < rows.count(); ++i) {
      const TunnelTableEntry row = rows.row(i);
      const RowHops hops = hopsOf(path, row);
      keepHops(path, rows.key(i), &hops);
      if (context_.style.json) {
        Json event = EventLog::eventOf(path, "row");
        event.add("key", Json::number(rows.key(i)));
        event.add("row", rowJson(row, hops));
        log_.print(event);
        continue;
      }
      columns.row(rowCells(context_.style, row, hops));
      if (context_.style.detail)
        for (const std::string& line : rowDetails(row, hops))
          columns.line(line);
    }
    columns.print(context_.out, context_.style, hasHeading, 2);
  }

  RowWatch::Sink rowSink(const std::string& path) {
    return [this, path](U64 key, const TunnelTableEntry* before,
                        const TunnelTableEntry* after) {
      const TunnelTableEntry& row = after ? *after : *before;
      // What a table calls a row is its key; the row may say another.
      const std::string name =
          key == row.tunnelId().value() ? idText(row.tunnelId()) : std::to_string(key);
      const RowHops hops = after ? hopsOf(path, *after) : RowHops();
      keepHops(path, key, after ? &hops : nullptr);
      log_.change(path, {"row", name, Json::number(key), before, after, hops});
    };
  }

  void keepHops(const std::string& path, U64 key, const RowHops* hops) {
    if (!context_.style.detail) return;
    auto& kept = followed_[path].hops;
    if (hops)
      kept.insert_or_assign(key, *hops);
    else
      kept.erase(key);
  }

  // A row stays as it is when only its next hops change. Called behind the changes of rows,
  // with which hops were told.
  void tellHops() {
    if (!marked_ || !tables_) return;
    hops_->update();
    if (!hops_->anyChanged()) return;
    for (const auto& [key, value] : followed_) {
      const std::string& path = key;
      if (!value.rows || !value.watch) continue;
      value.rows->forEach([&](U64 row, const TunnelTableEntry& entry) {
        if (hops_->hasChanged(agents_[path], entry)) tellHops(path, row, entry);
      });
    }
  }
  void tellHops(const std::string& path, U64 key, const TunnelTableEntry& row) {
    const RowHops now = hopsOf(path, row);
    RowHops& told = followed_[path].hops[key];
    // Hops that are on their way are told when all have arrived.
    if (!now.known || now.hops == told.hops) return;
    const RowHops before = std::exchange(told, now);
    log_.change(path, {"row", idText(row.tunnelId()), Json::number(key), &row, &row, now,
                       before});
  }

  void pollRows() {
    if (!marked_) return;
    for (auto& [key, value] : followed_) {
      const std::string& path = key;
      Followed& followed = value;
      if (!followed.rows || !followed.watch) continue;
      const RowWatch::Sink sink = rowSink(path);
      const bool isGone = followed.rows->isRemoved();
      if (isGone || !followed.rows->isAttached()) {
        if (!openRows(path, followed, sink) && isGone) followed.rows->leave(sink);
        continue;
      }
      guardRows(path, followed, [&] {
        if (!followed.rows->poll(sink))
          log_.note(path, "overrun",
                    "more has changed than the table remembers: all rows were compared");
      });
    }
  }

  // Next hops are only asked for when they are shown. They come over a connection of their
  // own, as both connections mount the tables of next hops.
  RowHops hopsOf(const std::string& path, const TunnelTableEntry& row) {
    if (!context_.style.detail) return {!row.nexthopTunnelId().isValid(), {}};
    if (!tables_) {
      tables_ = std::make_unique<Tables>(context_);
      tables_->follow(followsNextHops);
      hops_ = std::make_unique<HopWatch>(*tables_);
    }
    std::string& agent = agents_[path];
    if (agent.empty())
      for (const Agent::TableRef& table : tables_->directory().tables())
        if (std::string_view(table.info.mountPath()) == path) {
          agent = table.agent;
          tables_->follow(agent, followsNextHops);
        }
    return tables_->hopsSoon(agent, row);
  }

  // ---- what is told ----

  // What is held now, as `show -j /` prints it.
  void writeState() const {
    Json records = Json::array();
    for (const std::string& path : sortedPaths()) {
      const Followed& followed = followed_.at(path);
      if (followed.watch) records.push(stateOf(path, *followed.watch->entity()));
    }
    std::ofstream file(options_.stateFile, std::ios::binary | std::ios::trunc);
    printJson(file, context_.style, records);
    file.close();
    if (!file) throw Failure("--state '" + options_.stateFile + "': cannot be written");
  }

  const Context& context_;
  const MonitorOptions& options_;
  EventLog log_;
  MonitorEnd end_;
  Session session_;
  std::unique_ptr<Tables> tables_;             // when next hops are shown
  std::unique_ptr<HopWatch> hops_;             // likewise
  std::map<std::string, std::string> agents_;  // of tables, by path
  std::map<std::string, Followed> followed_;
  bool marked_ = false;
};

}  // namespace

int monitor(const Context& context, const MonitorOptions& options) {
  try {
    return Monitor(context, options).run();
  } catch (const Kop::Exception& error) {
    throw Failure(error.what());
  }
}

}  // namespace Tunnelctl
