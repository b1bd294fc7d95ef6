#!/bin/sh
# demo-configuration.sh BUILD_DIR: three processes share the state of an edge router. One is
# the state database, one follows every change, one applies configurations; at the end all
# copies are compared. Ends with status 0 only when they are equal. Leaves nothing behind.
set -u
. "$(dirname "$0")/demo-lib.sh"
needs hiveld tunnelctl
began=$(milliseconds)
start_database

title 'A second process follows everything below "tunnel"'
background monitor "$bin/tunnelctl" -s "$socket" -p monitor tunnel \
  --state "$directory/followed.json"
until_true 'the follower has its snapshot' \
  grep -q 'changes from here on' "$directory/monitor.out"
echo "  tunnelctl monitor, process $monitor_pid: an empty database, waiting for changes"

all=0
# apply_and_show FILE: applies it in a third process and shows what the second one received.
# The follower hears of a change when the database passes it on: it is there when the number
# of its lines has reached what the writer counted.
apply_and_show() {
  before=$(lines monitor)
  ctl -d apply "$1" >"$directory/applied" 2>&1 || {
    cat "$directory/applied" >&2
    give_up "$1 was not applied"
  }
  changes=$(($(wc -l <"$directory/applied") - 1))
  all=$((all + changes))
  tail -n 1 "$directory/applied" | sed "s/^/  /"
  until_true 'the follower has heard of everything' has_lines monitor $((before + changes))
  echo
  echo "  The follower received $(($(lines monitor) - before)) lines:"
  tail -n +$((before + 1)) "$directory/monitor.out" | indent
}

# check FILE: whether the database holds what the file says, asked by a process of its own.
equal=0
check() {
  if ctl apply --check "$1" >"$directory/checked" 2>&1; then
    echo "  the database holds what $1 says"
  else
    equal=1
    echo "  the database differs from $1:"
    indent <"$directory/checked"
  fi
}

title 'A third process applies examples/edge-router.json'
apply_and_show examples/edge-router.json

title 'The same file again'
ctl apply examples/edge-router.json | indent
check examples/edge-router.json

title 'What a fourth process reads'
ctl show tunnel | indent

title 'examples/edge-router-change.json: one group changes, the other goes'
apply_and_show examples/edge-router-change.json

title 'Are all copies equal?'
check examples/edge-router-change.json
ctl -j -p show tunnel >"$directory/shown.json" || give_up 'the state could not be shown'
stop "$monitor_pid" || give_up 'the follower failed'
if cmp -s "$directory/shown.json" "$directory/followed.json"; then
  echo "  the follower's copy equals a fresh one, byte for byte: $(wc -c <"$directory/shown.json") bytes of JSON"
else
  equal=1
  echo "  the follower's copy differs from a fresh one:"
  diff "$directory/shown.json" "$directory/followed.json" | indent
fi
stop "$hiveld_pid" || give_up 'the database failed'

echo
if [ "$equal" -ne 0 ]; then
  echo 'demo: NOT EQUAL'
  exit 1
fi
echo "demo: all copies are equal after $all changes; $(($(milliseconds) - began)) ms in all"
