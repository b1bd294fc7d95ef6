#pragma once

#include <string>
#include <string_view>

#include "apps/tunnelgen/Topology.h"

// Reads a graph in GraphML, in UTF-8.
//
// Read are the nodes and edges of the one graph in the file, and of the data of nodes what
// stands under keys called label or name, latitude or lat, longitude, lon, long or lng, in
// upper or lower case and with the defaults that their keys declare. All other data is
// skipped. A node has a place when it has both coordinates.
//
// Parallel edges are separate links; edges from a node to itself are counted and left out.
// What would lose links is an error: directed edges, hyperedges, graphs inside of others.
//
// Errors   Failure: file, line, element and what was found there.

namespace Tunnelgen {

Topology readGraphMl(const std::string& file);
// `file` is for errors.
Topology parseGraphMl(std::string_view text, const std::string& file);

}  // namespace Tunnelgen
