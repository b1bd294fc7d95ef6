#include "Hivel/Database.h"

#include "Hivel/Exception.h"
#include "Kop/Module.h"

namespace Hivel {

namespace {

bool isPartChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         c == '_' || c == '-' || c == '.';
}

[[noreturn]] void throwBadPath(std::string_view path, const char* what) {
  Kop::TextOut text;
  text.append("path ");
  Kop::strepWriteQuoted(text, path.substr(0, 256));
  text.append(what);
  throw Kop::RangeException(text.string());
}

}  // namespace

void checkPath(std::string_view path) {
  if (path.empty()) throwBadPath(path, " is empty");
  if (path.size() > maxPathSize) throwBadPath(path, "... is longer than 1024 bytes");
  if (path.front() == '/') throwBadPath(path, " begins with '/'");
  if (path.back() == '/') throwBadPath(path, " ends with '/'");
  if (path.find("//") != path.npos) throwBadPath(path, " has an empty part");
  for (const char c : path)
    if (c != '/' && !isPartChar(c))
      throwBadPath(
          path,
          " has a byte other than letters, digits, '_', '-', '.' and the separator '/'");
}

void checkPrefix(std::string_view prefix) {
  if (!prefix.empty()) checkPath(prefix);
}

bool isCovered(std::string_view path, std::string_view prefix) {
  return prefix.empty() || (path.starts_with(prefix) &&
                            (path.size() == prefix.size() || path[prefix.size()] == '/'));
}

Kop::String lastPart(std::string_view path) {
  return Kop::String(path.substr(path.rfind('/') + 1));
}

std::string_view typeNameOf(const Kop::Entity& entity) {
  return Kop::typeRecord(entity.fwkType()).name;
}

Database::Database() = default;
Database::~Database() = default;

void Database::mount(std::string_view path,
                     Kop::Ptr<Kop::Entity> entity,
                     Writers writers) {
  checkPath(path);
  if (!entity) throwBadPath(path, ": there is no entity to mount");
  const auto [at, isNew] = mounts_.try_emplace(std::string(path), Mount{entity, writers});
  if (!isNew)
    throw RefusedException("path '" + at->first + "' is taken by an entity of type " +
                           std::string(typeNameOf(*at->second.entity)));
  tell({std::string(path), std::move(entity), true});
}

bool Database::unmount(std::string_view path) {
  const auto at = mounts_.find(path);
  if (at == mounts_.end()) return false;
  const Event event{at->first, at->second.entity, false};
  mounts_.erase(at);
  tell(event);
  return true;
}

Kop::Ptr<Kop::Entity> Database::find(std::string_view path) const {
  const auto at = mounts_.find(path);
  return at == mounts_.end() ? nullptr : at->second.entity;
}

Database::Writers Database::writers(std::string_view path) const {
  const auto at = mounts_.find(path);
  return at == mounts_.end() ? Writers::owner : at->second.writers;
}

std::vector<PathInfo> Database::list(std::string_view prefix) const {
  checkPrefix(prefix);
  std::vector<PathInfo> paths;
  // What lies below a prefix does not stand in one run: "a-b" is between "a" and "a/b".
  for (auto at = mounts_.lower_bound(prefix);
       at != mounts_.end() && at->first.starts_with(prefix); ++at)
    if (isCovered(at->first, prefix))
      paths.push_back({at->first, std::string(typeNameOf(*at->second.entity))});
  return paths;
}

Database::WatchId Database::watch(std::string_view prefix, Watcher watcher) {
  checkPrefix(prefix);
  watches_[++lastWatch_] =
      std::make_shared<Watch>(Watch{std::string(prefix), std::move(watcher)});
  return lastWatch_;
}

void Database::unwatch(WatchId id) {
  watches_.erase(id);
}

// By number rather than by iterator, and with a reference of its own to each: a watcher may
// remove itself or others.
void Database::tell(const Event& event) {
  const WatchId last = lastWatch_;
  for (auto at = watches_.begin(); at != watches_.end() && at->first <= last;) {
    const WatchId id = at->first;
    const std::shared_ptr<Watch> watch = at->second;
    if (isCovered(event.path, watch->prefix)) watch->watcher(event);
    at = watches_.upper_bound(id);
  }
}

}  // namespace Hivel
