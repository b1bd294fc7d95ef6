#include <regex>

#include "tests/Support/Rows.h"
#include "tests/Support/Testing.h"
#include "tests/tunnelctl/Processes.h"

namespace Tunnelctl {
namespace {

class CompletionProcesses : public CtlProcesses {
 protected:
  // What a shell offers for the last word of a line.
  std::vector<std::string> offered(const std::string& shellName,
                                   const std::string& line) {
    const auto process = shell(
        shellName + " " + file("script", shellName == "zsh" ? zsh(line) : bash(line)));
    process->join();
    EXPECT_EQ(process->err(), "");
    return Support::wordsOf(Support::replaced(process->out(), "\n", " "));
  }
  // bash splits at colons and equals signs as well.
  static std::string bash(const std::string& line) {
    static const std::regex word("[:=]+|[^ :=]+");
    std::string words;
    for (std::sregex_iterator at(line.begin(), line.end(), word), end; at != end; ++at)
      words += " '" + at->str() + "'";
    return ". " HOUSE_SOURCE_DIR "/completions/tunnelctl.bash; COMP_WORDS=(" + words +
           "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _tunnelctl" +
           (line.starts_with("tunnelctl") ? "" : "_options") +
           " \"${COMP_WORDS[0]}\"; printf '%s\\n' \"${COMPREPLY[@]}\"";
  }
  static std::string zsh(const std::string& line) {
    return "compadd() { shift $@[(i)--]; print -rl -- $@ }; _files() { print files }; "
           "compset() { : }; words=(" +
           line +
           "); service=$words[1]; CURRENT=$#words; PREFIX=${words[-1]}; "
           ". " HOUSE_SOURCE_DIR "/completions/_tunnelctl";
  }
};

// Catches words that a shell splits and does not put together, arguments that are taken for
// others, and names that the database has and nobody is offered.
TEST_F(CompletionProcesses, shellsOfferWhatMayFollow) {
  ASSERT_EQ(ctl("apply $EXAMPLES/whole-router.json").status, 0);
  for (const auto& row : Support::rowsIn("tunnelctl/completion.txt")) {
    SCOPED_TRACE(row[0] + " " + row[1]);
    auto wanted = Support::wordsOf(row[2]);
    const bool areOthers = std::erase(wanted, "...") > 0;
    std::erase(wanted, "-");
    const auto words = offered(row[0], row[1]);
    EXPECT_THAT(words, testing::IsSupersetOf(wanted));
    EXPECT_TRUE(areOthers || words.size() == wanted.size()) << words.size();
  }
  // A daemon that does not answer, and none: silence, and soon.
  daemon_->send(SIGSTOP);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_THAT(offered("bash", "tunnelctl show tun"), testing::IsEmpty());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  daemon_.reset();
  EXPECT_THAT(offered("bash", "tunnelctl show tun"), testing::IsEmpty());
}

}  // namespace
}  // namespace Tunnelctl
