#include "apps/tunnelctl/Json.h"

#include <unordered_set>

#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace Tunnelctl {

Json Json::boolean(bool flag) {
  Json json;
  json.kind = Kind::boolean;
  json.flag = flag;
  return json;
}
Json Json::number(std::string digits) {
  Json json;
  json.kind = Kind::number;
  json.text = std::move(digits);
  return json;
}
Json Json::number(U64 value) {
  return number(std::to_string(value));
}
Json Json::string(std::string text) {
  Json json;
  json.kind = Kind::string;
  json.text = std::move(text);
  return json;
}
Json Json::array() {
  Json json;
  json.kind = Kind::array;
  return json;
}
Json Json::object() {
  Json json;
  json.kind = Kind::object;
  return json;
}

Json& Json::add(std::string name, Json value) {
  names.push_back(std::move(name));
  items.push_back(std::move(value));
  return *this;
}
Json& Json::push(Json value) {
  items.push_back(std::move(value));
  return *this;
}
const Json* Json::find(std::string_view name) const {
  for (std::size_t i = 0; i < names.size(); ++i)
    if (names[i] == name) return &items[i];
  return nullptr;
}

std::string Json::summary() const {
  constexpr std::size_t limit = 60;
  switch (kind) {
    case Kind::null: return "null";
    case Kind::boolean: return flag ? "true" : "false";
    case Kind::array: return "an array";
    case Kind::object: return "an object";
    case Kind::number: return text.size() <= limit ? text : text.substr(0, limit) + "...";
    case Kind::string: break;
  }
  if (text.size() <= limit) return writeJson(*this, false);
  std::size_t cut = limit;
  while (cut > 0 && (text[cut] & 0xc0) == 0x80)
    --cut;
  return writeJson(string(text.substr(0, cut) + "..."), false);
}

namespace {

// Builds the document from the reader's events. Each open array or object is a level of its
// own that moves into the one above when it ends.
class Builder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Builder> {
 public:
  Builder(std::string_view text, const rapidjson::MemoryStream& stream)
      : text_(text), stream_(stream) {}

  bool Null() { return value(Json()); }
  bool Bool(bool flag) { return value(Json::boolean(flag)); }
  bool RawNumber(const char* digits, rapidjson::SizeType size, bool) {
    return value(Json::number(std::string(digits, size)));
  }
  bool String(const char* bytes, rapidjson::SizeType size, bool) {
    return value(Json::string(std::string(bytes, size)));
  }
  bool StartObject() { return open(Json::object()); }
  bool StartArray() { return open(Json::array()); }
  bool Key(const char* bytes, rapidjson::SizeType size, bool) {
    Level& level = levels_.back();
    level.name.assign(bytes, size);
    if (level.seen.insert(level.name).second) return true;
    throw JsonError(line(), path(), "this name stands twice");
  }
  bool EndObject(rapidjson::SizeType) { return close(); }
  bool EndArray(rapidjson::SizeType) { return close(); }

  U32 lineAt(std::size_t offset) {
    for (; counted_ < offset && counted_ < text_.size(); ++counted_)
      line_ += text_[counted_] == '\n';
    return line_;
  }
  // Which member is being read. An array at the top is left out: its elements are told
  // apart by their line.
  std::string path() const {
    std::string path;
    for (std::size_t i = 0; i < levels_.size(); ++i) {
      const Level& level = levels_[i];
      if (level.json.is(Json::Kind::object)) {
        if (!level.name.empty()) path += (path.empty() ? "" : ".") + level.name;
      } else if (i > 0) {
        path += "[" + std::to_string(level.json.items.size()) + "]";
      }
    }
    return path;
  }
  Json result;

 private:
  struct Level {
    Json json;
    std::string name;  // of the member being read
    std::unordered_set<std::string> seen;
  };

  U32 line() { return lineAt(stream_.Tell()); }
  bool value(Json json) {
    if (json.line == 0) json.line = line();
    if (levels_.empty())
      result = std::move(json);
    else if (levels_.back().json.is(Json::Kind::array))
      levels_.back().json.push(std::move(json));
    else
      levels_.back().json.add(std::move(levels_.back().name), std::move(json));
    return true;
  }
  bool open(Json json) {
    json.line = line();
    if (levels_.size() == maxJsonDepth)
      throw JsonError(json.line, path(),
                      "more than " + std::to_string(maxJsonDepth) + " levels deep");
    levels_.push_back({std::move(json), {}, {}});
    return true;
  }
  bool close() {
    Json json = std::move(levels_.back().json);
    levels_.pop_back();
    return value(std::move(json));
  }

  std::string_view text_;
  const rapidjson::MemoryStream& stream_;
  std::size_t counted_ = 0;
  U32 line_ = 1;
  std::vector<Level> levels_;
};

template <class Writer>
void write(Writer& writer, const Json& json) {
  const auto size = [](const std::string& text) {
    return static_cast<rapidjson::SizeType>(text.size());
  };
  switch (json.kind) {
    case Json::Kind::null: writer.Null(); break;
    case Json::Kind::boolean: writer.Bool(json.flag); break;
    case Json::Kind::number:
      writer.RawValue(json.text.data(), json.text.size(), rapidjson::kNumberType);
      break;
    case Json::Kind::string: writer.String(json.text.data(), size(json.text)); break;
    case Json::Kind::array:
      writer.StartArray();
      for (const Json& item : json.items)
        write(writer, item);
      writer.EndArray();
      break;
    case Json::Kind::object:
      writer.StartObject();
      for (std::size_t i = 0; i < json.items.size(); ++i) {
        writer.Key(json.names[i].data(), size(json.names[i]));
        write(writer, json.items[i]);
      }
      writer.EndObject();
      break;
  }
}

}  // namespace

Json parseJson(std::string_view text) {
  rapidjson::MemoryStream stream(text.data(), text.size());
  Builder builder(text, stream);
  rapidjson::Reader reader;
  // Iterative, so that the depth of the input does not become depth of the stack.
  constexpr unsigned flags = rapidjson::kParseIterativeFlag |
                             rapidjson::kParseNumbersAsStringsFlag |
                             rapidjson::kParseValidateEncodingFlag;
  reader.Parse<flags>(stream, builder);
  if (reader.HasParseError()) {
    std::string reason = rapidjson::GetParseError_En(reader.GetParseErrorCode());
    while (!reason.empty() && reason.back() == '.')
      reason.pop_back();
    throw JsonError(builder.lineAt(reader.GetErrorOffset()), builder.path(),
                    "not JSON: " + reason);
  }
  // The reader takes a NUL byte for the end of the text.
  if (stream.Tell() < text.size())
    throw JsonError(builder.lineAt(stream.Tell()), "", "not JSON: a NUL byte");
  return std::move(builder.result);
}

std::string writeJson(const Json& json, bool pretty) {
  rapidjson::StringBuffer buffer;
  if (pretty) {
    rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
    writer.SetIndent(' ', 2);
    write(writer, json);
  } else {
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    write(writer, json);
  }
  return {buffer.GetString(), buffer.GetSize()};
}

bool isUtf8(std::string_view bytes) {
  rapidjson::MemoryStream in(bytes.data(), bytes.size());
  rapidjson::StringBuffer out;
  while (in.Tell() < bytes.size())
    if (!rapidjson::UTF8<>::Validate(in, out)) return false;
  return true;
}

}  // namespace Tunnelctl
