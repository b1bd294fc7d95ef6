#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <ostream>
#include <set>

#include "Hivel/Database.h"
#include "Kop/Exception.h"
#include "apps/linuximport/LinkStream.h"
#include "apps/linuximport/Tables.h"
#include "apps/tunnelctl/Events.h"
#include "apps/tunnelctl/Monitor.h"
#include "apps/tunnelctl/Session.h"
#include "apps/tunnelctl/ValueJson.h"
#include "apps/tunnelctl/Verbs.h"

namespace Tunnelctl {

namespace {

using namespace LinuxImport;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const Kop::TypeOps& typeOf(const Description& description) {
  static constexpr const char* names[] = {"Tunnel::L3TunnelInfo", "Tunnel::GreTunnelInfo",
                                          "Tunnel::IpsecVtiTunnelInfo",
                                          "Tunnel::VxlanTunnelInfo"};
  return *Kop::findType(names[description.index() - 1])->value->ops;
}
const void* valueOf(const Description& description) {
  return std::visit([](const auto& info) { return static_cast<const void*>(&info); },
                    description);
}

std::string joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words)
    text += (text.empty() ? "" : ", ") + word;
  return text;
}

std::string counted(U64 count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

// Brings the tunnels of the kernel into the database: once, or for as long as it runs.
//
// Everything that may refuse comes first: the kernel's whole answer, then the paths. So a
// failure leaves the tables as they were.
class Import {
 public:
  Import(const Context& context, const ImportLinuxOptions& options)
      : context_(context),
        options_(options),
        log_(context),
        end_(watching_),
        socket_(stream_,
                options.watch ? LinkSocket::Follow::yes : LinkSocket::Follow::no) {
    watching_.limit = options.limit;
    for (std::size_t which = 1; which <= tableCount; ++which)
      paths_[which - 1] = pathOf(which, options.name);
  }

  int run() {
    const auto begin = Clock::now();
    stream_.onAll = [this](const Links& links) { first_ = links; };
    if (!readAll()) return 0;
    session_ = std::make_unique<Session>(context_);
    mountAll();
    tables_.allAre(first_);
    session_->sync();
    report(Clock::now() - begin);
    if (options_.watch) watch();
    return 0;
  }

 private:
  // False when asked to stop before the kernel has answered.
  bool readAll() {
    const auto until = Clock::now() + context_.timeout;
    for (;;) {
      socket_.process();
      if (stream_.isComplete()) return true;
      const auto left = std::chrono::ceil<milliseconds>(until - Clock::now());
      if (left.count() <= 0)
        throw Failure("the kernel did not list its interfaces in time");
      if (!end_.wait({socket_.fd()}, left)) return false;
    }
  }

  // ---- paths ----

  void mountAll() {
    for (const auto& info : session_->paths("tunnel"))
      present_.insert(info.path);
    std::vector<Hivel::Mount*> mounts;
    for (std::size_t which = 1; which <= tableCount; ++which) {
      Hivel::MountOptions options;
      options.entity = tables_.entity(which);
      mounts.push_back(&session_->client().mount(paths_[which - 1], Hivel::Mode::adopt,
                                                 std::move(options)));
    }
    Hivel::Client& client = session_->client();
    client.wait(
        [&] {
          return std::all_of(mounts.begin(), mounts.end(),
                             [](const auto* mount) { return mount->settled(); });
        },
        context_.timeout);
    for (std::size_t i = 0; i < mounts.size(); ++i) {
      const Hivel::Mount& mount = *mounts[i];
      if (mount.state() == Hivel::Mount::State::live) continue;
      if (i + 1 != vxlan || !mount.reason().starts_with("the server has no type"))
        giveUp(mounts, mount.path() + ": " +
                           (mount.settled() ? mount.reason()
                                            : "the server did not answer in time"));
      tables_.takeAway(
          vxlan, mount.reason() + "; start hiveld with --types libLinuxTunnel.so.0");
    }
    if (!tables_.entity(vxlan)) {
      client.unmount(paths_[vxlan - 1]);
      mounts.pop_back();
    }
    for (Hivel::Mount* mount : mounts)
      mount->onState = [this](Hivel::Mount& changed) {
        if (changed.state() == Hivel::Mount::State::refused)
          refusal_ = changed.path() + ": " + changed.reason();
      };
  }

  // What only this attempt made goes again.
  [[noreturn]] void giveUp(const std::vector<Hivel::Mount*>& mounts,
                           const std::string& refusal) {
    Hivel::Client& client = session_->client();
    for (std::size_t i = 0; i < mounts.size(); ++i)
      client.unmount(paths_[i], !present_.contains(paths_[i]) &&
                                    mounts[i]->state() == Hivel::Mount::State::live);
    client.syncAndWait(context_.timeout);
    throw Failure(refusal);
  }

  // ---- what is shown ----

  Json describe(U32 index, const Imported& tunnel) const {
    const std::size_t which = tunnel.mapped.description.index();
    const Description& description = tunnel.mapped.description;
    Json leftOut = Json::array();
    for (const std::string& word : tunnel.mapped.leftOut)
      leftOut.push(Json::string(word));
    Json json = Json::object();
    json.add("interface", Json::string(printable(tunnel.name)));
    json.add("index", Json::number(U64{index}));
    json.add("kind", Json::string(printable(tunnel.kind)));
    json.add("path", which ? Json::string(paths_[which - 1]) : Json());
    json.add("tunnel",
             which ? toJson(typeOf(description), valueOf(description)) : Json());
    json.add("leftOut", std::move(leftOut));
    json.add("reason", which ? Json() : Json::string(printable(tunnel.mapped.reason)));
    return json;
  }
  // "gre  10.0.0.1 ..", or why not.
  std::string words(const Imported& tunnel) const {
    const Description& description = tunnel.mapped.description;
    if (description.index() == 0)
      return "not imported: " + printable(tunnel.mapped.reason);
    std::string text = toLine(typeOf(description), valueOf(description));
    if (context_.style.detail && !tunnel.mapped.leftOut.empty())
      text += "; left out: " + joined(tunnel.mapped.leftOut);
    return text;
  }

  void report(Clock::duration time) {
    const U64 imported = tables_.importedCount(), all = tables_.tunnels().size();
    const double spent = std::chrono::duration<double, std::milli>(time).count();
    char took[32];
    std::snprintf(took, sizeof took, "%.1f", spent);
    if (context_.style.json) {
      Json links = Json::array();
      for (const auto& [index, tunnel] : tables_.tunnels())
        links.push(describe(index, tunnel));
      Json json = options_.watch ? EventLog::eventOf("", "imported") : Json::object();
      json.add("tunnels", Json::number(all));
      json.add("imported", Json::number(imported));
      json.add("entriesAdded", Json::number(tables_.added()));
      json.add("entriesRemoved", Json::number(tables_.removed()));
      json.add("milliseconds", Json::number(std::string(took)));
      json.add("interfaces", std::move(links));
      if (options_.watch)
        log_.print(json);
      else
        printJson(context_.out, context_.style,
                  Json(Json::array().push(std::move(json))));
      return;
    }
    Columns columns;
    if (!context_.style.brief) {
      columns.row({"interface", "index", "kind", "tunnel"});
      for (const auto& [index, tunnel] : tables_.tunnels())
        columns.row({printable(tunnel.name), std::to_string(index),
                     printable(tunnel.kind), words(tunnel)});
      if (all > 0) columns.print(context_.out, context_.style, true);
    }
    context_.out << counted(all, "tunnel", "tunnels") << ", " << imported
                 << " imported: ";
    const std::string added =
        tables_.added() ? counted(tables_.added(), "entry added", "entries added") : "";
    const std::string removed =
        tables_.removed() ? counted(tables_.removed(), "entry removed", "entries removed")
                          : "";
    context_.out << (added + removed)
                        .insert(added.size(),
                                added.empty() || removed.empty() ? "" : ", ")
                 << (added.empty() && removed.empty() ? "nothing changed" : "") << ", "
                 << took << " ms\n";
  }

  void told(U32 index, const Imported* before, const Imported* after) {
    const Imported& tunnel = after ? *after : *before;
    const char* const what = !before ? "appeared" : !after ? "disappeared" : "changed";
    if (context_.style.json) {
      Json event = EventLog::eventOf("", "interface");
      event.add("change", Json::string(what));
      Json members = describe(index, tunnel);
      for (std::size_t i = 0; i < members.items.size(); ++i)
        event.add(std::move(members.names[i]), std::move(members.items[i]));
      return log_.print(event);
    }
    std::string text = tunnel.kind;
    if (before && after && before->name != after->name)
      text += ", was " + printable(before->name);
    if (after && (!before || before->mapped != after->mapped))
      text += ", " + words(*after);
    log_.note(printable(tunnel.name), what, text);
  }

  // ---- from here on ----

  void watch() {
    stream_.onAll = [this](const Links& links) { tables_.allAre(links); };
    stream_.onLink = [this](const Link& link) { tables_.linkIs(link); };
    stream_.onGone = [this](U32 index) { tables_.linkDel(index); };
    stream_.onRepeat = [this](const char* why) {
      log_.note("", "listing", std::string(why) + "; listing all interfaces again");
    };
    tables_.onChange = [this](U32 index, const Imported* before, const Imported* after) {
      told(index, before, after);
    };
    std::vector<ChangeSink> sinks;
    sinks.reserve(tableCount);
    std::vector<std::unique_ptr<EntityWatch>> watches;
    for (std::size_t which = 1; which <= tableCount; ++which) {
      const auto entity = tables_.entity(which);
      if (!entity) continue;
      sinks.push_back([this, path = paths_[which - 1]](const Change& change) {
        log_.change(path, change);
      });
      watches.push_back(std::make_unique<EntityWatch>(entity, "", sinks.back(), false));
    }
    Hivel::Client& client = session_->client();
    client.onState = [this](Hivel::Client::State state, const std::string& reason) {
      log_.connectionIs(state, reason);
    };
    log_.mark();
    auto relist = Clock::now() + options_.interval;
    do {
      if (Clock::now() >= relist) {
        stream_.askAgain();
        relist = Clock::now() + options_.interval;
      }
      socket_.process();
      client.process();
      while (client.wants())
        client.process();
      if (!refusal_.empty()) throw Failure(refusal_);
      context_.out.flush();
    } while (!end_.isOver(log_, true) &&
             end_.wait({socket_.fd(), client.fd()},
                       std::chrono::ceil<milliseconds>(relist - Clock::now())));
    context_.out.flush();
    client.onState = nullptr;
    session_->sync();
  }

  static constexpr std::size_t vxlan = tableCount;  // of Description's, the last

  const Context& context_;
  const ImportLinuxOptions& options_;
  MonitorOptions watching_;
  EventLog log_;
  MonitorEnd end_;
  std::string paths_[tableCount];
  LinkStream stream_;
  LinkSocket socket_;
  Links first_;
  Tables tables_;
  std::unique_ptr<Session> session_;
  std::set<std::string> present_;  // paths, before there were ours
  std::string refusal_;            // of a path that was ours
};

}  // namespace

int importLinux(const Context& context, const ImportLinuxOptions& options) {
  try {
    Hivel::checkPath(pathOf(1, options.name));
  } catch (const Kop::RangeException& error) {
    throw UsageError("--name '" + printable(options.name) + "': " + error.what());
  }
  if (options.name.find('/') != options.name.npos)
    throw UsageError("--name '" + printable(options.name) +
                     "': more than one part of a path");
  try {
    return Import(context, options).run();
  } catch (const Kop::Exception& error) {
    throw Failure(error.what());
  }
}

}  // namespace Tunnelctl
