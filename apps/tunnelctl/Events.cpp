#include "apps/tunnelctl/Events.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <ostream>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace Tunnelctl {

using Clock = std::chrono::steady_clock;
using Tunnel::TunnelTable::TunnelTableEntry;

namespace {

// Local time of day for people, UTC for programs.
std::string timestamp(bool isJson) {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  std::tm parts{};
  if (isJson)
    gmtime_r(&seconds, &parts);
  else
    localtime_r(&seconds, &parts);
  char text[40];
  const std::size_t size =
      std::strftime(text, sizeof text, isJson ? "%Y-%m-%dT%H:%M:%S" : "%H:%M:%S", &parts);
  const auto fraction =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()) %
      std::chrono::seconds(1);
  char rest[8];
  std::snprintf(rest, sizeof rest, ".%03d", static_cast<int>(fraction.count()));
  return std::string(text, size) + rest + (isJson ? "Z" : "");
}

std::string hopWords(const RowHops& hops) {
  std::string words;
  for (const auto& hop : hops.hops) {
    if (!words.empty()) words += ", ";
    bool wasBlank = false;  // its columns stand two blanks apart
    for (const char c : hopText(hop)) {
      if (c != ' ' || !wasBlank) words += c;
      wasBlank = c == ' ';
    }
  }
  return words.empty() ? "none" : words;
}

// What a row says, or between two rows what differs: "metric 10 -> 20". The tunnel itself is
// said when the key does not.
std::string rowWords(const RowChange& change) {
  const auto fieldsOf = [&](const TunnelTableEntry& row) {
    RowFields fields = rowFields(row);
    if (change.key != idText(row.tunnelId()))
      fields.insert(fields.begin(), {"tunnel", idText(row.tunnelId())});
    return fields;
  };
  const RowFields now = fieldsOf(change.after ? *change.after : *change.before);
  const RowFields old = fieldsOf(change.before ? *change.before : *change.after);
  std::string words;
  for (std::size_t i = 0; i < now.size(); ++i) {
    const bool both = change.before && change.after;
    if (both && old[i].second == now[i].second) continue;
    words += (words.empty() ? "" : ", ") + now[i].first + " " +
             (both ? old[i].second + " -> " : "") + now[i].second;
  }
  if (change.hopsBefore)
    words += (words.empty() ? "" : ", ") + ("next hops " + hopWords(*change.hopsBefore)) +
             " -> " + hopWords(change.hops);
  return words;
}

void addMembers(Json& event, Json members) {
  for (std::size_t i = 0; i < members.items.size(); ++i)
    event.add(std::move(members.names[i]), std::move(members.items[i]));
}

}  // namespace

StopSignals::StopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, &before_);
  fd_ = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd_ < 0) throw Failure("signalfd failed");
}

StopSignals::~StopSignals() {
  signalfd_siginfo taken;
  while (read(fd_, &taken, sizeof taken) > 0) {
  }
  close(fd_);
  sigprocmask(SIG_SETMASK, &before_, nullptr);
}

Json EventLog::eventOf(const std::string& path, const char* what) {
  Json event = Json::object();
  event.add("time", Json::string(timestamp(true)));
  event.add("event", Json::string(what));
  if (!path.empty()) event.add("path", Json::string(path));
  return event;
}

void EventLog::print(const Json& event) {
  context_.out << writeJson(event, false) << '\n';
}

void EventLog::note(const std::string& path,
                    const char* what,
                    const std::string& detail) {
  if (context_.style.json) {
    Json event = eventOf(path, what);
    if (!detail.empty()) event.add("detail", Json::string(detail));
    return print(event);
  }
  const Style& style = context_.style;
  if (path.empty())
    context_.out << style.paint(Style::faint, "-- " + timestamp(false) + "  " + detail);
  else
    context_.out << timestamp(false) << "  " << path << "  "
                 << style.paint(Style::heading, what)
                 << (detail.empty() ? "" : "  " + detail);
  context_.out << '\n';
}

void EventLog::change(const std::string& path, const Change& change) {
  ++changes_;
  if (context_.style.json) {
    Json event = eventOf(path, "change");
    addMembers(event, changeJson(change));
    return print(event);
  }
  context_.out << timestamp(false) << "  " << path << "  "
               << changeLine(context_.style, change) << '\n';
}

void EventLog::change(const std::string& path, const RowChange& change) {
  ++changes_;
  const Style& style = context_.style;
  if (style.json) {
    Json event = eventOf(path, "change");
    event.add("member", Json::string(change.member));
    event.add("key", change.keyJson);
    event.add("change", Json::string(!change.before  ? "added"
                                     : !change.after ? "removed"
                                                     : "set"));
    if (change.before)
      event.add("old", rowJson(*change.before, change.hopsBefore.value_or(RowHops())));
    if (change.after) event.add("new", rowJson(*change.after, change.hops));
    return print(event);
  }
  const auto [sign, colour] = !change.before  ? std::pair{"+", Style::added}
                              : !change.after ? std::pair{"-", Style::removed}
                                              : std::pair{"~", Style::faint};
  context_.out << timestamp(false) << "  " << path << "  " << style.paint(colour, sign)
               << " " << style.paint(Style::key, change.member) << " " << change.key
               << "  " << rowWords(change) << '\n';
  if (style.detail && change.after && !change.hopsBefore)
    for (const std::string& line : rowDetails(*change.after, change.hops))
      context_.out << line << '\n';
}

void EventLog::mark() {
  if (context_.style.json)
    print(eventOf("", "mark"));
  else
    note("", "mark", "changes from here on");
}

void EventLog::connectionIs(Hivel::Client::State state, const std::string& reason) {
  using State = Hivel::Client::State;
  const bool isConnected = state == State::connected;
  if (state == State::connecting || isConnected == isConnected_) return;
  isConnected_ = isConnected;
  if (context_.style.json)
    note("", isConnected ? "connected" : "lost", isConnected ? "" : reason);
  else
    note("", "",
         isConnected ? "connected again"
                     : "connection lost: " + reason + "; trying again");
}

Clock::duration MonitorEnd::elapsed() const {
  return Clock::now() - begin_;
}

bool MonitorEnd::isOver(const EventLog& log, bool marked) const {
  if (options_.count && marked && log.changes() >= *options_.count) return true;
  return options_.limit && elapsed() >= *options_.limit;
}

bool MonitorEnd::wait(const std::vector<int>& fds,
                      std::optional<std::chrono::milliseconds> limit) {
  std::vector<pollfd> all{
      {stop_.fd(), POLLIN, 0}
  };
  for (const int fd : fds)
    all.push_back({fd, POLLIN, 0});
  if (options_.limit) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(*options_.limit - elapsed());
    limit = limit ? std::min(*limit, left) : left;
  }
  const int timeout =
      limit ? static_cast<int>(std::clamp<long>(limit->count(), 0, 3600 * 1000)) : -1;
  poll(all.data(), all.size(), timeout);  // an interrupted wait is one that ended early
  return (all.front().revents & POLLIN) == 0;
}

}  // namespace Tunnelctl
