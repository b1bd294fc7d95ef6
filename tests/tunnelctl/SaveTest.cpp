#include <future>

#include "Hivel/Server.h"
#include "apps/tunnelctl/Json.h"
#include "tests/Support/Rows.h"
#include "tests/Support/Testing.h"
#include "tests/tunnelctl/Processes.h"
#include "tests/tunnelctl/RandomValues.h"

namespace Tunnelctl {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

class SaveProcesses : public CtlProcesses {
 protected:
  // Makes the database hold one random entity of each type, and nothing else of a path.
  void fill(Random& random) {
    Hivel::Client writer(clientOptions());
    eachEntityType([&](const Kop::TypeRecord& type) {
      const std::string path = "t/" + Support::replaced(std::string(type.name), ":", ".");
      const auto entity = type.entity->make(random.coin() ? "a name\xff" : "");
      random.fill(*entity);
      writer.mountAndWait(path, Hivel::Mode::replace, {entity, {}, true}, 10s);
      ASSERT_TRUE(writer.syncAndWait(10s));
      writer.unmount(path);
    });
    ASSERT_TRUE(writer.syncAndWait(10s));
  }
  std::string saved() {
    const Result result = ctl("save --all");
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
  }
};

// Catches state that is lost or changed on its way through a file, an order that is not always
// the same, and a difference that is not what applying then does.
TEST_F(SaveProcesses, whatIsSavedOfEveryTypeIsAppliedAndCompared) {
  constexpr U32 seed = 5;
  SCOPED_TRACE("seed " + std::to_string(seed));
  Random random(seed);
  const std::string other = directory_ + "/other.sock", first = socket_;
  const auto otherDaemon = startDaemonAt(other);
  for (int round = 0; round < 3; ++round) {
    fill(random);
    ASSERT_EQ(ctl("save --all saved.json").status, 0);
    const std::string text = contents(directory_ + "/saved.json");
    ASSERT_EQ(text, saved());
    EXPECT_THAT(ctl("apply saved.json").out, HasSubstr("nothing changed"));
    EXPECT_EQ(ctl("diff saved.json").status, 0);

    // Another database: empty at first, then one that held something else.
    socket_ = other;
    if (round > 0) fill(random);
    const Result told = ctl("-j diff saved.json"), lines = ctl("diff saved.json");
    EXPECT_EQ(told.status, 1) << told.err;
    EXPECT_EQ(lines.status, 1) << lines.err;
    const Result applied = ctl("-j -d apply saved.json");
    ASSERT_EQ(applied.status, 0) << applied.err;
    const Json report = parseJson(applied.out);
    EXPECT_EQ(writeJson(*report.items.at(0).find("changes"), false) + "\n", told.out);
    EXPECT_EQ(
        static_cast<std::size_t>(std::count(lines.out.begin(), lines.out.end(), '\n')),
        report.items[0].find("changes")->items.size());
    const Result again = ctl("diff saved.json");
    EXPECT_EQ(again.status, 0) << again.out;
    EXPECT_EQ(again.out, "");
    EXPECT_EQ(saved(), text);
    socket_ = first;
  }
}

// Catches kinds that are left out or let in, prefixes that are not heeded, and a file that is
// lost or cut when the new one cannot be written, and leavings.
TEST_F(SaveProcesses, savesWhatIsConfigurationAsAWholeOrNotAtAll) {
  play("tunnelctl/save.txt");
}

// Catches a file that is applied by halves because its author pressed Ctrl-C.
TEST_F(SaveProcesses, aSignalWaitsForTheEndOfApply) {
  constexpr U32 count = 20000;
  std::string text = R"({"path": "a", "type": "Tunnel::Static::Config", "entry": [)";
  for (U32 i = 0; i < count; ++i)
    text += (i ? ",{\"name\": \"t" : "{\"name\": \"t") + std::to_string(i) + "\"}";
  const std::string all = file("all.json", text + "]}");
  // A server that rests while the command has more to say than the socket takes.
  Hivel::Database database;
  Hivel::ServerOptions options;
  options.socketPath = socket_ += ".own";
  Hivel::Server server(database, options);
  const auto held = [&]() -> U32 {
    const auto entity = database.find("a");
    return entity ? membersOf(typeOf(*entity))[0].collection->count(*entity) : 0;
  };
  const auto apply = start("tunnelctl apply " + all);
  ASSERT_TRUE(eventually([&] { return server.process(), held() > 0; })) << apply->err();
  ASSERT_LT(held(), count);
  apply->send(SIGINT);
  std::this_thread::sleep_for(100ms);
  EXPECT_TRUE(eventually([&] { return server.process(), held() == count; })) << held();
  auto ended = std::async(std::launch::async, [&] { return apply->join(); });
  while (ended.wait_for(0s) != std::future_status::ready)
    server.process();
  EXPECT_EQ(ended.get(), 128 + SIGINT);
}

}  // namespace
}  // namespace Tunnelctl
