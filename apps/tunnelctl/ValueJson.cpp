#include "apps/tunnelctl/ValueJson.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <map>
#include <unordered_set>

#include "Kop/Exception.h"
#include "Kop/GenericIfImpl.h"
#include "apps/tunnelctl/Output.h"

namespace Tunnelctl {

using Kop::GenericValue;
using Kop::MemberKind;
using Kop::MemberRecord;
using Kop::TypeOps;
using Shape = Form::Shape;

namespace {

std::string textOf(const TypeOps& type, const void* value) {
  Kop::TextOut out;
  type.text(out, value);
  return std::string(out.view());
}

// Reads the whole text.
void parseText(const TypeOps& type, void* value, const Kop::String& text) {
  Kop::TextIt it = text.begin();
  type.parse(value, it, text.end(), "value");
  Kop::needEndOfText(it, text.end());
}

std::string unquoted(const std::string& text) {
  const Kop::String quoted(text);
  Kop::TextIt it = quoted.begin();
  const auto bytes = Kop::readAttr<Kop::String>(it, quoted.end(), "text");
  return std::string(bytes.data(), bytes.size());
}
Kop::String quotedForm(std::string_view bytes) {
  Kop::TextOut out;
  Kop::strepWriteQuoted(out, bytes);
  return out.string();
}

bool isNumberStart(char c) {
  return (c >= '0' && c <= '9') || c == '-';
}

Form findForm(const TypeOps& type) {
  if (type.elements) return {Shape::collection, nullptr};
  const Kop::TypeRecord* record = type.record();
  if (record && record->kind == Kop::Kind::enumeration)
    return {Shape::enumeration, record};
  // What the default value is written as tells how every value is.
  const std::string text = textOf(type, GenericValue(&type).get());
  if (record && text.starts_with("Value(")) return {Shape::record, record};
  if (text == "True" || text == "False") return {Shape::boolean, nullptr};
  if (text.starts_with('\'')) return {Shape::quoted, nullptr};
  if (!text.empty() && isNumberStart(text[0])) return {Shape::number, nullptr};
  return {Shape::word, nullptr};
}

// Whether an enumeration's values are combined: three or more of its enumerators are not 0,
// and no two of them share a bit. Counted enumerators do: 3 is 1 and 2.
bool isFlags(const Kop::TypeRecord& record) {
  U32 bits = 0, count = 0;
  for (const MemberRecord& member : record.members) {
    if ((bits & member.value) != 0) return false;
    bits |= member.value;
    count += member.value != 0;
  }
  return count >= 3;
}

// The names of the flags that a number is made of; none when it has other bits.
std::vector<std::string_view> flagsOf(const Kop::TypeRecord& record, U32 number) {
  std::vector<std::string_view> names;
  for (const MemberRecord& member : record.members) {
    if (member.value == 0 || (number & member.value) != member.value) continue;
    names.push_back(member.name);
    number &= ~member.value;
  }
  if (number != 0) names.clear();
  return names;
}

// Whether a number stands for enumerators: it has no bit that none of them has.
bool isOfFlags(const Kop::TypeRecord& record, const Json& json) {
  if (!json.is(Json::Kind::number) || !isFlags(record)) return false;
  U32 number = 0, known = 0;
  const char* const end = json.text.data() + json.text.size();
  if (std::from_chars(json.text.data(), end, number).ptr != end) return false;
  for (const MemberRecord& member : record.members)
    known |= member.value;
  return (number & ~known) == 0;
}

Json enumerationToJson(const Kop::TypeRecord& record, std::string text) {
  if (!isNumberStart(text[0])) return Json::string(std::move(text));
  U32 number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  const auto flags =
      isFlags(record) ? flagsOf(record, number) : std::vector<std::string_view>();
  if (!flags.empty()) {
    Json json = Json::array();
    for (const std::string_view flag : flags)
      json.push(Json::string(std::string(flag)));
    return json;
  }
  Json bare = Json::number(std::move(text));
  if (isOfFlags(record, bare)) return bare;
  return Json(Json::object().add("number", std::move(bare)));
}

Json bytesOrString(std::string bytes) {
  if (isUtf8(bytes)) return Json::string(std::move(bytes));
  static constexpr char digits[] = "0123456789abcdef";
  std::string hex;
  for (const char c : bytes) {
    hex += digits[static_cast<unsigned char>(c) >> 4];
    hex += digits[c & 15];
  }
  Json json = Json::object();
  json.add("bytes", Json::string(std::move(hex)));
  return json;
}

[[noreturn]] void fail(const Json& json, const Where& where, const std::string& reason) {
  throw DataError(json.line, where.text(), reason);
}
[[noreturn]] void failExpected(const TypeOps& type,
                               const Json& json,
                               const Where& where) {
  fail(json, where, "found " + json.summary() + ", expected " + expected(type));
}

// An array of enumerators becomes the number that has the bits of them all.
Json joinedFlags(const TypeOps& type, const Json& json, const Where& where) {
  const Kop::TypeRecord& record = *type.record();
  U32 number = 0;
  for (std::size_t i = 0; i < json.items.size(); ++i) {
    const Json& item = json.items[i];
    const std::string index = "[" + std::to_string(i) + "]";
    const auto flag = std::find_if(
        record.members.begin(), record.members.end(),
        [&](const MemberRecord& member) { return member.name == item.text; });
    if (!item.is(Json::Kind::string) || flag == record.members.end())
      failExpected(type, item, Where{&where, index});
    number |= flag->value;
  }
  Json joined = Json::number(number);
  joined.line = json.line;
  return joined;
}

std::string bytesFromHex(const Json& json, const Where& where) {
  const Json* hex = json.find("bytes");
  if (json.items.size() != 1 || !hex || !hex->is(Json::Kind::string) ||
      hex->text.size() % 2 != 0)
    fail(json, where, "found an object, expected a string or {\"bytes\": \"<hex>\"}");
  std::string bytes;
  for (std::size_t i = 0; i < hex->text.size(); i += 2) {
    U8 byte = 0;
    const char* const at = hex->text.data() + i;
    if (std::from_chars(at, at + 2, byte, 16).ptr != at + 2)
      fail(json, where, "found " + hex->summary() + ", expected hexadecimal digits");
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

// A number as the types' own readers want it: floats in their shortest form.
std::string numberText(const TypeOps& type, const Json& json, const Where& where) {
  if (json.text.find_first_of(".eE") == std::string::npos) return json.text;
  float number = 0;
  const char* const end = json.text.data() + json.text.size();
  const auto read = std::from_chars(json.text.data(), end, number);
  if (read.ec != std::errc() || read.ptr != end) failExpected(type, json, where);
  return std::string(Kop::strepOf(number));
}

void scalarFromText(const TypeOps& type,
                    void* value,
                    const Kop::String& text,
                    const Json& json,
                    const Where& where) {
  try {
    parseText(type, value, text);
  } catch (const Kop::RangeException& error) {
    // Of a built-in type, what is expected says it all.
    if (!type.record()) failExpected(type, json, where);
    fail(json, where, "found " + json.summary() + ": " + reasonOf(error));
  } catch (const Kop::Exception&) {
    failExpected(type, json, where);
  }
}

void recordFromJson(const Kop::TypeRecord& record,
                    const TypeOps& type,
                    void* value,
                    const Json& json,
                    const Where& where,
                    Numbers numbers) {
  if (!json.is(Json::Kind::object)) failExpected(type, json, where);
  for (std::size_t i = 0; i < json.items.size(); ++i) {
    const Where inner{&where, json.names[i]};
    const MemberRecord* member = record.member(std::string_view(json.names[i]));
    if (!member || !isStored(*member)) {
      std::string known;
      for (const MemberRecord& m : record.members)
        if (isStored(m)) known += (known.empty() ? "" : ", ") + std::string(m.name);
      fail(json.items[i], inner,
           std::string(record.name) + " has no such member; it has " + known);
    }
    // The value is ours, so what its description shows may be written.
    fromJson(*member->ops->type, const_cast<void*>(member->ops->at(value)), json.items[i],
             inner, numbers);
  }
}

// The member of a record that repeats its key, or null: the first of the key's type.
const MemberRecord* memberLikeKey(const TypeOps& value, const TypeOps& key) {
  const Form& form = formOf(value);
  if (form.shape != Shape::record) return nullptr;
  for (const MemberRecord& member : form.record->members)
    if (isStored(member) && member.ops->type->name == key.name) return &member;
  return nullptr;
}

void eachElement(const TypeOps& type,
                 const void* collection,
                 const std::function<void(const void* key, const void* value)>& visit) {
  type.elements->each(
      collection, const_cast<void*>(static_cast<const void*>(&visit)),
      [](void* context, const void* key, const void* value) {
        (*static_cast<const std::function<void(const void*, const void*)>*>(context))(
            key, value);
      });
}

// Elements in the natural order of their keys' texts; those of an ordered map in its own.
std::vector<std::pair<std::string, std::pair<const void*, const void*>>> sortedElements(
    const TypeOps& type, const void* collection) {
  std::vector<std::pair<std::string, std::pair<const void*, const void*>>> all;
  eachElement(type, collection, [&](const void* key, const void* value) {
    all.push_back({
        textOf(*type.elements->key, key), {key, value}
    });
  });
  if (!type.name.starts_with("Kop::RbTreeMap"))
    std::sort(all.begin(), all.end(),
              [](const auto& a, const auto& b) { return naturalLess(a.first, b.first); });
  return all;
}

// Elements by index: told in their order, not by name.
bool isArray(const TypeOps& type) {
  return type.elements && type.name == "Kop::PodArray";
}

Json arrayToJson(const TypeOps& type, const void* array) {
  Json json = Json::array();
  eachElement(type, array, [&](const void*, const void* value) {
    json.push(toJson(*type.elements->value, value));
  });
  return json;
}

Json collectionToJson(const TypeOps& type, const void* collection) {
  if (isArray(type)) return arrayToJson(type, collection);
  const TypeOps& keyType = *type.elements->key;
  const TypeOps* const valueType = type.elements->value;
  const auto elements = sortedElements(type, collection);
  const bool named =
      valueType && std::all_of(elements.begin(), elements.end(), [&](const auto& e) {
        return isName(keyType, e.second.first);
      });
  Json json = named ? Json::object() : Json::array();
  for (const auto& [text, element] : elements) {
    if (named) {
      json.add(keyName(keyType, element.first), toJson(*valueType, element.second));
    } else if (!valueType) {
      json.push(toJson(keyType, element.first));
    } else {
      Json pair = Json::object();
      pair.add("key", toJson(keyType, element.first));
      pair.add("value", toJson(*valueType, element.second));
      json.push(std::move(pair));
    }
  }
  return json;
}

// An element beyond the last place is refused by the type of the index.
void arrayFromJson(const TypeOps& type,
                   void* array,
                   const Json& json,
                   const Where& where,
                   Numbers numbers) {
  if (!json.is(Json::Kind::array)) failExpected(type, json, where);
  GenericValue read(&type);
  for (std::size_t i = 0; i < json.items.size(); ++i) {
    const Json& item = json.items[i];
    const std::string index = std::to_string(i), place = "[" + index + "]";
    const Where inner{&where, place};
    const GenericValue key =
        keyFromName(*type.elements->key, index, item.line, inner, numbers);
    GenericValue element(type.elements->value);
    fromJson(*type.elements->value, element.get(), item, inner, numbers);
    type.elements->insert(read.get(), key.get(), element.get());
  }
  type.assign(array, read.get());
}

}  // namespace

bool isStored(const MemberRecord& member) {
  return member.ops && member.ops->at &&
         (member.kind == MemberKind::attribute || member.kind == MemberKind::collection);
}

std::string Where::text() const {
  const std::string above = up ? up->text() : "";
  if (name.empty()) return above;
  if (above.empty() || name.starts_with('[')) return above + std::string(name);
  return above + "." + std::string(name);
}

const Form& formOf(const TypeOps& type) {
  thread_local std::map<const TypeOps*, Form> forms;
  const auto found = forms.find(&type);
  return found != forms.end() ? found->second
                              : forms.emplace(&type, findForm(type)).first->second;
}

const TypeOps& stringType() {
  return Kop::TypeOpsOf<Kop::String>::ops;
}

std::string expected(const TypeOps& type) {
  const auto upTo = [](const char* limit) {
    return std::string("a number from 0 to ") + limit;
  };
  if (type.name == "U8") return upTo("255");
  if (type.name == "U16") return upTo("65535");
  if (type.name == "U32") return upTo("4294967295");
  if (type.name == "U64") return upTo("18446744073709551615");
  if (type.name == "float") return "a number or one of \"inf\", \"-inf\", \"nan\"";
  if (type.name == "Kop::String") return "a string";
  const Form& form = formOf(type);
  switch (form.shape) {
    case Shape::boolean: return "true or false";
    case Shape::enumeration: {
      std::string names;
      for (const MemberRecord& member : form.record->members)
        names += (names.empty() ? "one of " : ", ") + std::string(member.name);
      return isFlags(*form.record) ? names + ", or an array of them" : names;
    }
    case Shape::record: return "an object, a " + std::string(type.name);
    case Shape::collection: return isArray(type) ? "an array" : "an array or an object";
    case Shape::number: return "a number that is a " + std::string(type.name);
    case Shape::quoted:
    case Shape::word: break;
  }
  return "a string that is a " + std::string(type.name);
}

bool isName(const TypeOps& type, const void* key) {
  return formOf(type).isScalar() && !toJson(type, key).is(Json::Kind::object);
}

Json toJson(const TypeOps& type, const void* value) {
  const Form& form = formOf(type);
  if (form.shape == Shape::collection) return collectionToJson(type, value);
  if (form.shape == Shape::record) {
    Json json = Json::object();
    for (const MemberRecord& member : form.record->members)
      if (isStored(member))
        json.add(std::string(member.name),
                 toJson(*member.ops->type, member.ops->at(value)));
    return json;
  }
  std::string text = textOf(type, value);
  switch (form.shape) {
    case Shape::boolean: return Json::boolean(text == "True");
    case Shape::quoted: return bytesOrString(unquoted(text));
    case Shape::enumeration: return enumerationToJson(*form.record, std::move(text));
    case Shape::number: {
      const char last = text.empty() ? ' ' : text.back();  // "-inf" ends in a letter
      if (!text.empty() && isNumberStart(text[0]) && last >= '0' && last <= '9')
        return Json::number(std::move(text));
      return Json::string(std::move(text));
    }
    default: return bytesOrString(std::move(text));
  }
}

std::string keyName(const TypeOps& type, const void* key) {
  const Json json = toJson(type, key);
  if (json.is(Json::Kind::boolean)) return json.flag ? "true" : "false";
  if (json.is(Json::Kind::string) || json.is(Json::Kind::number)) return json.text;
  return textOf(type, key);
}

void fromJson(const TypeOps& type,
              void* value,
              const Json& json,
              const Where& where,
              Numbers numbers) {
  const Form& form = formOf(type);
  using Kind = Json::Kind;
  switch (form.shape) {
    case Shape::collection: {
      if (isArray(type)) return arrayFromJson(type, value, json, where, numbers);
      GenericValue empty(&type);
      for (const Entry& entry : readEntries(*type.elements->key, type.elements->value,
                                            false, json, where, numbers))
        type.elements->insert(empty.get(), entry.key.get(), entry.value.get());
      type.assign(value, empty.get());
      return;
    }
    case Shape::record:
      return recordFromJson(*form.record, type, value, json, where, numbers);
    case Shape::boolean:
      if (!json.is(Kind::boolean)) failExpected(type, json, where);
      return parseText(type, value, json.flag ? "True" : "False");
    case Shape::quoted: {
      if (!json.is(Kind::string) && !json.is(Kind::object))
        failExpected(type, json, where);
      const std::string bytes =
          json.is(Kind::string) ? json.text : bytesFromHex(json, where);
      return scalarFromText(type, value, quotedForm(bytes), json, where);
    }
    case Shape::number: {
      // Words such as "inf" are strings; digits in quotes are a mistake.
      const bool isWord = json.is(Kind::string) && !json.text.empty() &&
                          json.text.find_first_of("0123456789") == std::string::npos;
      if (!json.is(Kind::number) && !isWord) failExpected(type, json, where);
      return scalarFromText(
          type, value, isWord ? json.text : numberText(type, json, where), json, where);
    }
    case Shape::enumeration: {
      const bool isName =
          json.is(Kind::string) && !json.text.empty() && !isNumberStart(json.text[0]);
      if (json.is(Kind::array) && isFlags(*form.record)) {
        const Json joined = joinedFlags(type, json, where);
        return scalarFromText(type, value, joined.text, joined, where);
      }
      const Json* const odd = json.is(Kind::object) ? json.find("number") : nullptr;
      if (odd && odd->is(Kind::number) && json.items.size() == 1)
        return scalarFromText(type, value, odd->text, *odd, where);
      const bool taken =
          numbers == Numbers::any ? json.is(Kind::number) : isOfFlags(*form.record, json);
      if (!isName && !taken) failExpected(type, json, where);
      return scalarFromText(type, value, json.text, json, where);
    }
    case Shape::word:
      if (!json.is(Kind::string) && !json.is(Kind::object))
        failExpected(type, json, where);
      return scalarFromText(type, value,
                            json.is(Kind::string) ? json.text : bytesFromHex(json, where),
                            json, where);
  }
}

GenericValue keyFromName(const TypeOps& type,
                         std::string_view name,
                         U32 line,
                         const Where& where,
                         Numbers numbers) {
  Json json = Json::string(std::string(name));
  json.line = line;
  GenericValue key(&type);
  const Form& form = formOf(type);
  switch (form.shape) {
    case Shape::boolean:
      if (name != "true" && name != "false") failExpected(type, json, where);
      json = Json::boolean(name == "true");
      break;
    case Shape::number:
      if (name.empty() || !isNumberStart(name[0])) break;
      scalarFromText(type, key.get(), json.text, json, where);
      return key;
    case Shape::enumeration:
      if (name.empty() || !isNumberStart(name[0])) break;
      if (numbers == Numbers::declared &&
          !isOfFlags(*form.record, Json::number(std::string(name))))
        break;
      scalarFromText(type, key.get(), json.text, json, where);
      return key;
    case Shape::record:
      scalarFromText(type, key.get(), json.text, json, where);
      return key;
    case Shape::quoted:
    case Shape::word:
    case Shape::collection: break;
  }
  json.line = line;
  fromJson(type, key.get(), json, where, numbers);
  return key;
}

namespace {

// Reads one entry into `entries`; helps readEntries keep one copy of the rules.
class EntryReader {
 public:
  EntryReader(const TypeOps& key, const TypeOps* value, Numbers numbers)
      : key_(key),
        value_(value),
        numbers_(numbers),
        like_(value ? memberLikeKey(*value, key) : nullptr) {}

  std::vector<Entry> entries;

  GenericValue keyOf(const Json& json, const Where& where) const {
    GenericValue key(&key_);
    fromJson(key_, key.get(), json, where, numbers_);
    return key;
  }
  GenericValue keyNamed(std::string_view name, U32 line, const Where& where) const {
    return keyFromName(key_, name, line, where, numbers_);
  }
  bool isFlag() const { return value_ && value_->name == "bool"; }
  bool keyIsRecordWith(std::string_view name) const {
    const Form& form = formOf(key_);
    return form.shape == Shape::record && form.record->member(name);
  }

  void add(GenericValue key, const Json* json, const Where& where, U32 line) {
    GenericValue value;
    if (value_) {
      value = GenericValue(value_);
      if (like_) key_.assign(const_cast<void*>(like_->ops->at(value.get())), key.get());
      if (json)
        fromJson(*value_, value.get(), *json, where, numbers_);
      else
        parseText(*value_, value.get(), "True");
    }
    once(key, where, line);
    entries.push_back({std::move(key), std::move(value)});
  }
  // The value holds its key.
  void addBare(const Json& json, const Where& where) {
    GenericValue value(value_);
    fromJson(*value_, value.get(), json, where, numbers_);
    if (!json.find(like_->name))
      fail(json, where, "the member " + std::string(like_->name) + " is missing");
    GenericValue key(&key_, like_->ops->at(value.get()));
    once(key, where, json.line);
    entries.push_back({std::move(key), std::move(value)});
  }
  // An entry must be found again under its own key.
  void needKeyInside(const Json& json, const Where& where) const {
    const Entry& entry = entries.back();
    if (like_ && !key_.equal(like_->ops->at(entry.value.get()), entry.key.get()))
      fail(json, where,
           "the member " + std::string(like_->name) + " differs from the key");
  }
  const MemberRecord* like() const { return like_; }

 private:
  void once(const GenericValue& key, const Where& where, U32 line) {
    if (!seen_.insert(textOf(key_, key.get())).second)
      throw DataError(line, where.text(), "this key stands twice");
  }
  const TypeOps& key_;
  const TypeOps* value_;
  Numbers numbers_;
  const MemberRecord* like_;
  std::unordered_set<std::string> seen_;
};

}  // namespace

std::vector<Entry> readEntries(const TypeOps& key,
                               const TypeOps* value,
                               bool keyInside,
                               const Json& json,
                               const Where& where,
                               Numbers numbers) {
  EntryReader reader(key, value, numbers);
  if (json.is(Json::Kind::object)) {
    for (std::size_t i = 0; i < json.items.size(); ++i) {
      const Json& item = json.items[i];
      const Where inner{&where, json.names[i]};
      if (!value) {
        if (!item.is(Json::Kind::boolean))
          fail(item, inner, "found " + item.summary() + ", expected true or false");
        if (!item.flag) continue;
      }
      reader.add(reader.keyNamed(json.names[i], item.line, inner), &item, inner,
                 item.line);
      if (keyInside) reader.needKeyInside(item, inner);
    }
    return std::move(reader.entries);
  }
  if (!json.is(Json::Kind::array))
    fail(json, where, "found " + json.summary() + ", expected an array or an object");
  for (std::size_t i = 0; i < json.items.size(); ++i) {
    const Json& item = json.items[i];
    const std::string index = "[" + std::to_string(i) + "]";
    const Where inner{&where, index};
    const Json* const keyJson = item.is(Json::Kind::object) ? item.find("key") : nullptr;
    if (value && keyJson && !(keyInside && reader.like()->name == "key") &&
        !(reader.isFlag() && reader.keyIsRecordWith("key"))) {
      for (std::size_t k = 0; k < item.names.size(); ++k)
        if (item.names[k] != "key" && item.names[k] != "value")
          fail(item.items[k], Where{&inner, item.names[k]},
               "no such member; an entry has key and value");
      const Json* const valueJson = item.find("value");
      if (!valueJson && !reader.isFlag())
        fail(item, inner, "the member value is missing");
      const Where keyWhere{&inner, "key"}, valueWhere{&inner, "value"};
      reader.add(reader.keyOf(*keyJson, keyWhere), valueJson, valueWhere, item.line);
      if (keyInside) reader.needKeyInside(item, inner);
    } else if (!value || reader.isFlag()) {
      reader.add(reader.keyOf(item, inner), nullptr, inner, item.line);
    } else if (keyInside && reader.like()) {
      reader.addBare(item, inner);
    } else {
      fail(item, inner,
           "found " + item.summary() + ", expected {\"key\": .., \"value\": ..}");
    }
  }
  return std::move(reader.entries);
}

std::string toWords(const TypeOps& type, const void* key) {
  const Form& form = formOf(type);
  if (form.isScalar()) {
    const Json json = toJson(type, key);
    if (json.is(Json::Kind::boolean)) return json.flag ? "true" : "false";
    if (const Json* const number = json.find("number")) return number->text;
    if (json.is(Json::Kind::object)) return plain(json);
    if (json.is(Json::Kind::array)) {  // flags
      std::string flags;
      for (const Json& flag : json.items)
        flags += (flags.empty() ? "" : "|") + flag.text;
      return flags;
    }
    return printable(json.text);
  }
  std::string words;
  if (form.shape == Shape::record) {
    // More than a few values without names tell nobody which is which.
    constexpr auto fewMembers = 3;
    const auto& members = form.record->members;
    if (std::count_if(members.begin(), members.end(), isStored) > fewMembers)
      return toLine(type, key);
    for (const MemberRecord& member : members)
      if (isStored(member))
        words +=
            (words.empty() ? "" : " ") + toWords(*member.ops->type, member.ops->at(key));
    return words;
  }
  if (isArray(type)) {
    eachElement(type, key, [&](const void*, const void* value) {
      words += (words.empty() ? "" : ", ") + toWords(*type.elements->value, value);
    });
    return "[" + words + "]";
  }
  for (const auto& [text, element] : sortedElements(type, key)) {
    words += (words.empty() ? "" : ", ") + toWords(*type.elements->key, element.first);
    if (type.elements->value)
      words += ": " + toWords(*type.elements->value, element.second);
  }
  return "{" + words + "}";
}

std::string toLine(const TypeOps& type,
                   const void* value,
                   const TypeOps* keyType,
                   const void* key) {
  const Form& form = formOf(type);
  if (form.shape != Shape::record) return toWords(type, value);
  std::string line;
  const MemberRecord* const like = key ? memberLikeKey(type, *keyType) : nullptr;
  for (const MemberRecord& member : form.record->members) {
    if (!isStored(member)) continue;
    const TypeOps& inner = *member.ops->type;
    const void* const at = member.ops->at(value);
    if (&member == like && inner.equal(at, key)) continue;
    std::string words = toWords(inner, at);
    if (formOf(inner).shape == Shape::record) words = "(" + words + ")";
    line += (line.empty() ? "" : ", ") + std::string(member.name) + " " + words;
  }
  return line.empty() ? "{}" : line;
}

}  // namespace Tunnelctl
