#include <algorithm>
#include <ostream>

#include <fnmatch.h>

#include "Kop/Exception.h"
#include "apps/tunnelctl/Identifiers.h"
#include "apps/tunnelctl/Tables.h"
#include "apps/tunnelctl/Verbs.h"

namespace Tunnelctl {

using namespace Tunnel::TunnelTable;

namespace {

std::string str(const Kop::String& text) {
  return {text.data(), text.size()};
}

struct Naming {
  std::string agent;
  TunnelId id;
  std::string name;
  std::string fault;  // empty when all three collections say it
};

// Every pair that any of the three collections knows.
std::vector<Naming> namingsOf(const std::string& agent, const TunnelNameStatus& names) {
  std::vector<TunnelIdNamePair> pairs;
  for (auto it = names.tunnelNameToIdIteratorConst(); it; it.advance())
    pairs.emplace_back(it->value, it->key());
  for (auto it = names.tunnelIdToNameIteratorConst(); it; it.advance())
    pairs.emplace_back(it->key(), it->value);
  for (auto it = names.tunnelIdNamePairIteratorConst(); it; it.advance())
    pairs.push_back(it->key());
  std::sort(pairs.begin(), pairs.end());
  pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());

  std::vector<Naming> namings;
  for (const TunnelIdNamePair& pair : pairs) {
    const TunnelId id = pair.tunnelId();
    const Kop::String& name = pair.tunnelName();
    std::string missing;
    const auto need = [&](bool there, const char* collection) {
      if (!there) missing += std::string(missing.empty() ? "" : ", ") + collection;
    };
    need(names.tunnelNameToIdHas(name) && names.tunnelNameToId(name) == id,
         "tunnelNameToId");
    need(names.tunnelIdToNameHas(id) && names.tunnelIdToName(id) == name,
         "tunnelIdToName");
    need(names.tunnelIdNamePairHas(pair), "tunnelIdNamePair");
    std::string fault;
    if (!missing.empty()) fault = "not in " + missing;
    if (id.tunnelType() != names.tunnelType())
      fault += (fault.empty() ? "" : "; ") + std::string("stands among the names of ") +
               kindText(TunnelId(TunnelId::convertToTunnelValue(names.tunnelType(), 0)));
    namings.push_back({agent, id, str(name), std::move(fault)});
  }
  return namings;
}

std::vector<Naming> allNamings(Tables& tables) {
  std::vector<Naming> all;
  for (const std::string& agent : tables.directory().agents()) {
    const auto names = tables.directory().names(agent);
    if (!names) continue;
    std::vector<TunnelType> types;
    for (auto it = names->localTunnelNameStatusIteratorConst(); it; it.advance())
      types.push_back(it.key());
    std::sort(types.begin(), types.end());
    for (const TunnelType type : types) {
      const auto status = names->localTunnelNameStatus(type);
      for (Naming& naming : namingsOf(agent, *status))
        all.push_back(std::move(naming));
    }
  }
  return all;
}

// A number, or a text that names a tunnel, picks by identifier; anything else is a glob.
bool isWanted(const Naming& naming,
              const std::string& wanted,
              const std::optional<TunnelId>& id) {
  if (wanted.empty()) return true;
  if (id && naming.id == *id) return true;
  return fnmatch(wanted.c_str(), naming.name.c_str(), 0) == 0;
}

std::optional<TunnelId> idIn(const std::string& text) {
  try {
    if (!text.empty()) return readTunnelId(text);
  } catch (const UsageError&) {
  }
  return {};
}

}  // namespace

int names(const Context& context, const std::string& wanted) {
  const Style& style = context.style;
  Tables tables(context);
  tables.follow(followsNames);
  const std::optional<TunnelId> id = idIn(wanted);
  JsonArray array(context.out, style);
  Columns columns;
  if (!style.brief) columns.row({"agent", "kind", "index", "tunnel", "name"});
  U64 shown = 0, faults = 0;
  std::string firstFault;
  for (const Naming& naming : allNamings(tables)) {
    if (!naming.fault.empty() && ++faults == 1)
      firstFault = naming.agent + ": " + idText(naming.id) + " " +
                   printable(naming.name) + ": " + naming.fault;
    if (!isWanted(naming, wanted, id)) continue;
    ++shown;
    if (style.json) {
      Json json = Json::object();
      json.add("agent", Json::string(naming.agent));
      json.add("kind", Json::string(kindText(naming.id)));
      json.add("index", Json::number(naming.id.tunnelIndex()));
      json.add("tunnelId", Json::number(naming.id.value()));
      json.add("name",
               isUtf8(naming.name)
                   ? Json::string(naming.name)
                   : Json(Json::object().add(
                         "bytes", Json::string(printable(naming.name).substr(2)))));
      json.add("error", naming.fault.empty() ? Json() : Json::string(naming.fault));
      array.push(json);
      continue;
    }
    std::vector<std::string> cells{
        naming.agent, kindText(naming.id), std::to_string(naming.id.tunnelIndex()),
        std::to_string(naming.id.value()), printable(naming.name)};
    if (style.brief) cells = {idText(naming.id), printable(naming.name)};
    if (!naming.fault.empty())
      cells.back() += style.paint(Style::removed, "  bad: " + naming.fault);
    columns.row(cells);
  }
  if (style.json)
    array.finish();
  else if (shown > 0)
    columns.print(context.out, style, !style.brief);
  tables.needAllRead();
  if (faults > 0)
    throw Failure("the collections of names differ: " + firstFault +
                  (faults > 1 ? "; " + std::to_string(faults - 1) + " more" : ""));
  if (!wanted.empty() && shown == 0)
    throw Failure("NAME '" + printable(wanted) +
                  "': no tunnel has that name or identifier");
  return 0;
}

}  // namespace Tunnelctl
