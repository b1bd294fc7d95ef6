#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "apps/tunnelctl/CommandLine.h"
#include "apps/tunnelctl/Json.h"

namespace Tunnelctl {
namespace {

using testing::HasSubstr;
using testing::Not;

struct Result {
  int status;
  std::string out, err;
};
Result runWith(const std::string& line, bool isTerminal = false) {
  std::istringstream words(line);
  const std::vector<std::string> arguments{std::istream_iterator<std::string>(words),
                                           std::istream_iterator<std::string>()};
  std::ostringstream out, err;
  const int status = run(arguments, {out, err, isTerminal});
  return {status, out.str(), err.str()};
}

// Catches wrong exit codes, results on standard error, errors of more than one line and
// errors that do not name the argument.
TEST(CommandLine, endsWithTheRightStatusAndOneLine) {
  const struct {
    const char* arguments;  // at blanks
    int status;
    const char* text;  // of standard output, or else of standard error
  } rows[] = {
      {"id 52776558133253",                         0, "LDP tunnel index 5"                         },
      {"id LDP tunnel index 5",                     0, "0x300000000005"                             },
      {"id -j 5",                                   0, "[{\"value\":5,"                             },
      {"-jp id 5",                                  0, "[\n  {\n    \"value\": 5,"                  },
      {"-br id 5 6",                                0, "5  0x5"                                     },
      {"id encode LDP 5",                           0, "52776558133253"                             },
      {"id encode isisFlexAlgoTunnel 7 --algo 128", 0, "373833953443847"                            },
      {"encap 0x40000007",                          0, "mplsEncap"                                  },
      {"encap encode MPLS 7",                       0, "1073741831"                                 },
      {"intf Vlan10",                               0, "216172782281555968"                         },
      {"types",                                     0, "DecapGroupHivelTypes"                       },
      {"types DecapGroupHivelTypes",                0, "Tunnel::Decap::DecapIntf"                   },
      {"types Tunnel::Decap::TunnelType",           0, "3       udp"                                },
      {"types DecapGroup",                          0, "Vantor::IpGenAddr -> bool"                  },
      {"value TunnelId 5",                          0, "5\n"                                        },
      {"value TunnelId --json 5",                   0, "5\n"                                        },
      {"--help",                                    0, "Usage: tunnelctl"                           },
      {"id --help",                                 0, "encode"                                     },
      {"",                                          2, "VERB is missing: expected one of id, encap" },
      {"frob",                                      2, "VERB 'frob': expected one of id, encap"     },
      {"--frob id 5",                               2, "--frob"                                     },
      {"id",                                        2, "ID is required"                             },
      {"id x",                                      2, "id 'x': expected a number"                  },
      {"id encode LDP",                             2, "INDEX"                                      },
      {"id encode frob 5",                          2, "KIND 'frob'"                                },
      {"types frob",                                2, "TYPE 'frob': not registered"                },
      {"types TunnelType",                          2, "could be any of Tunnel::Decap::TunnelType, "},
      {"value TunnelId",                            2, "either TEXT or --json"                      },
      {"value TunnelId x",                          2, "TEXT: "                                     },
      {"value TunnelId --json {",                   2, "--json: not JSON"                           },
      {"value DecapGroup x",                        2, "is an entity, expected a value type"        },
      {"value DecapExcludeIntfSet x",               2, "holds a collection"                         },
      {"value DecapIntf --json {\"frob\":1}",       2, "frob: Tunnel::Decap::DecapIntf has no"      },
      {"show a//b",                                 1, "no state database at "                      },
      {"apply /does/not/exist",                     1, "FILE '/does/not/exist': cannot be read"     },
      {"--types libdoesnotexist.so types",          1, "--types 'libdoesnotexist.so': "             },
      {"--timeout 0 status",                        2, "--timeout"                                  },
      {"monitor --count x",                         2, "--count"                                    },
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.arguments);
    const Result result = runWith(std::string("-s /does/not/exist ") + row.arguments);
    EXPECT_EQ(result.status, row.status) << result.err;
    EXPECT_THAT(row.status == 0 ? result.out : result.err, HasSubstr(row.text));
    EXPECT_EQ(row.status == 0 ? result.err : result.out, "");
    if (row.status != 0) {
      EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
      EXPECT_TRUE(result.err.starts_with("tunnelctl: ")) << result.err;
    }
  }
}

// Catches output that claims to be JSON and is not an array.
TEST(CommandLine, jsonIsAlwaysAnArray) {
  const std::string verbs[] = {"id 5",  "id 5 6",   "encap 5",        "intf 5",
                               "types", "types -d", "types TunnelId", "value TunnelId 5"};
  for (const auto& verb : verbs) {
    SCOPED_TRACE(verb);
    for (const char* flag : {"-j ", "-jp "}) {
      const Json json = parseJson(runWith(flag + verb).out);
      EXPECT_TRUE(json.is(Json::Kind::array));
      EXPECT_FALSE(json.items.empty());
    }
  }
}

// Catches colours in a pipe, and colours for those who asked for none.
TEST(CommandLine, coloursOnlyATerminal) {
  unsetenv("NO_COLOR");
  EXPECT_THAT(runWith("types", true).out, HasSubstr("\033["));
  EXPECT_THAT(runWith("types", false).out, Not(HasSubstr("\033[")));
  EXPECT_THAT(runWith("-j types", true).out, Not(HasSubstr("\033[")));
  setenv("NO_COLOR", "1", 1);
  EXPECT_THAT(runWith("types", true).out, Not(HasSubstr("\033[")));
  unsetenv("NO_COLOR");
}

}  // namespace
}  // namespace Tunnelctl
