#include <regex>
#include <sstream>

#include <gmock/gmock.h>

#include "tests/tunnelctl/Processes.h"

namespace Tunnelctl {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;

class CompletionProcesses : public CtlProcesses {
 protected:
  // What a shell offers for the last word of a line that is split at blanks and, as bash
  // does, at colons and equals signs.
  std::vector<std::string> bash(const std::string& line,
                                const std::string& function = "_tunnelctl") {
    static const std::regex word("[:=]+|[^ :=]+");
    std::string words;
    int count = 0;
    for (std::sregex_iterator at(line.begin(), line.end(), word), end; at != end; ++at)
      words += "'" + at->str() + "' ", ++count;
    if (line.ends_with(' ')) words += "''", ++count;
    return run({"/bin/bash", "-c",
                ". " HOUSE_SOURCE_DIR "/completions/tunnelctl.bash; COMP_WORDS=(" +
                    words + "); COMP_CWORD=" + std::to_string(count - 1) + "; " +
                    function +
                    " \"${COMP_WORDS[0]}\"; "
                    "((${#COMPREPLY[@]})) && printf '%s\\n' \"${COMPREPLY[@]}\""});
  }
  std::vector<std::string> zsh(const std::string& words, const std::string& service) {
    return run(
        {"/bin/zsh", "-f", "-c",
         "compadd() { shift $@[(i)--]; print -rl -- $@ }; _files() { print files }; "
         "compset() { : }; service=" +
             service + "; words=(" + words +
             "); CURRENT=$#words; PREFIX=${words[-1]}; "
             ". " HOUSE_SOURCE_DIR "/completions/_tunnelctl"});
  }
  std::vector<std::string> run(const std::vector<std::string>& command) {
    Process process(command, directory_ + "/shell");
    process.join();
    EXPECT_EQ(process.err(), "");
    std::vector<std::string> lines;
    std::istringstream out(process.out());
    for (std::string line; std::getline(out, line);)
      lines.push_back(line);
    return lines;
  }
};

// Catches words that a shell splits and does not put together, arguments that are taken for
// others, and names that the database has and nobody is offered.
TEST_F(CompletionProcesses, shellsOfferWhatMayFollow) {
  ASSERT_EQ(ctl({"apply", HOUSE_SOURCE_DIR "/examples/whole-router.json"}).status, 0);
  const std::string ctl = HOUSE_BIN_DIR "/tunnelctl -s " + socket_ + " ";
  const struct {
    std::string line;
    testing::Matcher<std::vector<std::string>> offered;
  } rows[] = {
      {ctl + "sa",                                  ElementsAre("save")                            },
      {ctl + "",                                    IsSupersetOf({"apply", "diff", "save", "show"})},
      {ctl + "id e",                                ElementsAre("encode")                          },
      {ctl + "id encode ldp",                       ElementsAre("ldpTunnel")                       },
      {ctl + "apply --ch",                          ElementsAre("--check")                         },
      {ctl + "-jp show --det",                      ElementsAre("--details")                       },
      {ctl + "show tunnel/s",                       ElementsAre("tunnel/static/config")            },
      {ctl + "show tunnel/info/g",                  ElementsAre("tunnel/info/gre")                 },
      {ctl + "--timeout 3 save x --also tunnel/m",  ElementsAre("tunnel/mpls/config")              },
      {ctl + "save --also=tunnel/m",                ElementsAre("tunnel/mpls/config")              },
      {ctl + "save x tunnel/mpls/config tunnel/st", ElementsAre("tunnel/static/config")            },
      {ctl + "value Tunnel::Static::",              ElementsAre("StaticTunnelConfigEntry")         },
      {ctl + "value DecapIntfK",                    ElementsAre("DecapIntfKey")                    },
      {ctl + "types TunnelB",                       Contains("TunnelBasicTypes")                   },
      {ctl + "record Mpls",                         ElementsAre("MplsCosVia")                      },
      {ctl + "apply " + directory_ + "/hiv",        Contains(directory_ + "/hivel.sock")           },
      {ctl + "show frob",                           IsEmpty()                                      },
      {ctl + "complet",                             IsEmpty()                                      },
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    EXPECT_THAT(bash(row.line), row.offered);
  }
  const std::string words = "'" HOUSE_BIN_DIR "/tunnelctl' -s " + socket_;
  EXPECT_THAT(zsh(words + " show tunnel/s", "tunnelctl"),
              ElementsAre("tunnel/static/config"));
  EXPECT_THAT(zsh(words + " ''", "tunnelctl"), Contains("diff"));
  EXPECT_THAT(zsh(words + " value Tunnel::Static::", "tunnelctl"),
              ElementsAre("Tunnel::Static::StaticTunnelConfigEntry"));
  EXPECT_THAT(zsh(words + " apply ''", "tunnelctl"), ElementsAre("files"));
  EXPECT_THAT(zsh("'" HOUSE_BIN_DIR "/hiveld' --", "hiveld"), Contains("--socket"));

  EXPECT_THAT(bash(HOUSE_BIN_DIR "/hiveld --so", "_tunnelctl_options"),
              ElementsAre("--socket"));

  // A daemon that does not answer, and none: silence, and soon.
  daemon_->send(SIGSTOP);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_THAT(bash(ctl + "show tun"), IsEmpty());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  daemon_.reset();
  EXPECT_THAT(bash(ctl + "show tun"), IsEmpty());
}

}  // namespace
}  // namespace Tunnelctl
