#!/bin/sh
# demo-tunnels.sh BUILD_DIR GRAPH: the tunnels of a real router. One process is the state
# database, one an agent that replays what a routing daemon told it while a link failed and
# came back, one follows the best tunnels, others look at the tables. Then the full mesh of
# the network in GRAPH takes their place. Ends with status 0 only when every copy agrees.
# Leaves nothing behind.
set -u
. "$(dirname "$0")/demo-lib.sh"
needs hiveld tunnelctl fpmagent tunnelgen
graph=${2:-examples/abilene.graphml}
recording=examples/fpm/abilene-r1-sr-flap.fpm
began=$(milliseconds)
start_database

title 'A second process follows the best tunnel to each end point'
background follower "$bin/tunnelctl" -s "$socket" -d monitor --rib
until_true 'the follower listens' grep -q 'changes from here on' "$directory/follower.out"
echo "  tunnelctl monitor --rib, process $follower_pid: no tunnels yet, waiting for changes"

title 'A third process is an agent: it replays what a routing daemon told it'
background agent "$bin/fpmagent" --socket "$socket" --replay "$recording" --pace 40 --hold \
  --interface 2=Ethernet1 --interface 3=Ethernet2 --remove
replayed() {
  grep -q 'told everything' "$directory/agent.out" "$directory/agent.log"
}
until_true 'the recording is replayed' replayed
echo "  fpmagent, process $agent_pid: $recording,"
echo '  one of eleven routers with IS-IS segment routing; a link of it fails and comes back'

title 'What a fourth process reads: the tables'
ctl table | indent
echo
ctl table srTunnelTable | indent

title 'The best tunnel to each end point, with its next hops'
ctl -d rib | indent

title 'What the follower saw: the tunnels as they came, then the link'
# The flap changes the next hops of one tunnel twice: there and back.
flapped() {
  [ "$(grep -c 'next hops .* -> ' "$directory/follower.out")" -ge 2 ]
}
until_true 'the follower has seen the link fail and come back' flapped
sed -n '/changes from here on/,$p' "$directory/follower.out" |
  sed 's/, endpoint .*\(, name .*\)/\1/' | indent

ctl --brief rib >"$directory/rib" || give_up 'the RIB could not be read'
read=$(wc -l <"$directory/rib")
seen=$(grep -c '  + best ' "$directory/follower.out")
echo
echo "  It heard of the best tunnels of $seen end points; the tables hold those of $read."
[ "$seen" -eq "$read" ] || give_up 'the follower saw other tunnels than there are'

title 'The identifier of one tunnel, taken apart'
ctl id "$(ctl names isis-10.255.0.5/32 | awk 'NR == 2 { print $(NF - 1) }')" | indent

stop "$agent_pid" || give_up 'the agent failed'
gone() {
  [ "$(ctl --brief table | wc -l)" -eq 0 ]
}
until_true 'the agent has taken its tables away' gone
stop "$follower_pid" || give_up 'the follower failed'

. scripts/demo-mesh-part.sh

stop "$hiveld_pid" || give_up 'the database failed'
echo
echo "demo: other processes read every tunnel that was made; $(($(milliseconds) - began)) ms in all"
