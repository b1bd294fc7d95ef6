#!/bin/sh
# demo.sh BUILD_DIR: three processes share the state of an edge router. One is the state
# database, one follows every change, one applies configurations; at the end all copies are
# compared. Ends with status 0 only when they are equal. Leaves nothing behind.
set -u

case "${1:-}" in
  '' | -h | --help)
    echo 'usage: demo.sh BUILD_DIR' >&2
    exit 2
    ;;
esac
cd "$(dirname "$0")/.." || exit 1
build=$1
bin=$build/bin
lib=$build/lib
for command in hiveld tunnelctl; do
  if [ ! -x "$bin/$command" ]; then
    echo "demo.sh: $bin/$command is missing; build the target 'commands' first" >&2
    exit 2
  fi
done

directory=$(mktemp -d) || exit 1
database=''
follower=''
began=$(date +%s%N)

# stop PID: asks a process of ours to end and waits for it; its status.
stop() {
  kill -TERM "$1" 2>/dev/null
  wait "$1"
}
finish() {
  status=$?
  trap - EXIT INT TERM
  [ -z "$follower" ] || stop "$follower"
  [ -z "$database" ] || stop "$database"
  rm -rf "$directory"
  exit "$status"
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

title() {
  printf '\n== %s\n\n' "$1"
}
indent() {
  sed 's/^./  &/'
}
give_up() {
  echo "demo.sh: $1" >&2
  for log in hiveld monitor; do
    [ ! -s "$directory/$log.log" ] || sed "s/^/  $log: /" "$directory/$log.log" >&2
  done
  exit 1
}
# until_true WHAT COMMAND...: waits at most ten seconds, and only for processes that live.
until_true() {
  what=$1
  shift
  tries=0
  until "$@" >/dev/null 2>&1; do
    for process in $database $follower; do
      kill -0 "$process" 2>/dev/null || give_up "process $process ended before $what"
    done
    tries=$((tries + 1))
    [ "$tries" -lt 200 ] || give_up "waited 10 s in vain until $what"
    sleep 0.05
  done
}
lines() {
  wc -l <"$directory/events"
}
# The follower hears of a change when the database passes it on: it is there when the number
# of its lines has reached what the writer counted.
has_lines() {
  [ "$(lines)" -ge "$1" ]
}

socket=$directory/hivel.sock
ctl() {
  "$bin/tunnelctl" -s "$socket" "$@"
}

title 'The state database starts'
"$bin/hiveld" --socket "$socket" --types "$lib/libTunnelHivelTypes.so.0" \
  >"$directory/hiveld.log" 2>&1 &
database=$!
until_true 'the database listens' ctl status
modules=$(sed -n 's/.* \([0-9]*\) modules known.*/\1/p' "$directory/hiveld.log" | tail -n 1)
echo "  hiveld, process $database, with ${modules:-some} modules of types"

title 'A second process follows everything below "tunnel"'
"$bin/tunnelctl" -s "$socket" -p monitor tunnel --state "$directory/followed.json" \
  >"$directory/events" 2>"$directory/monitor.log" &
follower=$!
until_true 'the follower has its snapshot' grep -q 'changes from here on' "$directory/events"
echo "  tunnelctl monitor, process $follower: an empty database, waiting for changes"

all=0
# apply_and_show FILE: applies it in a third process and shows what the second one received.
apply_and_show() {
  before=$(lines)
  ctl -d apply "$1" >"$directory/applied" 2>&1 || {
    cat "$directory/applied" >&2
    give_up "$1 was not applied"
  }
  changes=$(($(wc -l <"$directory/applied") - 1))
  all=$((all + changes))
  tail -n 1 "$directory/applied" | sed "s/^/  /"
  until_true 'the follower has heard of everything' has_lines $((before + changes))
  echo
  echo "  The follower received $(($(lines) - before)) lines:"
  tail -n +$((before + 1)) "$directory/events" | indent
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
stop "$follower" || give_up 'the follower failed'
follower=''
if cmp -s "$directory/shown.json" "$directory/followed.json"; then
  echo "  the follower's copy equals a fresh one, byte for byte: $(wc -c <"$directory/shown.json") bytes of JSON"
else
  equal=1
  echo "  the follower's copy differs from a fresh one:"
  diff "$directory/shown.json" "$directory/followed.json" | indent
fi
stop "$database" || give_up 'the database failed'
database=''

ended=$(date +%s%N)
echo
if [ "$equal" -ne 0 ]; then
  echo 'demo: NOT EQUAL'
  exit 1
fi
echo "demo: all copies are equal after $all changes; $(((ended - began) / 1000000)) ms in all"
