#include "apps/tunnelctl/CommandLine.h"
#include "apps/tunnelctl/Json.h"
#include "tests/Support/Rows.h"
#include "tests/Support/Testing.h"

namespace Tunnelctl {
namespace {

using testing::HasSubstr;

struct Outcome {
  int status;
  std::string out, err;
};
Outcome runWith(const std::string& line) {
  std::ostringstream out, err;
  const int status = run(Support::wordsOf(line), {out, err, false});
  return {status, out.str(), err.str()};
}

// Each row: arguments, exit status, what stands in the output or else in the error, what of
// several records is there although one is bad. Catches
// wrong statuses, results on standard error, errors of more than one line or under no name,
// and output that claims to be JSON and is not an array.
void expectRows(const std::string& verb,
                const std::vector<std::vector<std::string>>& rows) {
  for (const auto& row : rows) {
    SCOPED_TRACE(verb + row[0]);
    const Outcome outcome = runWith("-s /does/not/exist " + verb + row[0]);
    const bool isGood = row[1] == "0";
    EXPECT_EQ(outcome.status, std::stoi(row[1])) << outcome.err;
    EXPECT_THAT(isGood ? outcome.out : outcome.err, HasSubstr(row[2]));
    EXPECT_THAT(outcome.out, HasSubstr(row.size() > 3 ? row[3] : ""));
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
  expectRows("", Support::rowsIn("tunnelctl/verbs.txt"));
}

// Catches a text form that is read as another tunnel, a property shown of a wrong kind, and
// an identifier put together for another tunnel or one that cannot be.
TEST(CommandLine, takesIdentifiersApartAndPutsThemTogether) {
  expectRows("-j ", Support::rowsIn("tunnelctl/identifiers.txt"));
}

// Catches a bad record that is taken for a good one, or whose message does not say field,
// place, what was found and what is allowed; records behind one another that are not found,
// and a bad one that hides the good ones in front of it.
TEST(CommandLine, readsRecordsAndTellsBadOnesByField) {
  expectRows("record ", Support::rowsIn("tunnelctl/records.txt"));
}

}  // namespace
}  // namespace Tunnelctl
