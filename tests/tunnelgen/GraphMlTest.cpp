#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "apps/tunnelgen/GraphMl.h"

namespace Tunnelgen {
namespace {

using testing::HasSubstr;

std::string graph(const std::string& inside, const std::string& before = "") {
  return "<graphml>\n" + before + "<graph edgedefault='undirected'>\n" + inside +
         "\n</graph>\n</graphml>\n";
}

constexpr const char* keys =
    "<key id='x' for='node' attr.name='Longitude'/><key id='y' for='node' "
    "attr.name='lat'/>"
    "<key id='n' for='node' attr.name='LABEL'><default> nowhere </default></key>"
    "<key id='e' for='edge' attr.name='label'/>\n";

std::string placed(const std::string& inside) {
  return graph(inside, keys);
}

// Catches data that is read under a wrong key, a link that is lost, and numbers that fall
// together.
TEST(GraphMl, readsNodesPlacesAndEdges) {
  const Topology read = parseGraphMl(
      placed(
          "<edge source='7' target='a'/>"  // before its nodes
          "<node id='7'><data key='x'>-10.5</data><data key='y'> 51 </data>"
          "<data key='n'>A &amp; B</data></node>"
          "<node id='a'><data key='x'>2</data><data key='y'/></node><node id='b'/>"
          "<edge source='a' target='7'><data key='e'>2nd</data></edge>"
          "<edge source='b' target='b'/><edge source='b' target='a' directed='false'/>"),
      "f");
  ASSERT_EQ(read.routers.size(), 3u);
  EXPECT_EQ(read.routers[0].name, "n7");
  EXPECT_EQ(read.routers[0].label, "A & B");
  ASSERT_TRUE(read.routers[0].place);
  EXPECT_EQ(read.routers[0].place->latitude, 51);
  EXPECT_EQ(read.routers[0].place->longitude, -10.5);
  EXPECT_FALSE(read.routers[1].place);
  EXPECT_EQ(read.routers[2].label, "nowhere");
  ASSERT_EQ(read.links.size(), 3u);
  EXPECT_EQ(read.selfLinkCount, 1u);
  EXPECT_EQ(read.parallelCount(), 1u);
  EXPECT_EQ(read.placelessCount(), 2u);
  EXPECT_THAT(read.links[1].ends, testing::ElementsAre(1, 0));
  EXPECT_THAT(read.links[1].intfs, testing::ElementsAre(2, 2));
  EXPECT_THAT(read.links[2].intfs, testing::ElementsAre(1, 3));

  EXPECT_EQ(read.router("7"), 0u);
  EXPECT_EQ(read.router("n7"), 0u);
  EXPECT_EQ(read.router("A & B"), 0u);
  for (const auto& [text, what] :
       {std::pair("c", "router 'c': no name"), std::pair("nowhere", "say which: a, b")})
    try {
      read.router(text);
      FAIL() << text;
    } catch (const Failure& failure) {
      EXPECT_THAT(failure.what(), HasSubstr(what));
    }

  // "1" and "n1" have one name, so all are numbered.
  const Topology numbered = parseGraphMl(graph("<node id='1'/><node id='n1'/>"), "f");
  EXPECT_EQ(numbered.routers[0].name + numbered.routers[1].name, "n1n2");
}

// Catches bad input that is read in part, and an error that does not say where it is.
TEST(GraphMl, refusesWhatIsMalformed) {
  const std::string two = "<node id='a'/><node id='b'/>\n";
  const struct {
    std::string text;
    const char* error;
  } rows[] = {
      {"",                                                           "f:1: not XML"                              },
      {"<graphml>\n\n<graph>\n</graphml>",                           "f:4: not XML: "                            },
      {"<?xml version='1.0' encoding='ISO-8859-1'?><graphml/>",      "encoding 'iso-8859-1'"                     },
      {"<html/>",                                                    "f:1: html: expected graphml"               },
      {"<graphml/>",                                                 "f:1: graphml: no graph"                    },
      {"<graphml><graph/></graphml>",                                "graph: edgedefault '', expected undirected"},
      {graph(""),                                                    "f: no node"                                },
      {graph("</graph><graph edgedefault='undirected'>"),            "f:3: graph: a second graph"                },
      {graph("\n<node/>"),                                           "f:4: node: attribute id is missing"        },
      {graph("<node id=''/>"),                                       "node: attribute id is empty"               },
      {graph(two + "<node id='a'/>"),                                "f:4: node: id 'a' stands twice"            },
      {graph("<node id='a'><graph/></node>"),                        "graph: a graph inside of a node"           },
      {graph(two + "<edge source='a'/>"),                            "f:4: edge: attribute target is missing"    },
      {graph(two + "<edge source='a' target='c\n'/>"),
       "f:4: edge: target 'c ' is no node"                                                                       },
      {graph(two + "<edge source='a' target='b' directed='true'/>"), "edge: directed"                            },
      {graph(two + "<hyperedge/>"),                                  "f:4: hyperedge: not known"                 },
      {graph("<node id='a'><data key='z'>1</data></node>"),          "key 'z' is not declared"                   },
      {placed("").insert(9,                                          "<key id='x'/>"),                             "key: id 'x' stands twice"},
      {placed("<node id='a'><data key='y'>9x</data></node>"),
       "f:4: data: latitude '9x' of node 'a', expected degrees from -90 to 90"                                                   },
      {placed("<node id='a'><data key='y'>nan</data></node>"),                                                            "latitude 'nan'"},
      {placed("<node id='a'>\n<data key='x'>180.1</data></node>"),
       "f:5: data: longitude '180.1'"                                               },
      {placed("<node id='a'><data key='x'>1</data><data key='x'>1</data></node>"),
       "data: a second longitude of node 'a'"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    try {
      parseGraphMl(row.text, "f");
      ADD_FAILURE() << "was read";
    } catch (const Failure& failure) {
      EXPECT_THAT(failure.what(), HasSubstr(row.error));
    }
  }
  try {
    readGraphMl("/nonexistent/x");
    FAIL();
  } catch (const Failure& failure) {
    EXPECT_THAT(failure.what(), HasSubstr("/nonexistent/x: open: No such file"));
  }

  // One router with an interface too many.
  std::string star = two;
  for (U32 i = 0; i <= Topology::maxInterfaces; ++i)
    star += "<edge source='a' target='b'/>";
  EXPECT_THROW(parseGraphMl(graph(star), "f"), Failure);
}

// Catches kilometres that are not those of the globe.
TEST(GraphMl, measuresTheExample) {
  Topology read = readGraphMl(HOUSE_SOURCE_DIR "/examples/abilene.graphml");
  EXPECT_EQ(read.routers.size(), 11u);
  EXPECT_EQ(read.links.size(), 14u);
  read.metricIs(Metric::distance, 7);
  const Link& last = read.links.back();  // Washington to New York
  EXPECT_EQ(read.routers[last.ends[0]].name, "wash");
  EXPECT_NEAR(last.metric, 328, 5);
  EXPECT_NEAR(distance({0, 179.5}, {0, -179.5}), 111.2, 0.1);
  EXPECT_NEAR(distance({90, 0}, {-90, 50}), 20015, 1);
  read.routers[0].place.reset();
  read.metricIs(Metric::distance, 7);
  EXPECT_EQ(read.links[0].metric, 7u);
  read.metricIs(Metric::hops, 7);
  EXPECT_EQ(last.metric, 1u);
}

}  // namespace
}  // namespace Tunnelgen
