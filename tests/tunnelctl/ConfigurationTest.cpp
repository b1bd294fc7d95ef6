#include <map>
#include <set>

#include <gtest/gtest.h>

#include "Hivel/Database.h"
#include "Tunnel/DecapGroupHivelTypes.h"
#include "apps/tunnelctl/Configuration.h"
#include "tests/tunnelctl/RandomValues.h"

namespace Tunnelctl {
namespace {

using Tunnel::Decap::ConfigInput;

constexpr const char* configInputHead =
    "{\n\"path\": \"a/b\",\n\"type\": \"Tunnel::Decap::ConfigInput\",\n";

// A document whose fourth line is the given one.
std::string document(const std::string& line) {
  return configInputHead + line + "}";
}

std::string errorOf(const std::string& text) {
  try {
    parseConfiguration(text, "f.json");
    return "";
  } catch (const ConfigurationError& error) {
    return error.what();
  }
}

// Catches a mistake that is taken, or told of another line or member.
TEST(ConfigurationErrors, nameFileLineMemberAndReason) {
  const auto group = [](const std::string& members) {
    return document("\"decapGroup\": {\"red\": {\n" + members + "}}");
  };
  const struct {
    std::string text;
    const char* error;
  } rows[] = {
  // JSON itself
      {"",                      "f.json:1: not JSON: "                                 },
      {"[\n\n{\"path\" 5}]",    "f.json:3: path: not JSON: "                           },
      {"[\n{}\n",               "f.json:"                                              },
      {"[]\n[]",                "f.json:2: not JSON: "                                 },
      {std::string("[]\n\0x",   5),                                                      "f.json:2: not JSON: a NUL byte"},
      {"[\"\xff\"]",                       "f.json:1: not JSON: "                                                                  },
      {"[" + std::string(100000,                       '['),"f.json:1: "},
      {std::string(200,           '[') + std::string(200,                                                                              ']'), "f.json:1: "},
      {document("\"decapGroup\": {},\n\"decapGroup\": {}"),
       "f.json:5: decapGroup: this name stands twice"},
      {document("\"decapGroup\": {\"red\": {\"dynamic\": true,\n\"dynamic\": true}}"),
       "f.json:5: decapGroup.red.dynamic: this name stands twice"                           },
 // the path
      {"5",                       "f.json:1: found 5, expected an object with path and type"                                    },
      {"[\n{}]",                       "f.json:2: path: is missing"                                                },
      {"{\"path\": \"\"}",                       "f.json:1: path: found \"\", expected a string"                                  },
      {"{\"path\": \"a\"}",                       "f.json:1: type: is missing"            },
      {"{\"path\": \"a//b\",\n\"type\": \"x\"}",                       "f.json:1: path: "                         },
      {"{\"path\": \"a\",\n\"type\": \"x\"}",
       "f.json:2: type: found \"x\", expected an entity type"                          },
      {"{\"path\": \"a\",\n\"type\": \"Tunnel::Decap::DecapIntf\"}",
       "f.json:2: type: found "                },
      {document("\"name\": 5"),                       "f.json:4: name: found 5, expected a string"},
      {document("\"delete\": 1"),                       "f.json:4: delete: found 1, expected true or false"                                       },
      {document("\"delete\": true,\n\"decapGroup\": {}"),
       "f.json:5: decapGroup: a path that is deleted has no members"                                                             },
      {"[{\"path\": \"a\", \"delete\": true},\n{\"path\": \"a\", \"delete\": true}]",
       "f.json:2: path: a stands already on line 1"},
 // members
      {document("\"frob\": 5"),
       "f.json:4: frob: Tunnel::Decap::ConfigInput has no such member; it has "
       "globalDestPortToPayloadType, decapGroup"},
      {document("\"decapGroup\": 5"),
       "f.json:4: decapGroup: found 5, expected an object by key"                                                                 },
      {document("\"decapGroup\": {\"red\": 5}"),
       "f.json:4: decapGroup.red: found 5, expected an object"                                                                                                             },
      {document("\"decapGroup\": {\"red\":\n{\"path\": \"a\"}}"),
       "f.json:5: decapGroup.red.path: "},
      {group("\"destinationPort\": 65536"),
       "f.json:5: decapGroup.red.destinationPort: found 65536, expected a number from 0 "
       "to 65535"},
      {group("\"destinationPort\": -1"),
       "f.json:5: decapGroup.red.destinationPort: found -1"                                                                      },
      {group("\"destinationPort\": 1.5"),
       "f.json:5: decapGroup.red.destinationPort: found 1.5"                                                                                                                                      },
      {group("\"destinationPort\": 1e3"),
       "f.json:5: decapGroup.red.destinationPort: found 1e3"},
      {group("\"destinationPort\": \"80\""),
       "f.json:5: decapGroup.red.destinationPort: found \"80\""},
      {group("\"destinationPort\": null"),
       "f.json:5: decapGroup.red.destinationPort: found null"                                                                   },
      {group("\"dynamic\": 1"),
       "f.json:5: decapGroup.red.dynamic: found 1, expected true or false"                                                                                                                                     },
      {group("\"dynamic\": \"True\""),
       "f.json:5: decapGroup.red.dynamic: found \"True\""},
      {group("\"tunnelType\": \"frob\""),
       "f.json:5: decapGroup.red.tunnelType: found \"frob\", expected one of unknown, "
       "gre, ipip, udp"},
      {group("\"tunnelType\": 77"),                       "f.json:5: decapGroup.red.tunnelType: found 77"                                                         },
      {group("\"tunnelType\": \"gre \""),
       "f.json:5: decapGroup.red.tunnelType: found \"gre \""                                                                                                                                        },
 // collections
      {group("\"decapIp\": [\"10.0.0.1\",\n\"10.0.0.256\"]"),
       "f.json:6: decapGroup.red.decapIp[1]: found \"10.0.0.256\""},
      {group("\"decapIp\": [\"10.0.0.1\",\n\"10.0.0.1\"]"),
       "f.json:6: decapGroup.red.decapIp[1]: this key stands twice"},
      {group("\"decapIp\": {\"::1\": true,\n\"0::1\": true}"),
       "f.json:6: decapGroup.red.decapIp.0::1: this key stands twice"                                       },
      {group("\"decapIp\": {\"10.0.0.1\": 5}"),
       "f.json:5: decapGroup.red.decapIp.10.0.0.1: found 5"                                                                                                                                       },
      {group("\"decapIp\": \"10.0.0.1\""),
       "f.json:5: decapGroup.red.decapIp: found \"10.0.0.1\""},
      {document("\"globalDestPortToPayloadType\": {\"x\": \"mpls\"}"),
       "f.json:4: globalDestPortToPayloadType.x: found \"x\", expected a number from 0 "
       "to 65535"},
      {document("\"globalDestPortToPayloadType\": {\"65536\": \"mpls\"}"),
       "f.json:4: globalDestPortToPayloadType.65536: "                },
      {document("\"globalDestPortToPayloadType\": [5]"),
       "f.json:4: globalDestPortToPayloadType[0]: found 5, expected {\"key\": .., "
       "\"value\": ..}"                                                                                                       },
      {document("\"globalDestPortToPayloadType\": [{\"key\": 5}]"),
       "f.json:4: globalDestPortToPayloadType[0]: the member value is missing"              },
      {document("\"globalDestPortToPayloadType\": [{\"key\": 5, \"value\": \"mpls\", "
                "\"x\": 1}]"),
       "f.json:4: globalDestPortToPayloadType[0].x: no such member; an entry has key and "
       "value"},
      {group("\"decapIntf\": [{\"key\": {\"intfId\": \"Vlan99999999999\"}, \"value\": "
             "{}}]"),
       "f.json:5: decapGroup.red.decapIntf[0].key.intfId: found \"Vlan99999999999\""                                   },
      {group("\"decapIntf\": [{\"key\": {}, \"value\": {\"frob\": 1}}]"),
       "f.json:5: decapGroup.red.decapIntf[0].value.frob: Tunnel::Decap::DecapIntf has "
       "no such member"                                                                                                                                              },
      {group("\"decapExcludeIntfSet\": [{\"key\": {}, \"value\": {\"excludeIntf\": "
             "[\"Vlan1\",\n5]}}]"),
       "f.json:6: decapGroup.red.decapExcludeIntfSet[0].value.excludeIntf[1]: found 5"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text.substr(0, 300));
    const std::string error = errorOf(row.text);
    EXPECT_TRUE(error.starts_with(row.error)) << error << "\nwanted " << row.error;
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

struct Group {
  U16 port = 0;
  bool dynamic = false;
  std::map<std::string, bool> ips;
  std::map<std::string, bool> intfs;  // name -> oldConfig
};
struct Model {
  std::map<U32, std::string> ports;
  std::map<std::string, Group> groups;
};

Model modelOf(const ConfigInput& config) {
  Model model;
  for (const auto& node : config.globalDestPortToPayloadType())
    model.ports[node.key()] = std::string(Tunnel::Decap::valueToStrep(node.value));
  for (const auto& node : config.decapGroup()) {
    Group& group = model.groups[std::string(node.key())];
    group.port = node.value->destinationPort();
    group.dynamic = node.value->dynamic();
    for (const auto& ip : node.value->decapIp())
      group.ips[std::string(ip.key().stringValue())] = ip.value;
    for (const auto& intf : node.value->decapIntf()) {
      EXPECT_TRUE(intf.value.decapIntfKey() == intf.key());
      group.intfs[std::string(intf.key().intfId().stringValue())] =
          intf.value.oldConfig();
    }
  }
  return model;
}

bool operator==(const Group& a, const Group& b) {
  return a.port == b.port && a.dynamic == b.dynamic && a.ips == b.ips &&
         a.intfs == b.intfs;
}

std::string quote(const std::string& text) {
  return "\"" + text + "\"";
}

// Writes members at random and changes the model as applying them must.
class RandomFile {
 public:
  explicit RandomFile(U32 seed) : random_(seed) {}

  std::string next(Model& model) {
    std::string text = "{\"path\": \"decap\", \"type\": \"Tunnel::Decap::ConfigInput\"";
    if (random_.coin())
      text += ", \"globalDestPortToPayloadType\": " + ports(model.ports);
    if (random_.coin()) text += ", \"decapGroup\": " + groups(model.groups);
    return text + "}";
  }

 private:
  std::string ports(std::map<U32, std::string>& ports) {
    static const char* const payloads[] = {"unknownPayload", "mpls", "ipvx"};
    ports.clear();
    for (U64 n = random_.below(4); n > 0; --n)
      ports[static_cast<U32>(random_.below(6))] = random_.oneOf(payloads);
    const bool asArray = random_.coin();
    std::string text;
    for (const auto& [port, payload] : ports) {
      text += text.empty() ? "" : ", ";
      if (asArray)
        text +=
            "{\"value\": " + quote(payload) + ", \"key\": " + std::to_string(port) + "}";
      else
        text += quote(std::to_string(port)) + ": " + quote(payload);
    }
    return asArray ? "[" + text + "]" : "{" + text + "}";
  }

  std::string groups(std::map<std::string, Group>& groups) {
    std::string text;
    std::map<std::string, Group> after;
    for (const char* name : {"red", "green", "a b", ""}) {
      if (random_.coin()) continue;
      after[name] = groups[name];
      text += (text.empty() ? "" : ", ") + quote(name) + ": " + group(after[name]);
    }
    groups = after;
    return "{" + text + "}";
  }

  std::string group(Group& group) {
    std::string text;
    const auto add = [&](const char* name, const std::string& value) {
      text += (text.empty() ? "" : ", ") + quote(name) + ": " + value;
    };
    if (random_.coin()) {
      group.port = static_cast<U16>(random_.below(3));
      add("destinationPort", std::to_string(group.port));
    }
    if (random_.coin()) {
      group.dynamic = random_.coin();
      add("dynamic", group.dynamic ? "true" : "false");
    }
    if (random_.coin()) add("decapIp", ips(group.ips));
    if (random_.coin()) add("decapIntf", intfs(group.intfs));
    return "{" + text + "}";
  }

  std::string ips(std::map<std::string, bool>& ips) {
    ips.clear();
    const bool asKeys = random_.coin();
    std::string text;
    for (const char* ip : {"10.0.0.1", "10.0.0.2", "2001:db8::1", ""}) {
      if (random_.coin()) continue;
      ips[ip] = asKeys || random_.coin();
      text += (text.empty() ? "" : ", ") + quote(ip);
      if (!asKeys) text += ips[ip] ? ": true" : ": false";
    }
    return asKeys ? "[" + text + "]" : "{" + text + "}";
  }

  std::string intfs(std::map<std::string, bool>& intfs) {
    intfs.clear();
    std::string text;
    for (const char* intf : {"Vlan1", "Ethernet3/1", "Loopback0"}) {
      if (random_.coin()) continue;
      intfs[intf] = random_.coin();
      text += (text.empty() ? "" : ", ") + std::string("{\"key\": {\"intfId\": ") +
              quote(intf) +
              ", \"addressFamily\": \"ipv4\"}, \"value\": {\"oldConfig\": " +
              (intfs[intf] ? "true" : "false") + "}}";
    }
    return "[" + text + "]";
  }

  Random random_;
};

// Catches entries that stay or go wrongly, members that were not named and change, counts
// that are not what was done, and second applications that write.
TEST(ConfigurationApply, followsAModelOfRandomFiles) {
  constexpr U32 seed = 99;
  RandomFile file(seed);
  Hivel::Database database;
  database.mount("decap", Tunnel::Decap::configInputFactory("decap"));
  Model model;
  U64 changes = 0;
  for (int step = 0; step < 2000; ++step) {
    Model wanted = model;
    const std::string text = file.next(wanted);
    SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(step) + " " +
                 text);
    const Configuration plan = parseConfiguration(text, "f.json");
    ASSERT_EQ(plan.paths.size(), 1u);
    Kop::Entity& entity = *database.find(plan.paths[0].path);
    const auto& config = static_cast<const ConfigInput&>(entity);

    const auto before = modelOf(config);
    Changes dry, done, again;
    U64 told = 0;
    apply(plan.paths[0].entity, entity, true, dry);
    ASSERT_TRUE(modelOf(config).groups == before.groups &&
                modelOf(config).ports == before.ports);
    apply(plan.paths[0].entity, entity, false, done, [&](const Change&) { ++told; });
    const auto after = modelOf(config);
    ASSERT_EQ(after.ports, wanted.ports);
    ASSERT_TRUE(after.groups == wanted.groups);
    ASSERT_EQ(told, done.total());
    ASSERT_EQ(dry.total(), done.total());
    ASSERT_EQ(dry.removed, done.removed);
    apply(plan.paths[0].entity, entity, false, again);
    ASSERT_EQ(again.total(), 0u);
    model = wanted;
    changes += done.total();
  }
  EXPECT_GT(changes, 2000u);
}

// Catches a member of any registered entity that show leaves out, or that cannot be written
// the way it is shown.
TEST(ConfigurationApply, whatIsShownOfEveryTypeCanBeApplied) {
  constexpr U32 seed = 3;
  Random random(seed);
  U32 types = 0;
  eachEntityType([&](const Kop::TypeRecord& type) {
    SCOPED_TRACE(std::string(type.name));
    ++types;
    for (int i = 0; i < 10; ++i) {
      const auto original = type.entity->make("x");
      random.fill(*original);
      const std::string text = writeJson(stateOf("x", *original), i % 2 == 0);
      SCOPED_TRACE(text);
      const Configuration plan = parseConfiguration(text, "f.json");
      const auto copy = type.entity->make("x");
      Changes changes, back;
      if (i > 4) random.fill(*copy);
      apply(plan.paths[0].entity, *copy, false, changes);
      ASSERT_EQ(writeJson(stateOf("x", *copy), i % 2 == 0), text);
      apply(plan.paths[0].entity, *original, false, back);
      ASSERT_EQ(back.total(), 0u);
    }
  });
  EXPECT_GT(types, 4u);
}

}  // namespace
}  // namespace Tunnelctl
