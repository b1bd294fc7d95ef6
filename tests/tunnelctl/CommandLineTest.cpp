#include <algorithm>
#include <cstdlib>
#include <sstream>

#include <gmock/gmock.h>

#include "apps/tunnelctl/CommandLine.h"
#include "apps/tunnelctl/Json.h"
#include "tests/Support/Rows.h"

namespace Tunnelctl {
namespace {

using testing::HasSubstr;
using testing::Not;

struct Outcome {
  int status;
  std::string out, err;
};
Outcome runWith(const std::string& line, bool isTerminal = false) {
  std::ostringstream out, err;
  const int status = run(Support::wordsOf(line), {out, err, isTerminal});
  return {status, out.str(), err.str()};
}

// Each row: arguments, exit status, what stands in the output or else in the error. Catches
// wrong statuses, results on standard error, errors of more than one line or under no name,
// and output that claims to be JSON and is not an array.
void expectRows(const std::string& verb, const char* text) {
  for (const auto& row : Support::rowsOf(text)) {
    SCOPED_TRACE(verb + row[0]);
    const Outcome outcome = runWith("-s /does/not/exist " + verb + row[0]);
    const bool isGood = row[1] == "0";
    EXPECT_EQ(outcome.status, std::stoi(row[1])) << outcome.err;
    EXPECT_THAT(isGood ? outcome.out : outcome.err, HasSubstr(row[2]));
    EXPECT_EQ(isGood ? outcome.err : row[1] == "2" ? outcome.out : "", "");
    if (isGood && row[0].find("--help") == std::string::npos)
      for (const char* flag : {"-j ", "-jp "}) {
        const Json json = parseJson(runWith(flag + verb + row[0]).out);
        EXPECT_TRUE(json.is(Json::Kind::array) && !json.items.empty()) << flag;
      }
    if (!isGood) {
      EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1);
      EXPECT_TRUE(outcome.err.starts_with("tunnelctl: ")) << outcome.err;
    }
  }
}

// Catches arguments that are taken for others, and errors that do not name the argument.
TEST(CommandLine, answersWithStatusAndText) {
  expectRows("", R"(
-br id 5 6                              | 0 | 5  0x5
-jp id 5                                | 0 | [\n  {\n    "value": 5,
types                                   | 0 | DecapGroupHivelTypes
types -d                                | 0 | DecapGroupHivelTypes
types DecapGroupHivelTypes              | 0 | Tunnel::Decap::DecapIntf
types Tunnel::Decap::TunnelType         | 0 | 3       udp
types DecapGroup                        | 0 | Vantor::IpGenAddr -> bool
value TunnelId 5                        | 0 | 5\n
value TunnelId --json 5                 | 0 | 5\n
--help                                  | 0 | Usage: tunnelctl
id --help                               | 0 | encode
                                        | 2 | VERB is missing: expected one of id, encap
frob                                    | 2 | VERB 'frob': expected one of id, encap
--frob id 5                             | 2 | --frob
types frob                              | 2 | TYPE 'frob': not registered
types TunnelType                        | 2 | could be any of Tunnel::Decap::TunnelType, 
value TunnelId                          | 2 | either TEXT or --json
value TunnelId x                        | 2 | TEXT: 
value TunnelId --json {                 | 2 | --json: not JSON
value DecapGroup x                      | 2 | is an entity, expected a value type
value DecapExcludeIntfSet x             | 2 | holds a collection
value DecapIntf --json {"frob":1}       | 2 | frob: Tunnel::Decap::DecapIntf has no
show a//b                               | 1 | no state database at 
apply /does/not/exist                   | 1 | FILE '/does/not/exist': cannot be read
--types libdoesnotexist.so types        | 1 | --types 'libdoesnotexist.so': 
--timeout 0 status                      | 2 | --timeout
monitor --count x                       | 2 | --count
)");
}

// Catches a text form that is read as another tunnel, a property shown of a wrong kind, and
// an identifier put together for another tunnel or one that cannot be.
TEST(CommandLine, takesIdentifiersApartAndPutsThemTogether) {
  expectRows("-j ", R"(
id 52776558133253                         | 0 | [{"value":52776558133253,"hex":"0x300000000005","kind":"ldpTunnel","number":3,"type":"LDP","index":5,"family":"IPv4","algorithm":null,"table":"ldpTunnelTable","transport":"mplsTunnel","entropyLabel":true,"interface":"DynamicTunnel3145728.5","text":"LDP tunnel index 5","diagnostic":"Table:ldpTunnel-Index:5"}]
id LDP tunnel index 26                    | 0 | [{"value":52776558133274,
id 'ldp tunnel index 0x1a'                | 0 | [{"value":52776558133274,
id 'LDP tunnel index 26' 0x5              | 0 | },{"value":5,
id 5 Tunnel12 0x7                         | 0 | [{"value":5,"hex":"0x5","kind":"invalidTunnel","number":0,"type":"invalidTunnel","index":5,"family":"IPv4","algorithm":null,"table":"invalidTunnelTable","transport":"unknownTunnel","entropyLabel":false,
id 5 Tunnel12 0x7                         | 0 | },{"value":158329674399756,"hex":"0x90000000000c","kind":"staticInterfaceTunnel","number":9,"type":"Static Interface","index":12,"family":null,"algorithm":null,"table":null,"transport":"ipTunnel","entropyLabel":false,"interface":"Tunnel12",
id 'SR-TE Policy tunnel index 5'          | 0 | "kind":"srTePolicyTunnel","number":14,"type":"SR-TE Policy","index":5,"family":"IPv4","algorithm":null,"table":"srTePolicyTunnelTable","transport":"mplsTunnel","entropyLabel":false,"interface":"SrTePolicyTunnel1966080.5",
id SrTePolicyTunnel1966080.5              | 0 | "kind":"srTePolicyTunnel","number":14,"type":"SR-TE Policy","index":5,
id Table:ldpTunnel-Index:1a               | 0 | [{"value":52776558133274,
id DynamicTunnel3145728.5                 | 0 | [{"value":52776558133253,
id 0x1540000000007                        | 0 | "kind":"isisFlexAlgoTunnel","number":21,"type":"IS-IS FlexAlgo","index":7,"family":"IPv4","algorithm":128,
id 0x580001234567                         | 0 | "kind":"staticTunnel","number":5,"type":"Static MPLS","index":19088743,"family":"IPv6",
id 0x380000000005                         | 0 | "kind":"ldpTunnel","number":3,"type":"LDP","index":5,"family":null,
id 0x800000000001                         | 0 | "kind":"srTeSegmentListTunnel","number":8,"type":"SR-TE","index":1,"family":null,"algorithm":null,"table":"srTeSegmentListTunnelTable",
id 0x1700000000001                        | 0 | "kind":null,"number":23,"type":null,"index":1,"family":"IPv4","algorithm":null,"table":null,"transport":null,
id 0x1ffffffffffff                        | 0 | "kind":"maxTunnelType","number":31,"type":"maxTunnelType","index":8796093022207,"family":null,"algorithm":null,"table":null,"transport":"unknownTunnel",
id                                        | 2 | ID is required
id x                                      | 2 | id 'x': expected a number
id 5 frob                                 | 2 | 'frob'
id 0x2000000000000                        | 2 | above the largest identifier 562949953421311
id 18446744073709551616                   | 2 | expected a number
id 0x                                     | 2 | expected a number
id '5 '                                   | 2 | expected a number
id LDP tunnel index 8796093022208         | 2 | 'LDP tunnel index 8796093022208'
id XYZ tunnel index 5                     | 2 | 'XYZ tunnel index 5'
id Table:ldpTunnel-Index:                 | 2 | 'Table:ldpTunnel-Index:'
id Table:ldpTunnel-Index:1g               | 2 | 'Table:ldpTunnel-Index:1g'
id Ethernet1                              | 2 | a tunnel's interface
id DynamicTunnel4294967295.16777215       | 2 | a tunnel's interface
id encode LDP 26                          | 0 | [{"value":52776558133274,
id encode ldpTunnel 0x1a                  | 0 | [{"value":52776558133274,
id encode 'is-is flexalgo' 7 --algo 128   | 0 | "hex":"0x1540000000007"
id encode isisFlexAlgoTunnel 7 --ipv6     | 0 | "hex":"0x1580000000007"
id encode 'Static MPLS' 1 --ipv6          | 0 | "hex":"0x580000000001"
id encode ldpTunnel 8796093022207         | 0 | "hex":"0x37ffffffffff"
id encode ldpTunnel 8796093022208         | 2 | INDEX '8796093022208'
id encode isisFlexAlgoTunnel 0x800000000  | 2 | (0x7ffffffff)
id encode isisFlexAlgoTunnel 1 --algo 256 | 2 | --algo '256'
id encode ldpTunnel 1 --algo 5            | 2 | only isisFlexAlgoTunnel has one
id encode ldpTunnel 1 --ipv6              | 2 | ldpTunnel has no IPv6
id encode srTeSegmentListTunnel 1 --ipv6  | 2 | has no IPv6
id encode frob 1                          | 2 | KIND 'frob': expected one of invalidTunnel, bgpLuPushTunnel
id encode ldpTunnel x                     | 2 | INDEX 'x'
id encode LDP                             | 2 | INDEX
encap 0x40000007                          | 0 | [{"value":1073741831,"hex":"0x40000007","kind":"mplsEncap","number":4,"type":"MPLS","index":7}]
encap 0x50000001                          | 0 | "kind":"vxlanEncap","number":5,"type":"Invalid","index":1}]
encap 1                                   | 0 | "kind":"invalidEncap","number":0,"type":"Invalid","index":1}]
encap 0xf0000001                          | 0 | "kind":null,"number":15,"type":null,"index":1}]
encap encode mplsEncap 7                  | 0 | "hex":"0x40000007"
encap encode MPLS 0xfffffff               | 0 | "hex":"0x4fffffff"
encap encode vxlanEncap 1                 | 0 | "hex":"0x50000001"
encap encode Invalid 1                    | 0 | "hex":"0x1"
encap encode GREoverIPsec 2               | 0 | "hex":"0x30000002"
encap encode MPLS 0x10000000              | 2 | INDEX '0x10000000'
encap encode frob 1                       | 2 | KIND 'frob'
encap 4294967296                          | 2 | '4294967296'
encap x                                   | 2 | 'x'
intf DynamicTunnel3145728.5               | 0 | [{"name":"DynamicTunnel3145728.5","value":4179393230757953541,"hex":"0x3a00300000000005","type":58,"part1":3145728,"part0":5,"tunnel":52776558133253,"text":"LDP tunnel index 5"}]
intf 4179393230757953541                  | 0 | [{"name":"DynamicTunnel3145728.5","value":4179393230757953541,
intf Vlan10                               | 0 | "hex":"0x30000000a000000","type":3,"part1":10,"part0":0,"tunnel":null,"text":null}]
intf 0                                    | 0 | [{"name":"","value":0,"hex":"0x0","type":0,
intf DynamicTunnel1.99999999              | 2 | 'DynamicTunnel1.99999999'
)");
}

// Catches a bad record that is taken for a good one, or whose message does not say field,
// place, what was found and what is allowed; records behind one another that are not found,
// and a bad one that hides the good ones in front of it.
TEST(CommandLine, readsRecordsAndTellsBadOnesByField) {
  std::string rows = R"(
TunnelTableEntry --hex 'HEAD 00000000 00000000'                        | 0 | LDP tunnel index 5
TunnelTableEntry --hex 'HEAD 00000000 02000000 5231'                   | 0 | name             R1\n
TunnelTableEntry --hex 'HEAD 11000000'                                 | 1 | endpoint count at offset 25: found 17, allowed 0 to 16; 29 bytes are there
TunnelTableEntry --hex 'HEAD 02000000 ADDRESS'                         | 1 | found 2, which takes 48 bytes, but 20 are left of 49
TunnelTableEntry --hex 'HEAD 00000000 81000000'                        | 1 | name count at offset 29: found 129, allowed 0 to 128
TunnelTableEntry --hex 'HEAD 00000000 00000000 ff'                     | 1 | ends at offset 33, but 34
TunnelTableEntry --hex 'HEAD 01000000 0700000000000000 0000000000000000 0000000000000000 00000000' | 1 | endpoint[0] at offset 29: found 7, allowed 0 for no address, 1 for IPv4
TunnelTableEntry --hex 'HEAD 01000000 ADDRESS 21000000 00000000'       | 1 | endpoint[0] at offset 29: found 33, allowed 0 to 32 as the length of 10.0.0.1
TunnelTableEntry --hex 0000000000900100                                | 1 | found type 25 in 439804651110400
TunnelTableEntry --hex 00000000000000ff                                | 1 | tunnelId at offset 0: found 18374686479671623680, allowed 0 to 562949953421311
MplsCosVia --hex 'ADDRESS 0000000a00000003 2e 05 01000000 00000100'    | 0 | 20      8      intfId        Vlan10\n28      1      ipDscp        46\n29      1      mplsExp       5\n30      4      labels count  1\n34      4      labels[0]     65536\n
MplsCosVia --hex 'ADDRESS 0000000000000000 00 09 00000000'             | 1 | mplsExp at offset 29: found 9, allowed 0 to 7
MplsCosVia --hex 'ADDRESS 0000000000000000 00 05 01000000 00001000'    | 1 | labels[0] at offset 34: found 1048576, allowed 0 to 1048575
MplsCosVia --hex 'ADDRESS 0000000000000000 00 05 ffffffff'             | 1 | which takes 17179869180 bytes, but 0 are left
MplsCosVia --hex ''                                                    | 1 | nexthop at offset 0: needs 20 bytes, but 0 are left of 0
MulticastTunnelTableEntry --hex '0500000000600100 02000000 0a01'       | 0 | 0a01
MulticastTunnelTableEntry --hex '0500000000600100 03000000 0a01'       | 1 | mcastTreeId count at offset 8: found 3, which takes 3 bytes, but 2 are left of 14
DynamicMplsLabelStack --hex 0x01000000-10000000                        | 0 | labels[0]     16
DynamicMplsLabelStack --hex 010                                        | 2 | --hex: found 3 hexadecimal digits, expected two
DynamicMplsLabelStack --hex '01 x'                                     | 2 | --hex: found x at character 4
DynamicMplsLabelStack --all --hex '01000000 10000000 02000000'         | 1 | record 1, which begins at 8: labels count at offset 0
frob --hex ''                                                          | 2 | TYPE 'frob': expected one of TunnelTableEntry, MplsCosVia
)";
  rows = Support::replaced(rows, "HEAD",
                           "0500000000300000 0000000000000000 37 0a000000 00000000");
  rows = Support::replaced(rows, "ADDRESS", "01000000 0a000001 000000000000000000000000");
  expectRows("record ", rows.c_str());
  const Json json = parseJson(runWith("-j record DynamicMplsLabelStack --all --hex "
                                      "01000000100000000100000010000000ff")
                                  .out);
  EXPECT_EQ(json.items.size(), 3u);
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
