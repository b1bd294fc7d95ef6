#include "Tunnel/DecapGroupHivelTypes.h"
#include "apps/tunnelctl/Monitor.h"
#include "tests/Support/Testing.h"
#include "tests/tunnelctl/RandomValues.h"

namespace Tunnelctl {
namespace {

// What a reader knows who only sees the changes.
class Replay {
 public:
  void take(const Change& change) {
    const std::string place = change.member + "\n" + change.key;
    if (change.isEntry) {
      EXPECT_EQ(known_.contains(place), change.before) << place;
      EXPECT_TRUE(!change.before || known_[place] == change.oldText) << place;
    } else if (known_.contains(place)) {
      EXPECT_EQ(known_[place], change.oldText) << place;
    }
    known_.erase(place);
    if (change.after)
      known_[place] = change.newText;
    else if (change.isChild)
      std::erase_if(known_, [&](const auto& entry) {
        return entry.first.starts_with(change.member + "." + change.key + ".");
      });
    ++count;
  }
  // Against one who came late and was told the contents. A scalar that went back to its
  // default is in those changes, but not in the contents.
  void expectEqual(const Replay& late) const {
    for (const auto& [place, text] : late.known_) {
      const auto found = known_.find(place);
      EXPECT_TRUE(found != known_.end() && found->second == text) << place << " " << text;
    }
    for (const auto& [place, text] : known_)
      EXPECT_TRUE(late.known_.contains(place) || place.ends_with("\n")) << place;
  }
  U64 count = 0;

 private:
  std::map<std::string, std::string> known_;
};

// Catches changes that are not told, told twice or with another old value, and children
// whose changes are lost, for every registered entity.
TEST(EntityWatch, changesAddUpToTheState) {
  constexpr U32 seed = 5;
  Random random(seed);
  eachEntityType([&](const Kop::TypeRecord& type) {
    SCOPED_TRACE(std::string(type.name) + " seed " + std::to_string(seed));
    const auto entity = type.entity->make("x");
    random.fill(*entity);
    Replay replay;
    const ChangeSink sink = [&](const Change& change) { replay.take(change); };
    const EntityWatch watch(entity, "", sink, true);
    for (int i = 0; i < 300; ++i)
      random.change(*entity);

    Replay late;
    const ChangeSink lateSink = [&](const Change& change) { late.take(change); };
    const EntityWatch lateWatch(entity, "", lateSink, true);
    replay.expectEqual(late);
    EXPECT_GT(replay.count, 5u);
  });
}

// Catches a watch that goes on hearing of a child that was removed.
TEST(EntityWatch, forgetsRemovedChildren) {
  const auto entity = Tunnel::Decap::configInputFactory("x");
  const auto child = entity->decapGroupIs("red");
  U64 count = 0;
  const ChangeSink sink = [&](const Change&) { ++count; };
  std::optional<EntityWatch> watch(std::in_place, entity, "", sink, false);
  EXPECT_EQ(child->notifieeCount(), 1u);
  entity->decapGroupDel("red");
  EXPECT_EQ(child->notifieeCount(), 0u);
  EXPECT_EQ(count, 1u);
  watch.reset();
  EXPECT_EQ(entity->notifieeCount(), 0u);
}

}  // namespace
}  // namespace Tunnelctl
