#include <algorithm>
#include <ostream>

#include <fnmatch.h>

#include "Kop/Exception.h"
#include "apps/tunnelctl/Tables.h"
#include "apps/tunnelctl/ValueJson.h"
#include "apps/tunnelctl/Verbs.h"

namespace Tunnelctl {

using namespace Tunnel::TunnelTable;
using Agent::TableRef;

namespace {

std::string str(const Kop::String& text) {
  return {text.data(), text.size()};
}

// ---- which tables there are ----

struct TableState {
  std::optional<U64> rows, changes, bytes;
  std::optional<pid_t> writer;
  bool writerAlive = false;
  std::string error;
};

TableState stateOf(const Tables& tables, const TableRef& table) {
  TableState state;
  if (!table.hasRows()) {
    if (const auto hops = tables.directory().nextHops(table.agent))
      state.rows = hops->entryCount();
    return state;
  }
  try {
    const auto reader = tables.directory().open(table);
    const Quarn::TableStats stats = reader->stats();
    state.rows = reader->rowCount();
    state.changes = reader->changeCount();
    state.bytes = stats.bytesUsed;
    state.writer = reader->writerPid();
    state.writerAlive = reader->writerAlive();
  } catch (const Kop::Exception& error) {
    state.error = error.what();
  }
  return state;
}

int listTables(const Context& context, Tables& tables) {
  // Only to count them, next hops are too much to ask for.
  if (context.style.detail) tables.follow(followsNextHops);
  const auto numberOrNull = [](const std::optional<U64>& number) {
    return number ? Json::number(*number) : Json();
  };
  Json records = Json::array();
  std::string firstError;
  for (const TableRef& table : tables.directory().tables()) {
    const TableState state = stateOf(tables, table);
    if (!state.error.empty() && firstError.empty()) firstError = state.error;
    Json json = Json::object();
    json.add("agent", Json::string(table.agent));
    json.add("table", Json::string(str(table.info.tableName())));
    json.add("type", Json::string(str(table.info.tableType())));
    json.add("rows", numberOrNull(state.rows));
    json.add("changes", numberOrNull(state.changes));
    json.add("writer",
             state.writer.value_or(0) > 0 ? Json::number(U64(*state.writer)) : Json());
    json.add("alive", state.writer ? Json::boolean(state.writerAlive) : Json());
    json.add("bytes", numberOrNull(state.bytes));
    json.add("path", Json::string(str(table.info.mountPath())));
    if (context.style.json)
      json.add("error", state.error.empty() ? Json() : Json::string(state.error));
    records.push(std::move(json));
  }
  printRecords(context.out, context.style, records, false);
  tables.needAllRead();
  if (!firstError.empty()) throw Failure(firstError);
  return 0;
}

// ---- rows ----

bool isWanted(const TableOptions& options,
              const std::optional<Vantor::IpGenPrefix>& endpoint,
              const TunnelTableEntry& row) {
  if (endpoint && !hasEndpointIn(row, *endpoint)) return false;
  if (options.glob.empty()) return true;
  const std::string name = str(row.getName());
  return fnmatch(options.glob.c_str(), name.c_str(), 0) == 0;
}

int showRows(const Context& context,
             Tables& tables,
             const TableRef& table,
             const TableOptions& options) {
  std::optional<Vantor::IpGenPrefix> endpoint;
  if (!options.endpoint.empty())
    endpoint = readPrefixArgument("--endpoint", options.endpoint);
  const Style& style = context.style;
  if (style.json || !style.brief) tables.follow(table.agent, followsNextHops);
  RowSet rows;
  const auto reader = tables.directory().open(table);
  reader->forEachRow([&](U64 key, const TunnelTableEntry& row) {
    if (isWanted(options, endpoint, row)) rows.add(key, row);
  });
  const std::size_t count = std::min<U64>(rows.count(), options.limit.value_or(~U64{0}));
  rows.sort(count);

  JsonArray array(context.out, style);
  Columns columns;
  if (!style.brief) columns.row(rowHeading(style));
  for (std::size_t i = 0; i < count; ++i) {
    const TunnelTableEntry row = rows.row(i);
    if (style.json) {
      array.push(rowJson(row, tables.hops(table.agent, row)));
      continue;
    }
    const RowHops hops = style.brief ? RowHops() : tables.hops(table.agent, row);
    columns.row(rowCells(style, row, hops));
    if (style.detail)
      for (const std::string& line : rowDetails(row, hops))
        columns.line(line);
  }
  if (style.json)
    array.finish();
  else
    columns.print(context.out, style, !style.brief);
  return 0;
}

// ---- next hops ----

int showNextHops(const Context& context, Tables& tables, const TableRef& table) {
  tables.follow(table.agent, followsNextHops);
  tables.needAllRead();
  const auto entity = tables.directory().nextHops(table.agent);
  if (!entity) throw Failure(str(table.info.mountPath()) + ": has not arrived");
  std::vector<std::pair<TunnelId, const NexthopTunnelL3Info*>> entries;
  for (auto it = entity->entryIteratorConst(); it; it.advance())
    entries.emplace_back(it->key(), &it->value);
  std::sort(entries.begin(), entries.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });

