#include <ostream>

#include "Kop/Exception.h"
#include "Kop/NboAttrLogSa.h"
#include "apps/tunnelctl/ValueJson.h"
#include "apps/tunnelctl/Verbs.h"

namespace Tunnelctl {

using Kop::GenericValue;
using Kop::MemberKind;
using Kop::TypeRecord;

namespace {

std::string str(std::string_view text) {
  return std::string(text);
}

const char* kindName(Kop::Kind kind) {
  switch (kind) {
    case Kop::Kind::enumeration: return "enumeration";
    case Kop::Kind::value: return "value";
    case Kop::Kind::entity: return "entity";
  }
  return "";
}
const char* kindName(MemberKind kind) {
  switch (kind) {
    case MemberKind::attribute: return "attribute";
    case MemberKind::constant: return "constant";
    case MemberKind::function: return "function";
    case MemberKind::collection: return "collection";
    case MemberKind::enumerator: return "enumerator";
  }
  return "";
}

std::string digestText(U64 digest) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (int shift = 60; shift >= 0; shift -= 4)
    text += digits[(digest >> shift) & 15];
  return text;
}

Json describeModule(const Kop::ModuleDescriptor& module) {
  U64 counts[3] = {};
  for (const TypeRecord& type : module.types)
    ++counts[static_cast<int>(type.kind)];
  Json json = Json::object();
  json.add("module", Json::string(str(module.name)));
  json.add("digest", Json::string(digestText(module.digest)));
  json.add("enumerations", Json::number(counts[0]));
  json.add("values", Json::number(counts[1]));
  json.add("entities", Json::number(counts[2]));
  return json;
}

Json describeType(const TypeRecord& type) {
  const auto* const module = Kop::moduleOf(type);
  Json json = Json::object();
  json.add("type", Json::string(str(type.name)));
  json.add("kind", Json::string(kindName(type.kind)));
  json.add("module", module ? Json::string(str(module->name)) : Json());
  json.add("width", type.width ? Json::number(U64{type.width} * 8) : Json());
  json.add("members", Json::number(U64{type.members.size()}));
  return json;
}

// An object as it is made, to read members of: a value, or an entity that is in no database. A
// child is made by an entity of a type that has such children.
class Instance {
 public:
  explicit Instance(const TypeRecord& type) {
    if (type.value)
      value_ = GenericValue(type.value->ops);
    else if (type.entity && type.entity->make)
      entity_ = type.entity->make("");
    else if (type.entity)
      makeChild(type);
  }
  // Where the member stands; null: nowhere, as a function or a collection of an entity.
  const void* at(const Kop::MemberRecord& member) const {
    if (!member.ops || !member.ops->at) return nullptr;
    return member.ops->at(value_.get() ? value_.get() : entity_.get());
  }

 private:
  void makeChild(const TypeRecord& type) {
    for (const auto* const module : Kop::modules())
      for (const TypeRecord& other : module->types) {
        if (!other.entity || !other.entity->make) continue;
        for (const auto& attribute : other.entity->attrs) {
          const Kop::CollectionOps* const ops = attribute.collection;
          if (!ops || !ops->childType || ops->childType() != &type) continue;
          parent_ = other.entity->make("");
          entity_ = ops->childIs(*parent_, GenericValue(ops->key).get());
          return;
        }
      }
  }

