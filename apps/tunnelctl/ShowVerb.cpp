#include <algorithm>
#include <ostream>

#include "Hivel/Exception.h"
#include "apps/tunnelctl/Session.h"
#include "apps/tunnelctl/State.h"
#include "apps/tunnelctl/Verbs.h"

namespace Tunnelctl {

namespace {

Hivel::ServerStatus statusOf(const Context& context) {
  Session session(context);
  try {
    return session.client().statusAndWait(context.timeout);
  } catch (const Hivel::RefusedException& error) {
    throw Failure(error.what());
  }
}

Json describePaths(std::vector<Hivel::PathStatus> paths, bool detail) {
  std::sort(paths.begin(), paths.end(),
            [](const auto& a, const auto& b) { return naturalLess(a.path, b.path); });
  Json records = Json::array();
  for (const Hivel::PathStatus& path : paths) {
    Json json = Json::object();
    json.add("path", Json::string(path.path));
    json.add("type", path.type.empty() ? Json() : Json::string(path.type));
    json.add("writer", path.writer.empty() ? Json() : Json::string(path.writer));
    json.add("readers", Json::number(U64{path.readers}));
    json.add("epoch", Json::number(path.epoch));
    if (detail) {
      json.add("waiting", Json::number(U64{path.waiting}));
      json.add("refusals", Json::number(path.refusals));
    }
    records.push(std::move(json));
  }
  return records;
}

Json describeConnections(const std::vector<Hivel::ConnectionStatus>& connections) {
  Json records = Json::array();
  for (const Hivel::ConnectionStatus& c : connections) {
    Json json = Json::object();
    json.add("id", Json::number(c.id));
    json.add("client", Json::string(c.client));
    json.add("pid", Json::number(U64{c.pid}));
    json.add("uid", Json::number(U64{c.uid}));
    json.add("reads", Json::number(U64{c.reads}));
    json.add("writes", Json::number(U64{c.writes}));
    json.add("messagesIn", Json::number(c.messagesIn));
    json.add("messagesOut", Json::number(c.messagesOut));
    json.add("bytesIn", Json::number(c.bytesIn));
    json.add("bytesOut", Json::number(c.bytesOut));
    json.add("bytesWaiting", Json::number(c.bytesWaiting));
    json.add("coalesced", Json::number(c.coalesced));
    json.add("catchUps", Json::number(c.catchUps));
    json.add("refusals", Json::number(c.refusals));
    records.push(std::move(json));
  }
  return records;
}

}  // namespace

int show(const Context& context, const std::string& prefix) {
  if (prefix.empty()) {
    printRecords(context.out, context.style,
                 describePaths(statusOf(context).paths, context.style.detail), false);
    return 0;
  }
  Session session(context);
  std::vector<Hivel::Mount*> mounts;
  for (const Hivel::PathInfo& info : session.paths(prefix)) {
    Hivel::MountOptions options;
    options.type = info.type;
    options.waits = false;
    mounts.push_back(&session.client().mount(info.path, Hivel::Mode::read, options));
  }
  if (mounts.empty() && !readPrefix(prefix).empty())
    throw Failure("PATH '" + prefix +
                  "': nothing is mounted there; `show` lists the paths");
  session.settle(mounts);

  Json records = Json::array();
  for (const Hivel::Mount* mount : mounts) {
    if (context.style.json) {
      records.push(stateOf(mount->path(), *mount->entity()));
      continue;
    }
    if (mount != mounts.front() && !context.style.brief) context.out << '\n';
    printState(context.out, context.style, mount->path(), *mount->entity());
  }
  if (context.style.json) printJson(context.out, context.style, records);
  return 0;
}

int status(const Context& context) {
  const Hivel::ServerStatus status = statusOf(context);
  Json server = Json::object();
  server.add("server", Json::string(status.name));
  server.add("pid", Json::number(U64{status.pid}));
  server.add("uptime", Json::number(status.uptime));
  server.add("accepted", Json::number(status.accepted));
  server.add("turnedAway", Json::number(status.turnedAway));
  server.add("refusals", Json::number(status.refusals));
  server.add("errors", Json::number(status.errors));
  Json connections = describeConnections(status.connections);
  Json paths = describePaths(status.paths, true);
  if (context.style.json) {
    server.add("connections", std::move(connections));
    server.add("paths", std::move(paths));
    printJson(context.out, context.style, Json(Json::array().push(std::move(server))));
    return 0;
  }
  printRecords(context.out, context.style, Json(Json::array().push(std::move(server))),
               false);
  context.out << '\n';
  printRecords(context.out, context.style, connections, false);
  context.out << '\n';
  printRecords(context.out, context.style, paths, false);
  return 0;
}

}  // namespace Tunnelctl
