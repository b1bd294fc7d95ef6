#include "apps/tunnelctl/Output.h"

#include <algorithm>
#include <ostream>

#include "Kop/Text.h"

namespace Tunnelctl {

std::string Style::paint(Colour colour_, std::string_view text) const {
  if (!colour) return std::string(text);
  const char* start = "";
  switch (colour_) {
    case heading: start = "\033[1m"; break;
    case key: start = "\033[36m"; break;
    case added: start = "\033[32m"; break;
    case removed: start = "\033[31m"; break;
    case faint: start = "\033[2m"; break;
  }
  return start + std::string(text) + "\033[0m";
}

bool naturalLess(std::string_view a, std::string_view b) {
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  std::size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    if (isDigit(a[i]) && isDigit(b[j])) {
      while (i + 1 < a.size() && a[i] == '0' && isDigit(a[i + 1]))
        ++i;
      while (j + 1 < b.size() && b[j] == '0' && isDigit(b[j + 1]))
        ++j;
      std::size_t endA = i, endB = j;
      while (endA < a.size() && isDigit(a[endA]))
        ++endA;
      while (endB < b.size() && isDigit(b[endB]))
        ++endB;
      if (endA - i != endB - j) return endA - i < endB - j;
      const int order = a.substr(i, endA - i).compare(b.substr(j, endB - j));
      if (order != 0) return order < 0;
      i = endA;
      j = endB;
      continue;
    }
    if (a[i] != b[j])
      return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]);
    ++i;
    ++j;
  }
  if (a.size() - i != b.size() - j) return a.size() - i < b.size() - j;
  return a < b;  // equal but for leading zeros: still an order
}

std::string printable(std::string_view text) {
  const bool plain =
      !text.empty() &&
      std::none_of(
          text.begin(), text.end(),
          [](char c) { return (static_cast<unsigned char>(c) < 0x20) || c == 0x7f; }) &&
      text.front() != ' ' && text.front() != '\'' && text.back() != ' ' && isUtf8(text);
  if (plain) return std::string(text);
  if (!isUtf8(text)) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string hex = "0x";
    for (const char c : text) {
      hex += digits[static_cast<unsigned char>(c) >> 4];
      hex += digits[c & 15];
    }
    return hex;
  }
  Kop::TextOut out;
  Kop::strepWriteQuoted(out, text);
  return std::string(out.view());
}

namespace {

// Columns a terminal uses for a text in UTF-8 without wide characters.
std::size_t widthOf(std::string_view text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

}  // namespace

void Columns::row(const std::vector<std::string>& cells) {
  widths_.resize(std::max(widths_.size(), cells.size()));
  for (std::size_t i = 0; i < cells.size(); ++i) {
    text_ += cells[i];
    sizes_.push_back(static_cast<U32>(cells[i].size()));
    widths_[i] = std::max(widths_[i], static_cast<U32>(widthOf(cells[i])));
  }
  rows_.push_back(static_cast<U32>(cells.size()));
}

void Columns::line(std::string_view text) {
  text_ += text;
  sizes_.push_back(static_cast<U32>(text.size()));
  rows_.push_back(isLine);
}

void Columns::print(std::ostream& out,
                    const Style& style,
                    bool hasHeading,
                    std::size_t indent) const {
  const std::string margin(indent, ' ');
  std::string_view rest = text_;
  auto size = sizes_.begin();
  const auto next = [&] {
    const std::string_view cell = rest.substr(0, *size);
    rest.remove_prefix(*size++);
    return cell;
  };
  bool isHeading = hasHeading;
  std::string row;
  for (const U32 cells : rows_) {
    row = margin;
    if (cells == isLine) row += next();
    for (U32 i = 0; cells != isLine && i < cells; ++i) {
      const std::string_view cell = next();
      row += isHeading ? style.paint(Style::heading, cell) : std::string(cell);
      if (i + 1 < cells) row.append(widths_[i] - widthOf(cell) + 2, ' ');
    }
    row += '\n';
    out << row;
    isHeading = false;
  }
}

std::string plain(const Json& json) {
  switch (json.kind) {
    case Json::Kind::null: return "-";
    case Json::Kind::boolean: return json.flag ? "yes" : "no";
    case Json::Kind::number: return json.text;
    case Json::Kind::string: return json.text.empty() ? "-" : printable(json.text);
    case Json::Kind::array: {
      std::string all;
      for (const Json& item : json.items)
        all += (all.empty() ? "" : ", ") + plain(item);
      return all.empty() ? "-" : all;
    }
    case Json::Kind::object: break;
  }
  std::string all;
  for (std::size_t i = 0; i < json.items.size(); ++i)
    all += (all.empty() ? "" : ", ") + json.names[i] + " " + plain(json.items[i]);
  return all.empty() ? "-" : all;
}

void printJson(std::ostream& out, const Style& style, const Json& json) {
  out << writeJson(json, style.pretty) << '\n';
}

void JsonArray::push(const Json& item) {
  if (!style_.json) return;
  const std::string text = writeJson(item, style_.pretty);
  out_ << (isOpen_ ? "," : "[") << (style_.pretty ? "\n  " : "");
  isOpen_ = true;
  for (std::string_view rest = text;;) {
    const auto end = rest.find('\n');
    out_ << rest.substr(0, end);
    if (end == rest.npos) break;
    out_ << "\n  ";
    rest.remove_prefix(end + 1);
  }
}

void JsonArray::finish() {
  if (!style_.json) return;
  out_ << (isOpen_ ? (style_.pretty ? "\n]\n" : "]\n") : "[]\n");
}

void printRecords(std::ostream& out, const Style& style, const Json& records, bool down) {
  if (style.json) return printJson(out, style, records);
  if (!down) {
    Columns columns;
    for (const Json& record : records.items) {
      if (!style.brief && &record == &records.items.front()) columns.row(record.names);
      std::vector<std::string> cells;
      for (const Json& item : record.items)
        cells.push_back(plain(item));
      columns.row(std::move(cells));
    }
    return columns.print(out, style, !style.brief);
  }
  for (const Json& record : records.items) {
    if (&record != &records.items.front()) out << '\n';
    Columns columns;
    for (std::size_t i = 0; i < record.items.size(); ++i)
      columns.row({record.names[i], plain(record.items[i])});
    columns.print(out, style, false);
  }
}

}  // namespace Tunnelctl
