#include "apps/tunnelgen/GraphMl.h"
#include "tests/Support/Rows.h"
#include "tests/Support/Testing.h"

namespace Tunnelgen {
namespace {

using testing::HasSubstr;
using testing::ThrowsMessage;

// Catches data that is read under a wrong key, a link that is lost, and numbers that fall
// together.
TEST(GraphMl, readsNodesPlacesAndEdges) {
  const Topology read = parseGraphMl(R"(<graphml>
<key id='x' for='node' attr.name='Longitude'/><key id='y' for='node' attr.name='lat'/>
<key id='n' for='node' attr.name='LABEL'><default> nowhere </default></key>
<key id='e' for='edge' attr.name='label'/>
<graph edgedefault='undirected'><edge source='7' target='a'/>
<node id='7'><data key='x'>-10.5</data><data key='y'> 51 </data><data key='n'>A &amp; B</data></node>
<node id='a'><data key='x'>2</data><data key='y'/></node><node id='b'/>
<edge source='a' target='7'><data key='e'>2nd</data></edge><edge source='b' target='b'/>
<edge source='b' target='a' directed='false'/></graph></graphml>)",
                                     "f");
  std::ostringstream text;
  for (const Router& router : read.routers) {
    text << router.name << " '" << router.label << "'";
    if (router.place)
      text << " at " << router.place->latitude << ' ' << router.place->longitude;
    text << "; ";
  }
  for (const Link& link : read.links)
    text << link.ends[0] << '/' << link.intfs[0] << " to " << link.ends[1] << '/'
         << link.intfs[1] << "; ";
  text << read.selfLinkCount << read.parallelCount() << read.placelessCount();
  EXPECT_EQ(text.str(),
            "n7 'A & B' at 51 -10.5; a 'nowhere'; b 'nowhere'; "
            "0/1 to 1/1; 1/2 to 0/2; 2/1 to 1/3; 112");
  EXPECT_THAT([&] { read.router("nowhere"); },
              ThrowsMessage<Failure>(HasSubstr("say which: a, b")));
  // "1" and "n1" have one name, so all are numbered.
  const Topology numbered = parseGraphMl(
      "<graphml><graph edgedefault='undirected'><node id='1'/>"
      "<node id='n1'/><node id='x'/></graph></graphml>",
      "f");
  EXPECT_EQ(numbered.routers[0].name + numbered.routers[2].name, "n1n3");
}

// Catches bad input that is read in part, and an error that does not say where it is.
TEST(GraphMl, refusesWhatIsMalformed) {
  for (const auto& row : Support::rowsIn("tunnelgen/malformed.txt")) {
    SCOPED_TRACE(row[0]);
    EXPECT_THAT([&] { parseGraphMl(row[0], "f"); },
                ThrowsMessage<Failure>(HasSubstr(row[1])));
  }
}

// Catches kilometres that are not those of the globe.
TEST(GraphMl, measuresTheExample) {
  Topology read = readGraphMl(HOUSE_SOURCE_DIR "/examples/abilene.graphml");
  read.metricIs(Metric::distance, 7);
  EXPECT_NEAR(read.links.back().metric, 328, 5);  // Washington to New York
}

}  // namespace
}  // namespace Tunnelgen