  GenericValue value_;
  Kop::Ptr<Kop::Entity> parent_, entity_;
};

Json describeMember(const TypeRecord& type,
                    const Kop::MemberRecord& member,
                    const Instance& instance) {
  Json json = Json::object();
  if (type.kind == Kop::Kind::enumeration) {
    json.add("number", Json::number(U64{member.value}));
    json.add("name", Json::string(str(member.name)));
    return json;
  }
  std::string arguments;
  for (const std::string_view argument : member.arguments)
    arguments += (arguments.empty() ? "" : ", ") + str(argument);
  json.add("number", Json::number(U64{member.number}));
  json.add("name", Json::string(str(member.name)));
  json.add("kind", Json::string(kindName(member.kind)));
  json.add("type", Json::string(str(member.type)));
  const bool isCollection = member.kind == MemberKind::collection;
  json.add(isCollection ? "key" : "arguments",
           arguments.empty() ? Json() : Json::string(arguments));
  const void* const at = isCollection ? nullptr : instance.at(member);
  json.add("value", at ? toJson(*member.ops->type, at) : Json());
  return json;
}

Json describeMembers(const TypeRecord& type) {
  const Instance instance(type);
  Json members = Json::array();
  for (const Kop::MemberRecord& member : type.members)
    members.push(describeMember(type, member, instance));
  return members;
}
Json describeWhole(const TypeRecord& type) {
  Json json = describeType(type);
  json.items.back() = describeMembers(type);
  return json;
}

int showType(const Context& context, const TypeRecord& type) {
  if (context.style.json) {
    printJson(context.out, context.style, Json(Json::array().push(describeWhole(type))));
    return 0;
  }
  const auto* const module = Kop::moduleOf(type);
  context.out << context.style.paint(Style::heading, type.name) << "  "
              << kindName(type.kind)
              << (type.width ? " of " + std::to_string(type.width * 8) + " bits" : "")
              << (module ? " of " + str(module->name) : "") << '\n';
  Columns columns;
  if (!context.style.brief)
    columns.row(
        type.kind == Kop::Kind::enumeration
            ? std::vector<std::string>{"number", "name"}
            : std::vector<std::string>{"number", "name", "kind", "type", "value"});
  const Json members = describeMembers(type);
  for (const Json& member : members.items) {
    std::vector<std::string> cells;
    for (std::size_t i = 0; i < member.items.size() && i < 3; ++i)
      cells.push_back(plain(member.items[i]));
    if (type.kind != Kop::Kind::enumeration) {
      // "type(arguments)" of a function, "key -> type" of a collection.
      const std::string arguments = plain(member.items[4]);
      std::string what = plain(member.items[3]);
      if (member.names[4] == "key")
        what = arguments + " -> " + what;
      else if (cells[2] == "function")
        what += arguments == "-" ? "()" : "(" + arguments + ")";
      cells.push_back(std::move(what));
      if (!member.items[5].is(Json::Kind::null)) cells.push_back(plain(member.items[5]));
    }
    columns.row(std::move(cells));
  }
  columns.print(context.out, context.style, !context.style.brief, 2);
  return 0;
}

// A line for each module, type and member, as one build has registered them: what another one
// registered shows by diff.
void list(std::ostream& out, const Kop::ModuleDescriptor& module) {
  out << "module " << module.name << '\n';
  for (const TypeRecord& type : module.types) {
    out << &type - module.types.data() << ' '
        << (type.kind == Kop::Kind::enumeration ? "enum" : kindName(type.kind));
    if (type.width) out << type.width * 8;
    out << ' ' << type.name << '\n';
    const Instance instance(type);
    for (const Kop::MemberRecord& member : type.members) {
      out << "  " << member.number << ' ' << kindName(member.kind) << ' ' << member.name;
      if (member.kind == MemberKind::collection)
        out << ' ' << member.arguments[0] << " ->";
      if (member.kind == MemberKind::enumerator)
        out << " = " << member.value;
      else if (member.kind != MemberKind::function)
        out << ' ' << member.type;
      if (const void* const at = instance.at(member))
        out << " = " << std::string_view(GenericValue(member.ops->type, at).text());
      out << '\n';
    }
  }
}

int listAll(const Context& context, const std::string& name) {
  const auto* const wanted = name.empty() ? nullptr : Kop::findModule(name);
  if (!name.empty() && !wanted)
    throw UsageError("NAME '" + printable(name) + "': not a module; `types` lists all");
  Json types = Json::array();
  for (const auto* const module : Kop::modules()) {
    if (wanted && module != wanted) continue;
    if (!context.style.json) list(context.out, *module);
    for (const TypeRecord& type : module->types)
      if (context.style.json) types.push(describeWhole(type));
  }
  if (context.style.json) printJson(context.out, context.style, types);
  return 0;
}

}  // namespace

