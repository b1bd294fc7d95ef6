#include <sys/stat.h>

#include <gmock/gmock.h>

#include "Hivel/Server.h"
#include "apps/tunnelctl/Json.h"
#include "tests/Support/Rows.h"
#include "tests/tunnelctl/Processes.h"
#include "tests/tunnelctl/RandomValues.h"

namespace Tunnelctl {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string router = HOUSE_SOURCE_DIR "/examples/whole-router.json";

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
    const Result result = ctl({"save", "--all"});
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
    const std::string name = directory_ + "/saved.json";
    ASSERT_EQ(ctl({"save", "--all", name}).status, 0);
    const std::string text = contents(name);
    ASSERT_EQ(text, saved());
    EXPECT_THAT(ctl({"apply", name}).out, HasSubstr("nothing changed"));
    EXPECT_EQ(ctl({"diff", name}).status, 0);

    // Another database: empty at first, then one that held something else.
    socket_ = other;
    if (round > 0) fill(random);
    const Result told = ctl({"-j", "diff", name}), lines = ctl({"diff", name});
    EXPECT_EQ(told.status, 1) << told.err;
    EXPECT_EQ(lines.status, 1) << lines.err;
    const Result applied = ctl({"-j", "-d", "apply", name});
    ASSERT_EQ(applied.status, 0) << applied.err;
    const Json report = parseJson(applied.out);
    EXPECT_EQ(writeJson(*report.items.at(0).find("changes"), false) + "\n", told.out);
    EXPECT_EQ(
        static_cast<std::size_t>(std::count(lines.out.begin(), lines.out.end(), '\n')),
        report.items[0].find("changes")->items.size());
    const Result again = ctl({"diff", name});
    EXPECT_EQ(again.status, 0) << again.out;
    EXPECT_EQ(again.out, "");
    EXPECT_EQ(saved(), text);
    socket_ = first;
  }
}

// Catches kinds that are left out or let in, and prefixes that are not heeded.
TEST_F(SaveProcesses, savesWhatIsConfiguration) {
  ASSERT_EQ(ctl({"apply", router}).status, 0);
  ASSERT_EQ(ctl({"apply", HOUSE_SOURCE_DIR "/examples/edge-router.json"}).status, 0);
  const std::string whole = ctl({"save"}).out,
                    capability = "tunnel/decap/hardware/capability";
  EXPECT_THAT(whole, Not(HasSubstr(capability)));
  for (const Json& path : parseJson(contents(router)).items)
    EXPECT_THAT(whole, HasSubstr("\"path\": \"" + path.find("path")->text + "\""));
  const auto rows = Support::rowsOf(R"(
- tunnel/info/gre /tunnel/mpls/               | 0 | tunnel/info/gre tunnel/mpls/config
- tunnel/mpls --also tunnel/decap/hardware    | 0 | tunnel/decap/hardware/capability tunnel/mpls/config
--all - tunnel/decap/hardware                 | 0 | tunnel/decap/hardware/capability
- tunnel/decap/hardware                       | 1 | 'tunnel/decap/hardware': holds no configuration
- tunnel/mpls frob                            | 1 | PATH 'frob': nothing is mounted there
--also frob                                   | 1 | PATH 'frob': nothing is mounted there
)");
  for (const auto& row : rows) {
    SCOPED_TRACE(row[0]);
    const Result result = ctl(Support::wordsOf("save " + row[0]));
    EXPECT_EQ(result.status, std::stoi(row[1]));
    if (result.status != 0) {
      EXPECT_THAT(result.err, HasSubstr(row[2]));
      continue;
    }
    std::string paths;
    for (const Json& path : parseJson(result.out).items)
      paths += (paths.empty() ? "" : " ") + path.find("path")->text;
    EXPECT_EQ(paths, row[2]);
  }
}

// Catches a file that is lost or cut when the new one cannot be written, and leavings.
TEST_F(SaveProcesses, aFileIsReplacedAsAWholeOrNotAtAll) {
  ASSERT_EQ(ctl({"apply", router}).status, 0);
  const std::string folder = directory_ + "/folder", name = folder + "/saved.json";
  std::filesystem::create_directory(folder);
  std::filesystem::create_symlink("saved.json", folder + "/link");
  std::ofstream(name) << "old";
  ::chmod(name.c_str(), 0640);
  const auto files = [&] {
    return std::distance(std::filesystem::directory_iterator(folder), {});
  };
  const auto shell = [&](const std::string& command) {
    Process process(
        {"/bin/sh", "-c",
         Support::replaced(command, "CTL", HOUSE_BIN_DIR "/tunnelctl -s " + socket_)},
        directory_ + "/shell");
    const int status = process.join();
    return Result{status, process.out(), process.err()};
  };
  const std::string rows = R"(
ulimit -f 1; exec CTL save DIR/folder/saved.json | cannot be written, write: File too large
exec CTL save /dev/full                          | cannot be written, write: No space left
exec CTL save >/dev/full                         | standard output cannot be written
exec CTL save DIR/folder                         | cannot be written, open: Is a directory
exec CTL save DIR/folder/saved.json/x            | Not a directory
exec CTL save DIR/none/saved.json                | No such file or directory
)";
  for (const auto& row : Support::rowsOf(Support::replaced(rows, "DIR", directory_))) {
    SCOPED_TRACE(row[0]);
    const Result result = shell(row[0]);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr(row[1]));
    EXPECT_EQ(contents(name), "old");
    EXPECT_EQ(files(), 2);
  }
  EXPECT_THAT(ctl({"save", folder + "/link"}).out, HasSubstr("9 paths, "));
  EXPECT_EQ(contents(name), ctl({"save"}).out);
  EXPECT_TRUE(std::filesystem::is_symlink(folder + "/link"));
  EXPECT_EQ(std::filesystem::status(name).permissions(), std::filesystem::perms(0640));
  EXPECT_EQ(files(), 2);

  // What comes from a pipe is compared as well; what cannot be is no difference.
  EXPECT_EQ(shell("exec CTL diff - <" + name).status, 0);
  EXPECT_EQ(shell("exec CTL diff " HOUSE_SOURCE_DIR
                  "/examples/edge-router-change.json >/dev/full")
                .status,
            2);
  EXPECT_EQ(ctl({"diff", "/does/not/exist"}).status, 2);
  daemon_.reset();
  EXPECT_EQ(ctl({"diff", name}).status, 2);
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
  const auto apply = start({"apply", all});
  ASSERT_TRUE(eventually([&] { return server.process(), held() > 0; })) << apply->err();
  ASSERT_LT(held(), count);
  apply->send(SIGINT);
  std::this_thread::sleep_for(100ms);
  EXPECT_TRUE(eventually([&] { return server.process(), held() == count; })) << held();
  std::atomic<bool> ended = false;
  std::thread waiter([&] {
    EXPECT_EQ(apply->join(), 128 + SIGINT);
    ended = true;
  });
  while (!ended)
    server.process();
  waiter.join();
}

}  // namespace
}  // namespace Tunnelctl
