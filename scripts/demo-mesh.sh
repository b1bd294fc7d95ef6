#!/bin/sh
# demo-mesh.sh BUILD_DIR GRAPH: the full mesh of tunnels of a network in GraphML.
set -u
. "$(dirname "$0")/demo-lib.sh"
needs hiveld tunnelctl tunnelgen
graph=${2:?a GraphML file}
began=$(milliseconds)
start_database
. scripts/demo-mesh-part.sh
stop "$hiveld_pid" || give_up 'the database failed'
echo
echo "demo: $(($(milliseconds) - began)) ms in all"