const TypeRecord& findTypeNamed(const std::string& name) {
  if (const TypeRecord* const type = Kop::findType(name)) return *type;
  const TypeRecord* found = nullptr;
  std::string candidates;
  for (const auto* const module : Kop::modules()) {
    for (const TypeRecord& type : module->types) {
      if (!type.name.ends_with("::" + name)) continue;
      found = &type;
      candidates += (candidates.empty() ? "" : ", ") + str(type.name);
    }
  }
  if (!found)
    throw UsageError("TYPE '" + printable(name) +
                     "': not registered; `types -d` lists all");
  if (candidates != found->name)
    throw UsageError("TYPE '" + name + "': could be any of " + candidates);
  return *found;
}

bool isReadable(const Kop::TypeOps& type) {
  const Form& form = formOf(type);
  if (form.shape == Form::Shape::collection) return false;
  if (form.shape != Form::Shape::record) return true;
  for (const auto& member : form.record->members)
    if ((member.kind == MemberKind::attribute || member.kind == MemberKind::collection) &&
        !isReadable(*member.ops->type))
      return false;
  return true;
}

int types(const Context& context, const std::string& name, bool all) {
  if (all) return listAll(context, name);
  Json records = Json::array();
  if (!name.empty()) {
    const auto* const module = Kop::findModule(name);
    if (!module) return showType(context, findTypeNamed(name));
    for (const TypeRecord& type : module->types)
      records.push(describeType(type));
  } else {
    for (const auto* const module : Kop::modules()) {
      if (!context.style.detail) {
        records.push(describeModule(*module));
        continue;
      }
      for (const TypeRecord& type : module->types)
        records.push(describeType(type));
    }
  }
  printRecords(context.out, context.style, records, false);
  return 0;
}

int value(const Context& context,
          const std::string& typeName,
          const std::optional<std::string>& text,
          const std::optional<std::string>& json) {
  const TypeRecord& type = findTypeNamed(typeName);
  if (!type.value)
    throw UsageError("TYPE '" + str(type.name) + "': is an " + kindName(type.kind) +
                     ", expected a value type");
  if (text.has_value() == json.has_value())
    throw UsageError("value: expected either TEXT or --json JSON");
  GenericValue value(type.value->ops);
  if (text) {
    if (!isReadable(*type.value->ops))
      throw UsageError("TYPE '" + str(type.name) +
                       "': holds a collection, which is not read from text; use --json");
    try {
      fromText(*type.value->ops, value.get(), *text);
    } catch (const DataError& error) {
      throw UsageError("TEXT: " + str(error.what()) + "; the default value is " +
                       std::string(GenericValue(type.value->ops).text()));
    }
  } else {
    try {
      fromJson(*type.value->ops, value.get(), parseJson(*json), Where(), Numbers::any);
    } catch (const JsonError& error) {
      throw UsageError("--json: " + (error.path.empty() ? "" : error.path + ": ") +
                       error.what());
    } catch (const DataError& error) {
      throw UsageError(str("--json: ") + error.what());
    }
  }

  const Json asJson = toJson(*value.type(), value.get());
  if (context.style.json) {
    Json record = Json::object();
    record.add("type", Json::string(str(type.name)));
    record.add("text", Json::string(std::string(value.text())));
    record.add("value", asJson);
    printJson(context.out, context.style, Json(Json::array().push(std::move(record))));
  } else if (json) {
    context.out << std::string_view(value.text()) << '\n';
  } else if (formOf(*value.type()).shape == Form::Shape::record) {
    Columns columns;
    for (const auto& member : type.members)
      if (member.kind == MemberKind::attribute)
        columns.row(
            {str(member.name), toLine(*member.ops->type, member.ops->at(value.get()))});
    columns.print(context.out, context.style, false);
  } else {
    context.out << toLine(*value.type(), value.get()) << '\n';
  }
  return 0;
}

}  // namespace Tunnelctl
