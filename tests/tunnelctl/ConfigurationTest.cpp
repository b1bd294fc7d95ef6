#include <gtest/gtest.h>

#include "apps/tunnelctl/Configuration.h"
#include "tests/Support/Rows.h"
#include "tests/tunnelctl/RandomValues.h"

namespace Tunnelctl {
namespace {

// A configuration of which only the members are given, from its fourth line on.
std::string document(const std::string& members) {
  return "{\n\"path\": \"a/b\",\n\"type\": \"Tunnel::Decap::ConfigInput\",\n" + members +
         "}";
}

std::string errorOf(const std::string& text) {
  try {
    parseConfiguration(text, "f.json");
    return "";
  } catch (const ConfigurationError& error) {
    return error.what();
  }
}

// Catches a mistake that is taken, or told of another line or member. What begins with D are
// members, with G those of one group, from the fifth line on; all others is a whole file.
TEST(ConfigurationErrors, nameFileLineMemberAndReason) {
  auto rows = Support::rowsOf(R"(
[\n\n{"path" 5}]                                 | 3: path: not JSON:
[]\n[]                                           | 2: not JSON:
D "decapGroup": {},\n"decapGroup": {}            | 5: decapGroup: this name stands twice
D "decapGroup": {"red": {"dynamic": true,\n"dynamic": true}} | 5: decapGroup.red.dynamic: this name stands twice
5                                                | 1: found 5, expected an object with path and type
[\n{}]                                           | 2: path: is missing
{"path": ""}                                     | 1: path: found "", expected a string
{"path": "a"}                                    | 1: type: is missing
{"path": "a//b",\n"type": "x"}                   | 1: path:
{"path": "a",\n"type": "x"}                      | 2: type: found "x", expected an entity type
{"path": "a",\n"type": "Tunnel::Decap::DecapIntf"} | 2: type: found
D "name": 5                                      | 4: name: found 5, expected a string
D "delete": 1                                    | 4: delete: found 1, expected true or false
D "delete": true,\n"decapGroup": {}              | 5: decapGroup: a path that is deleted has no members
[{"path": "a", "delete": true},\n{"path": "a", "delete": true}] | 2: path: a stands already on line 1
D "frob": 5                                      | 4: frob: Tunnel::Decap::ConfigInput has no such member; it has globalDestPortToPayloadType, decapGroup
D "decapGroup": 5                                | 4: decapGroup: found 5, expected an object by key
D "decapGroup": {"red": 5}                       | 4: decapGroup.red: found 5, expected an object
D "decapGroup": {"red":\n{"path": "a"}}          | 5: decapGroup.red.path:
G "destinationPort": 65536                       | 5: decapGroup.red.destinationPort: found 65536, expected a number from 0 to 65535
G "destinationPort": -1                          | 5: decapGroup.red.destinationPort: found -1
G "destinationPort": 1.5                         | 5: decapGroup.red.destinationPort: found 1.5
G "destinationPort": 1e3                         | 5: decapGroup.red.destinationPort: found 1e3
G "destinationPort": "80"                        | 5: decapGroup.red.destinationPort: found "80"
G "destinationPort": null                        | 5: decapGroup.red.destinationPort: found null
G "dynamic": 1                                   | 5: decapGroup.red.dynamic: found 1, expected true or false
G "dynamic": "True"                              | 5: decapGroup.red.dynamic: found "True"
G "tunnelType": "frob"                           | 5: decapGroup.red.tunnelType: found "frob", expected one of unknown, gre, ipip, udp
G "tunnelType": 77                               | 5: decapGroup.red.tunnelType: found 77
G "tunnelType": "gre "                           | 5: decapGroup.red.tunnelType: found "gre "
G "decapIp": ["10.0.0.1",\n"10.0.0.256"]         | 6: decapGroup.red.decapIp[1]: found "10.0.0.256"
G "decapIp": ["10.0.0.1",\n"10.0.0.1"]           | 6: decapGroup.red.decapIp[1]: this key stands twice
G "decapIp": {"::1": true,\n"0::1": true}        | 6: decapGroup.red.decapIp.0::1: this key stands twice
G "decapIp": {"10.0.0.1": 5}                     | 5: decapGroup.red.decapIp.10.0.0.1: found 5
G "decapIp": "10.0.0.1"                          | 5: decapGroup.red.decapIp: found "10.0.0.1"
D "globalDestPortToPayloadType": {"x": "mpls"}   | 4: globalDestPortToPayloadType.x: found "x", expected a number from 0 to 65535
D "globalDestPortToPayloadType": {"65536": "mpls"} | 4: globalDestPortToPayloadType.65536:
D "globalDestPortToPayloadType": [5]             | 4: globalDestPortToPayloadType[0]: found 5, expected {"key": .., "value": ..}
D "globalDestPortToPayloadType": [{"key": 5}]    | 4: globalDestPortToPayloadType[0]: the member value is missing
D "globalDestPortToPayloadType": [{"key": 5, "value": "mpls", "x": 1}] | 4: globalDestPortToPayloadType[0].x: no such member; an entry has key and value
G "decapIntf": [{"key": {"intfId": "Vlan99999999999"}, "value": {}}] | 5: decapGroup.red.decapIntf[0].key.intfId: found "Vlan99999999999"
G "decapIntf": [{"key": {}, "value": {"frob": 1}}] | 5: decapGroup.red.decapIntf[0].value.frob: Tunnel::Decap::DecapIntf has no such member
G "decapExcludeIntfSet": [{"key": {}, "value": {"excludeIntf": ["Vlan1",\n5]}}] | 6: decapGroup.red.decapExcludeIntfSet[0].value.excludeIntf[1]: found 5
)");
  rows.push_back({"", "1: not JSON: "});
  rows.push_back({std::string("[]\n\0x", 5), "2: not JSON: a NUL byte"});
  rows.push_back({"[\"\xff\"]", "1: not JSON: "});
  rows.push_back({"[" + std::string(100000, '['), "1: "});
  rows.push_back({std::string(200, '[') + std::string(200, ']'), "1: "});
  for (const auto& row : rows) {
    SCOPED_TRACE(row[0].substr(0, 300));
    const bool isGroup = row[0].starts_with("G "), isDocument = row[0].starts_with("D ");
    const std::string members = row[0].substr(isGroup || isDocument ? 2 : 0);
    const std::string error =
        errorOf(isGroup      ? document("\"decapGroup\": {\"red\": {\n" + members + "}}")
                : isDocument ? document(members)
                             : members);
    EXPECT_TRUE(error.starts_with("f.json:" + row[1])) << error << "\nwanted " << row[1];
    EXPECT_EQ(error.find('\n'), error.npos);
  }
  EXPECT_EQ(errorOf("[]"), "");
  EXPECT_EQ(errorOf(document("\"decapGroup\": {}")), "");
}

// Catches a prefix of a good file that is taken, and one that crashes.
TEST(ConfigurationErrors, everyCutOfAFileIsRefused) {
  const std::string text = document(
      "\"globalDestPortToPayloadType\": {\"80\": \"mpls\"}, \"decapGroup\": {\"red\": "
      "{\"decapIntf\": [{\"key\": {\"intfId\": \"Vlan1\"}, \"value\": {}}]}}");
  ASSERT_EQ(errorOf(text), "");
  for (std::size_t size = 0; size < text.size(); ++size)
    EXPECT_NE(errorOf(text.substr(0, size)), "") << text.substr(0, size);
}

// What of a random state a file might say: some members, in children too.
Json someOf(Random& random, const Kop::TypeRecord& type, const Json& state) {
  Json file = Json::object();
  for (const EntityMember& member : membersOf(type)) {
    if (random.below(3) == 0) continue;
    Json value = *state.find(member.record->name);
    if (member.isChildren())
      for (Json& item : value.items) {
        Json& child = value.is(Json::Kind::object) ? item : item.items[1];
        child = someOf(random, childTypeOf(member), child);
      }
    file.add(std::string(member.record->name), std::move(value));
  }
  return file;
}

// The other ways to write what is shown: entries of a map in an array, members of a set as
// flags, a map to flags that are all true as a set.
Json respelt(const EntityMember& member, const Json& shown) {
  const Kop::TypeOps& key = *member.collection->key;
  const bool isNumber = formOf(key).shape == Form::Shape::number;
  Json other = shown.is(Json::Kind::object) ? Json::array() : Json::object();
  bool allTrue = true;
  for (const Json& item : shown.items)
    allTrue &= item.is(Json::Kind::boolean) && item.flag;
  for (std::size_t i = 0; i < shown.items.size(); ++i) {
    const Json& item = shown.items[i];
    if (shown.is(Json::Kind::array)) {
      if (!member.isSet() || !item.is(Json::Kind::string)) return shown;
      other.add(item.text, Json::boolean(true));
      continue;
    }
    Json name = isNumber ? Json::number(shown.names[i]) : Json::string(shown.names[i]);
    other.push(allTrue ? std::move(name)
                       : Json(Json::object().add("value", item).add("key", name)));
  }
  return other;
}
Json respelt(Random& random, const Kop::TypeRecord& type, Json file) {
  for (const EntityMember& member : membersOf(type))
    for (std::size_t i = 0; i < file.items.size(); ++i)
      if (file.names[i] == member.record->name && member.collection &&
          !member.isChildren() && random.coin())
        file.items[i] = respelt(member, file.items[i]);
  return file;
}

const Json* childOf(const Json& children, const Json& among, std::size_t i) {
  if (among.is(Json::Kind::object) && children.is(Json::Kind::object))
    return children.find(among.names[i]);
  for (std::size_t k = 0; k < children.items.size(); ++k) {
    const auto keyOf = [](const Json& all, std::size_t at) {
      return all.is(Json::Kind::object) ? writeJson(Json::string(all.names[at]), false)
                                        : writeJson(all.items[at].items[0], false);
    };
    if (keyOf(children, k) == keyOf(among, i))
      return children.is(Json::Kind::object) ? &children.items[k]
                                             : &children.items[k].items[1];
  }
  return nullptr;
}

// The state that a file makes of another: what it names is as it says, of children the named
// ones stay.
Json merged(const Kop::TypeRecord& type, const Json& state, const Json& file) {
  Json result = Json::object();
  for (const EntityMember& member : membersOf(type)) {
    const std::string name(member.record->name);
    const Json* const named = file.find(name);
    Json value = named ? *named : *state.find(name);
    if (named && member.isChildren()) {
      const auto parent = type.entity->make("fresh");
      const Json fresh = stateOf(*member.collection->childIs(
          *parent, Kop::GenericValue(member.collection->key).get()));
      for (std::size_t i = 0; i < value.items.size(); ++i) {
        Json& child =
            value.is(Json::Kind::object) ? value.items[i] : value.items[i].items[1];
        const Json* const old = childOf(*state.find(name), value, i);
        child = merged(childTypeOf(member), old ? *old : fresh, child);
      }
    }
    result.add(name, std::move(value));
  }
  return result;
}

// Catches entries that stay or go wrongly, members that were not named and change, forms that
// are read as something else, second applications that write, and a dry run that tells other
// changes than are made.
TEST(ConfigurationApply, followsAModelOfRandomFilesOfEveryType) {
  constexpr U32 seed = 99;
  Random random(seed);
  U64 changes = 0;
  eachEntityType([&](const Kop::TypeRecord& type) {
    const auto entity = type.entity->make("x");
    for (int step = 0; step < 50; ++step) {
      const auto other = type.entity->make("x");
      random.fill(*other);
      const Json before = stateOf(*entity), named = someOf(random, type, stateOf(*other));
      Json file = Json::object();
      file.add("path", Json::string("x"))
          .add("type", Json::string(std::string(type.name)));
      const Json members = respelt(random, type, named);
      for (std::size_t i = 0; i < members.items.size(); ++i)
        file.add(members.names[i], members.items[i]);
      const std::string text = writeJson(file, false);
      SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step) +
                   " " + text + "\nbefore " + writeJson(before, false));

      const Configuration plan = parseConfiguration(text, "f.json");
      Changes dry, done, again;
      std::vector<std::string> told, made;
      const auto into = [](std::vector<std::string>& list) {
        return [&list](const Change& change) {
          list.push_back(changeLine({}, change) + writeJson(changeJson(change), false));
        };
      };
      apply(plan.paths[0].entity, *entity, true, dry, into(told));
      ASSERT_EQ(writeJson(stateOf(*entity), false), writeJson(before, false));
      apply(plan.paths[0].entity, *entity, false, done, into(made));
      ASSERT_EQ(writeJson(stateOf(*entity), false),
                writeJson(merged(type, before, named), false));
      ASSERT_EQ(told, made);
      ASSERT_EQ(done.total(), made.size());
      apply(plan.paths[0].entity, *entity, false, again);
      ASSERT_EQ(again.total(), 0u);
      changes += done.total();
    }
  });
  EXPECT_GT(changes, 2500u);
}

}  // namespace
}  // namespace Tunnelctl
