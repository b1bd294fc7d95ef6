#include <algorithm>
#include <ostream>

#include "Kop/Exception.h"
#include "apps/tunnelctl/Tables.h"
#include "apps/tunnelctl/Verbs.h"

namespace Tunnelctl {

using namespace Tunnel::TunnelTable;
using Vantor::IpGenPrefix;

namespace {

std::string str(const Kop::String& text) {
  return {text.data(), text.size()};
}

class Rib {
 public:
  explicit Rib(const Context& context)
      : context_(context), tables_(context), rib_(tables_.directory()) {
    if (context.style.json || !context.style.brief) tables_.followAll();
    rib_.update();
  }

  int show(const std::string& prefix) {
    std::vector<IpGenPrefix> endpoints;
    if (prefix.empty()) {
      endpoints = rib_.endpoints();
    } else {
      endpoints.push_back(readPrefixArgument("PREFIX", prefix));
      if (rib_.rows(endpoints.front()).empty())
        throw Failure("PREFIX '" + printable(prefix) +
                      "': no tunnel of a table that contributes ends there");
    }
    const Style& style = context_.style;
    JsonArray array(context_.out, style);
    if (prefix.empty()) showTables(array);
    if (style.json) {
      for (const IpGenPrefix& endpoint : endpoints)
        array.push(endpointJson(endpoint));
      array.finish();
    } else {
      showText(endpoints);
      if (prefix.empty() && !style.brief && hidden() > 0)
        context_.out << hidden()
                     << (hidden() == 1 ? " row without an endpoint is not shown\n"
                                       : " rows without an endpoint are not shown\n");
    }
    for (const auto& [table, reason] : rib_.faults())
      throw Failure(str(table.info.mountPath()) + ": " + reason);
    tables_.needAllRead();
    return 0;
  }

 private:
  // The tables that contribute, and how many of their rows have an endpoint.
  void showTables(JsonArray& array) {
    Json records = Json::array();
    for (const Agent::TableRef& table : tables_.directory().tables()) {
      if (!table.hasRows() || !table.contributes()) continue;
      U64 rows = 0;
      try {
        rows = tables_.directory().open(table)->rowCount();
      } catch (const Kop::Exception&) {
        continue;  // told among the faults
      }
      rows_ += rows;
      Json json = Json::object();
      json.add("agent", Json::string(table.agent));
      json.add("table", Json::string(str(table.info.tableName())));
      json.add("type", Json::string(str(table.info.tableType())));
      json.add("rows", Json::number(rows));
      records.push(std::move(json));
    }
    if (context_.style.json) {
      Json json = Json::object();
      json.add("tables", std::move(records));
      json.add("endpoints", Json::number(rib_.endpointCount()));
      json.add("withoutEndpoint", Json::number(hidden()));
      array.push(json);
    } else if (!context_.style.brief && !records.items.empty()) {
      printRecords(context_.out, context_.style, records, false);
      context_.out << '\n';
    }
  }
  U64 hidden() const { return rows_ - std::min(rows_, rib_.rowCount()); }

  Json endpointJson(const IpGenPrefix& endpoint) const {
    const auto rows = rib_.rows(endpoint);
    Json list = Json::array();
    for (std::size_t i = 0; i < rows.size() && (i == 0 || context_.style.detail); ++i) {
      Json json = Json::object();
      json.add("table", Json::string(str(rows[i].table->info.tableName())));
      json.add("best", Json::boolean(i == 0));
      Json row =
          rowJson(rows[i].entry, tables_.hops(rows[i].table->agent, rows[i].entry));
      for (std::size_t k = 0; k < row.items.size(); ++k)
        json.add(std::move(row.names[k]), std::move(row.items[k]));
      list.push(std::move(json));
    }
    Json json = Json::object();
    json.add("endpoint", Json::string(str(endpoint.stringValue())));
    json.add("candidates", Json::number(U64{rows.size()}));
    json.add("rows", std::move(list));
    return json;
  }

  void showText(const std::vector<IpGenPrefix>& endpoints) const {
    const Style& style = context_.style;
    // A table's columns with the endpoint in front and the mark before it.
    const auto arrange = [](std::vector<std::string> cells, std::string first,
                            std::string candidates) {
      std::rotate(cells.begin(), cells.begin() + 2, cells.begin() + 3);
      cells.front() = std::move(first);
      if (!candidates.empty()) cells.insert(cells.begin() + 1, std::move(candidates));
      return cells;
    };
    Columns columns;
    if (!style.brief && !endpoints.empty())
      columns.row(arrange(rowHeading(style), "  endpoint", style.detail ? "" : "rows"));
    for (const IpGenPrefix& endpoint : endpoints) {
      const auto rows = rib_.rows(endpoint);
      const std::string text = str(endpoint.stringValue());
      const std::string count =
          style.detail || style.brief ? "" : std::to_string(rows.size());
      for (std::size_t i = 0; i < rows.size() && (i == 0 || style.detail); ++i) {
        const RowHops hops =
            style.brief ? RowHops() : tables_.hops(rows[i].table->agent, rows[i].entry);
        columns.row(arrange(rowCells(style, rows[i].entry, hops),
                            (i == 0 ? "* " : "  ") + text, count));
        if (style.detail)
          for (const std::string& line : rowDetails(rows[i].entry, hops))
            columns.line(line);
      }
    }
    columns.print(context_.out, style, !style.brief);
  }

  const Context& context_;
  Tables tables_;
  Agent::RibView rib_;
  U64 rows_ = 0;  // of the tables that contribute
};

}  // namespace

int rib(const Context& context, const std::string& prefix) {
  try {
    return Rib(context).show(prefix);
  } catch (const Kop::Exception& error) {
    throw Failure(error.what());
  }
}

}  // namespace Tunnelctl