  const Style& style = context.style;
  const Kop::TypeOps& type =
      *Kop::findType("Tunnel::TunnelTable::NexthopTunnelL3Info")->value->ops;
  JsonArray array(context.out, style);
  Columns columns;
  if (!style.brief)
    columns.row({"index", "group", "hop", "address", "interface", "labels"});
  for (const auto& [id, info] : entries) {
    const U32 group = Agent::groupOf(id), hop = Agent::hopOf(id);
    if (style.json) {
      Json json = Json::object();
      json.add("tunnelId", Json::number(id.value()));
      json.add("index", Json::number(id.tunnelIndex()));
      json.add("group", Json::number(U64{group}));
      json.add("hop", Json::number(U64{hop}));
      Json members = toJson(type, info);
      for (std::size_t i = 0; i < members.items.size(); ++i)
        json.add(std::move(members.names[i]), std::move(members.items[i]));
      array.push(json);
      continue;
    }
    const Json hopParts = hopJson(*info);
    columns.row({std::to_string(id.tunnelIndex()), std::to_string(group),
                 std::to_string(hop), plain(hopParts.items[0]), plain(hopParts.items[1]),
                 labelText(info->mplsLabelStack())});
    if (style.detail) columns.line("    " + toLine(type, info));
  }
  if (style.json)
    array.finish();
  else
    columns.print(context.out, style, !style.brief);
  return 0;
}

// ---- verify ----

constexpr std::size_t maxFaults = 100;  // of one table that are told one by one

struct Faults {
  std::vector<std::string> texts;
  U64 count = 0;
  void add(std::string text) {
    if (++count <= maxFaults) texts.push_back(std::move(text));
  }
};

// The shared memory first, and only when it is sound the rows in it.
Faults faultsOf(const Tables& tables, const TableRef& table, U64& rows) {
  Faults faults;
  try {
    const auto reader = tables.directory().open(table);
    const Quarn::TableReport report = reader->verify();
    if (!report.ok()) {
      rows = report.rows;
      return {report.faults, report.faultCount};
    }
    reader->forEachRow([&](U64 key, const TunnelTableEntry& row) {
      ++rows;
      std::string fault = rowFault(table.type, key, row);
      if (fault.empty() && row.nexthopTunnelId().isValid() &&
          !tables.hops(table.agent, row).known)
        fault = "names next hops that are not there, " + idText(row.nexthopTunnelId());
      if (!fault.empty()) faults.add(idText(row.tunnelId()) + ": " + fault);
    });
  } catch (const Kop::Exception& error) {
    faults.add(error.what());
  }
  return faults;
}

int verifyTables(const Context& context, Tables& tables, const std::string& name) {
  tables.follow(followsNextHops);
  std::vector<TableRef> all = tables.directory().tables();
  if (!name.empty()) all = {tables.named(name)};
  JsonArray array(context.out, context.style);
  U64 bad = 0;
  for (const TableRef& table : all) {
    if (!table.hasRows()) continue;
    U64 rows = 0;
    const Faults faults = faultsOf(tables, table, rows);
    bad += faults.count > 0;
    const std::string tableName = str(table.info.tableName());
    if (context.style.json) {
      Json texts = Json::array();
      for (const std::string& fault : faults.texts)
        texts.push(Json::string(fault));
      Json json = Json::object();
      json.add("agent", Json::string(table.agent));
      json.add("table", Json::string(tableName));
      json.add("rows", Json::number(rows));
      json.add("faultCount", Json::number(faults.count));
      json.add("faults", std::move(texts));
      array.push(json);
      continue;
    }
    for (const std::string& fault : faults.texts)
      context.out << printable(tableName) << ": " << fault << '\n';
    if (faults.count > faults.texts.size())
      context.out << printable(tableName) << ": " << faults.count - faults.texts.size()
                  << " more faults\n";
    if (faults.count == 0 && !context.style.brief)
      context.out << printable(tableName) << ": " << rows
                  << (rows == 1 ? " row, no fault\n" : " rows, no fault\n");
  }
  array.finish();
  tables.needAllRead();
  if (bad > 0)
    throw Failure(std::to_string(bad) + (bad == 1 ? " table has" : " tables have") +
                  " faults");
  return 0;
}

}  // namespace

int table(const Context& context, const TableOptions& options) {
  const bool picks =
      !options.endpoint.empty() || !options.glob.empty() || options.limit.has_value();
  if (picks && (options.name.empty() || options.verify))
    throw UsageError(
        "--endpoint, --name and --limit pick rows: they need NAME, and no --verify");
  try {
    Tables tables(context);
    if (options.verify) return verifyTables(context, tables, options.name);
    if (options.name.empty()) return listTables(context, tables);
    const TableRef table = tables.named(options.name);
    if (table.hasRows()) return showRows(context, tables, table, options);
    if (picks)
      throw UsageError(
          "--endpoint, --name and --limit: a table of next hops has no such rows");
    return showNextHops(context, tables, table);
  } catch (const Kop::Exception& error) {
    throw Failure(error.what());
  }
}

}  // namespace Tunnelctl
