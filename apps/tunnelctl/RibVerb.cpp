#include <algorithm>
#include <map>
#include <optional>
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

// The tunnel RIB at one moment: the rows of all tables that contribute, by endpoint and then
// best first. A view that follows changes (Agent::RibView) costs several times as much.
//
// Rows without an endpoint, and rows that are no tunnels of their table, are only counted.
class Rib {
 public:
  Rib(const Context& context, std::optional<IpGenPrefix> endpoint)
      : context_(context), tables_(context), endpoint_(endpoint) {
    if (context.style.json || !context.style.brief) tables_.follow(followsNextHops);
    for (Agent::TableRef& table : tables_.directory().tables())
      if (table.contributes() && table.hasRows()) collect(std::move(table));
    rows_.sort(rows_.count());
    places_.reserve(rows_.count());
    for (std::size_t i = 0; i < rows_.count(); ++i)
      places_.push_back({rows_.row(i).tep(), static_cast<U32>(i)});
    std::sort(places_.begin(), places_.end());
  }

  bool empty() const { return places_.empty(); }

  int show() {
    const Style& style = context_.style;
    JsonArray array(context_.out, style);
    if (!endpoint_) showTables(array);
    if (style.json) {
      for (std::size_t i = 0; i < places_.size(); i = endOf(i))
        array.push(endpointJson(i));
      array.finish();
    } else {
      showText();
      if (!endpoint_ && !style.brief) {
        tellHidden(withoutEndpoint_, "without an endpoint");
        tellHidden(odd_, "that --verify has something to say of");
      }
    }
    if (!fault_.empty()) throw Failure(fault_);
    tables_.needAllRead();
    return 0;
  }

 private:
  struct Place {
    IpGenPrefix endpoint;
    U32 row;  // in the order of entries
    auto operator<=>(const Place&) const = default;
  };

  void collect(Agent::TableRef table) {
    U64 count = 0;
    try {
      tables_.directory().open(table)->forEachRow([&](U64 key,
                                                      const TunnelTableEntry& row) {
        ++count;
        const IpGenPrefix endpoint = row.tep();
        if (row.tunnelId().value() != key || row.tunnelId().tunnelType() != table.type)
          ++odd_;
        else if (endpoint == IpGenPrefix())
          ++withoutEndpoint_;
        else if (!endpoint_ || *endpoint_ == endpoint)
          rows_.add(key, row);
      });
    } catch (const Kop::Exception& error) {
      if (fault_.empty()) fault_ = error.what();
    }
    counts_.emplace_back(table, count);
    byType_.insert_or_assign(table.type, std::move(table));
  }

  const Agent::TableRef& tableOf(const TunnelTableEntry& row) const {
    return byType_.at(row.tunnelId().tunnelType());
  }
  // Behind the last candidate for the endpoint at i.
  std::size_t endOf(std::size_t i) const {
    std::size_t end = i + 1;
    while (end < places_.size() && places_[end].endpoint == places_[i].endpoint)
      ++end;
    return end;
  }

  void showTables(JsonArray& array) const {
    Json records = Json::array();
    for (const auto& [table, count] : counts_) {
      Json json = Json::object();
      json.add("agent", Json::string(table.agent));
      json.add("table", Json::string(str(table.info.tableName())));
      json.add("type", Json::string(str(table.info.tableType())));
      json.add("rows", Json::number(count));
      records.push(std::move(json));
    }
    if (context_.style.json) {
      Json json = Json::object();
      json.add("tables", std::move(records));
      json.add("candidates", Json::number(U64{places_.size()}));
      json.add("withoutEndpoint", Json::number(withoutEndpoint_));
      json.add("odd", Json::number(odd_));
      array.push(json);
    } else if (!context_.style.brief && !records.items.empty()) {
      printRecords(context_.out, context_.style, records, false);
      context_.out << '\n';
    }
  }

  void tellHidden(U64 count, const char* which) const {
    if (count > 0)
      context_.out << count << (count == 1 ? " row " : " rows ") << which
                   << (count == 1 ? " is" : " are") << " not shown\n";
  }

  // How many candidates of the endpoint at i are shown.
  std::size_t shownEnd(std::size_t i) const {
    return context_.style.detail ? endOf(i) : i + 1;
  }

  Json endpointJson(std::size_t i) const {
    Json list = Json::array();
    for (std::size_t k = i; k < shownEnd(i); ++k) {
      const TunnelTableEntry row = rows_.row(places_[k].row);
      const Agent::TableRef& table = tableOf(row);
      Json json = Json::object();
      json.add("table", Json::string(str(table.info.tableName())));
      json.add("best", Json::boolean(k == i));
      Json members = rowJson(row, tables_.hops(table.agent, row));
      for (std::size_t m = 0; m < members.items.size(); ++m)
        json.add(std::move(members.names[m]), std::move(members.items[m]));
      list.push(std::move(json));
    }
    Json json = Json::object();
    json.add("endpoint", Json::string(str(places_[i].endpoint.stringValue())));
    json.add("candidates", Json::number(U64{endOf(i) - i}));
    json.add("rows", std::move(list));
    return json;
  }

  void showText() const {
    const Style& style = context_.style;
    // A table's columns with the endpoint, which the mark stands before, in front.
    const auto arrange = [](std::vector<std::string> cells, std::string first,
                            std::string candidates) {
      std::rotate(cells.begin(), cells.begin() + 2, cells.begin() + 3);
      cells.front() = std::move(first);
      if (!candidates.empty()) cells.insert(cells.begin() + 1, std::move(candidates));
      return cells;
    };
    const bool counts = !style.detail && !style.brief;
    Columns columns;
    if (!style.brief && !places_.empty())
      columns.row(arrange(rowHeading(style), "  endpoint", counts ? "rows" : ""));
    for (std::size_t i = 0; i < places_.size(); i = endOf(i)) {
      const std::string endpoint = str(places_[i].endpoint.stringValue());
      for (std::size_t k = i; k < shownEnd(i); ++k) {
        const TunnelTableEntry row = rows_.row(places_[k].row);
        const RowHops hops =
            style.brief ? RowHops() : tables_.hops(tableOf(row).agent, row);
        columns.row(arrange(rowCells(style, row, hops), (k == i ? "* " : "  ") + endpoint,
                            counts ? std::to_string(endOf(i) - i) : ""));
        if (style.detail)
          for (const std::string& line : rowDetails(row, hops))
            columns.line(line);
      }
    }
    columns.print(context_.out, style, !style.brief);
  }

  const Context& context_;
  Tables tables_;
  const std::optional<IpGenPrefix> endpoint_;            // only this one
  std::vector<std::pair<Agent::TableRef, U64>> counts_;  // rows of each table
  std::map<TunnelType, Agent::TableRef> byType_;
  RowSet rows_;
  std::vector<Place> places_;
  U64 withoutEndpoint_ = 0, odd_ = 0;
  std::string fault_;  // of the first table that cannot be read
};

}  // namespace

int rib(const Context& context, const std::string& prefix) {
  std::optional<IpGenPrefix> endpoint;
  if (!prefix.empty()) endpoint = readPrefixArgument("PREFIX", prefix);
  try {
    Rib rib(context, endpoint);
    if (endpoint && rib.empty())
      throw Failure("PREFIX '" + printable(prefix) +
                    "': no tunnel of a table that contributes ends there");
    return rib.show();
  } catch (const Kop::Exception& error) {
    throw Failure(error.what());
  }
}

}  // namespace Tunnelctl
