#include <fstream>
#include <iostream>
#include <iterator>
#include <ostream>

#include "apps/tunnelctl/Record.h"
#include "apps/tunnelctl/Verbs.h"

namespace Tunnelctl {

namespace {

const RecordForm& formNamed(const std::string& name) {
  if (const RecordForm* const form = findRecordForm(name)) return *form;
  std::string known;
  for (const RecordForm& form : recordForms())
    known += (known.empty() ? "" : ", ") +
             std::string(form.type.substr(form.type.rfind(':') + 1));
  throw UsageError("TYPE '" + printable(name) + "': expected one of " + known);
}

std::vector<U8> bytesOf(const RecordOptions& options) {
  if (options.hex) return bytesFromHex("--hex", *options.hex);
  std::vector<U8> bytes;
  const auto readAll = [&](std::istream& in) {
    bytes.assign(std::istreambuf_iterator<char>(in), {});
    return !in.bad();
  };
  bool good = false;
  if (options.file == "-") {
    good = readAll(std::cin);
  } else {
    std::ifstream file(options.file, std::ios::binary);
    // A directory opens, but has no bytes to look at.
    good = file && (file.peek(), !file.bad()) && readAll(file);
  }
  if (!good) throw Failure("FILE '" + printable(options.file) + "': cannot be read");
  return bytes;
}

std::string rawHex(std::span<const U8> bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string hex;
  for (const U8 byte : bytes) {
    if (!hex.empty()) hex += ' ';
    hex += digits[byte >> 4];
    hex += digits[byte & 15];
  }
  return hex;
}

void printText(const Context& context, const Record& record, std::span<const U8> bytes) {
  const Style& style = context.style;
  Columns columns;
  if (!style.brief) {
    std::vector<std::string> heading{"offset", "width", "field", "value"};
    if (style.detail) heading.push_back("bytes");
    columns.row(std::move(heading));
  }
  for (const RecordField& field : record.fields) {
    std::vector<std::string> cells;
    if (!style.brief) cells = {std::to_string(field.offset), std::to_string(field.width)};
    cells.push_back(field.name);
    cells.push_back(field.text +
                    (field.error.empty()
                         ? ""
                         : style.paint(Style::removed, "  bad: " + field.error)));
    if (style.detail) cells.push_back(rawHex(bytes.subspan(field.offset, field.width)));
    columns.row(std::move(cells));
  }
  columns.print(context.out, style, !style.brief);
}

Json recordJson(const Style& style,
                const RecordForm& form,
                U64 offset,
                const Record& record,
                std::span<const U8> bytes,
                const std::string& error) {
  Json fields = Json::array();
  for (const RecordField& field : record.fields) {
    Json json = Json::object();
    json.add("field", Json::string(field.name));
    json.add("offset", Json::number(field.offset));
    json.add("width", Json::number(U64{field.width}));
    json.add("value", field.value);
    json.add("text", Json::string(field.text));
    if (style.detail)
      json.add("bytes", Json::string(rawHex(bytes.subspan(field.offset, field.width))));
    json.add("error", field.error.empty() ? Json() : Json::string(field.error));
    fields.push(std::move(json));
  }
  Json json = Json::object();
  json.add("type", Json::string(std::string(form.type)));
  json.add("offset", Json::number(offset));
  json.add("size", Json::number(record.size));
  json.add("error", error.empty() ? Json() : Json::string(error));
  json.add("fields", std::move(fields));
  return json;
}

}  // namespace

int record(const Context& context, const RecordOptions& options) {
  const RecordForm& form = formNamed(options.type);
  const std::vector<U8> bytes = bytesOf(options);
  const std::string source = options.hex ? "--hex" : printable(options.file);
  JsonArray array(context.out, context.style);
  std::string firstError;
  U64 count = 0, bad = 0, offset = 0;
  do {
    const auto rest = std::span<const U8>(bytes).subspan(offset);
    const Record record = readRecord(form, rest);
    std::string error = record.error;
    if (record.errors > 1)
      error += "; " + std::to_string(record.errors - 1) + " more bad fields";
    if (record.errors > 0)
      error += "; " + std::to_string(rest.size()) + " bytes are there";
    if (error.empty() && !options.all && record.size < rest.size())
      error = "the record ends at offset " + std::to_string(record.size) + ", but " +
              std::to_string(rest.size()) +
              " bytes are there; --all reads one after another";
    if (context.style.json) {
      array.push(recordJson(context.style, form, offset, record, rest, error));
    } else {
      if (options.all && !context.style.brief)
        context.out << (count > 0 ? "\n" : "")
                    << context.style.paint(Style::heading,
                                           "record " + std::to_string(count))
                    << "  offset " << offset << ", " << record.size << " bytes\n";
      printText(context, record, rest);
    }
    if (!error.empty() && ++bad == 1)
      firstError = source + ": " +
                   (options.all ? "record " + std::to_string(count) +
                                      ", which begins at " + std::to_string(offset) + ": "
                                : "") +
                   error;
    ++count;
    offset += record.size;
    // Behind a record that cannot be read to its end no other one is found.
    if (!record.complete) break;
  } while (options.all && offset < bytes.size());
  array.finish();
  if (bad > 1) firstError += "; " + std::to_string(bad - 1) + " more bad records";
  if (bad > 0) throw Failure(firstError);
  return 0;
}

}  // namespace Tunnelctl
