#include "Tunnel/DecapGroupHivelTypes.h"
#include "apps/tunnelctl/Configuration.h"
#include "tests/Support/Rows.h"
#include "tests/Support/Testing.h"
#include "tests/tunnelctl/RandomValues.h"

namespace Tunnelctl {
namespace {

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
  auto rows = Support::rowsIn("tunnelctl/malformed.txt");
  rows.push_back({"", "1: not JSON: "});
  rows.push_back({std::string("[]\n\0x", 5), "2: not JSON: a NUL byte"});
  rows.push_back({"[\"\xff\"]", "1: not JSON: "});
  rows.push_back({"[" + std::string(100000, '['), "1: "});
  rows.push_back({std::string(200, '[') + std::string(200, ']'), "1: "});
  for (const auto& row : rows) {
    SCOPED_TRACE(row[0].substr(0, 300));
    const std::string error = errorOf(row[0]);
    EXPECT_TRUE(error.starts_with("f.json:" + row[1])) << error << "\nwanted " << row[1];
    EXPECT_EQ(error.find('\n'), error.npos);
  }
  EXPECT_EQ(errorOf("[]"), "");
}

// Children are shown by name in an object, or in an array of key and value.
std::string childKey(const Json& children, std::size_t i) {
  const bool isNamed = children.is(Json::Kind::object);
  return writeJson(isNamed ? Json::string(children.names[i]) : children.items[i].items[0],
                   false);
}
Json& childAt(Json& children, std::size_t i) {
  return children.is(Json::Kind::object) ? children.items[i] : children.items[i].items[1];
}

// What of a random state a file might say: some members, in children too.
Json someOf(Random& random, const Kop::TypeRecord& type, const Json& state) {
  Json file = Json::object();
  for (const EntityMember& member : membersOf(type)) {
    if (random.below(3) == 0) continue;
    Json value = *state.find(member.record->name);
    for (std::size_t i = 0; member.isChildren() && i < value.items.size(); ++i)
      childAt(value, i) = someOf(random, childTypeOf(member), childAt(value, i));
    file.add(std::string(member.record->name), std::move(value));
  }
  return file;
}

// The state that a file makes of another: what it names is as it says, of children the named
// ones stay.
Json merged(const Kop::TypeRecord& type, const Json& state, const Json& file) {
  Json result = Json::object();
  for (const EntityMember& member : membersOf(type)) {
    const std::string name(member.record->name);
    const Json* const named = file.find(name);
    Json old = *state.find(name), value = named ? *named : old;
    for (std::size_t i = 0; named && member.isChildren() && i < value.items.size(); ++i) {
      const auto parent = type.entity->make("fresh");
      Json child = stateOf(*member.collection->childIs(
          *parent, Kop::GenericValue(member.collection->key).get()));
      for (std::size_t k = 0; k < old.items.size(); ++k)
        if (childKey(old, k) == childKey(value, i)) child = childAt(old, k);
      childAt(value, i) = merged(childTypeOf(member), child, childAt(value, i));
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
      for (std::size_t i = 0; i < named.items.size(); ++i)
        file.add(named.names[i], named.items[i]);
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

// Catches another way to write entries that is read as something else.
TEST(ConfigurationApply, readsEntriesInEverySpelling) {
  for (const auto& row : Support::rowsIn("tunnelctl/spellings.txt")) {
    std::set<std::string> states;
    for (const std::string& text : row) {
      const auto entity = Tunnel::Decap::configInputFactory("x");
      Changes changes;
      apply(parseConfiguration(text, "f.json").paths[0].entity, *entity, false, changes);
      EXPECT_GT(changes.total(), 0u);
      states.insert(writeJson(stateOf(*entity), false));
    }
    EXPECT_EQ(states.size(), 1u) << row[0];
  }
}

}  // namespace
}  // namespace Tunnelctl
