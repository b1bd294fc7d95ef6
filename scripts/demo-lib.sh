# What the demonstrations share; sourced by them. It expects BUILD_DIR as the script's first
# argument, makes a directory that goes with the script, and stops every process that was
# started with `background`.
case "${1:-}" in
  '' | -h | --help)
    echo "usage: $(basename "$0") BUILD_DIR" >&2
    exit 2
    ;;
esac
cd "$(dirname "$0")/.." || exit 1
build=$1
bin=$build/bin
lib=$build/lib
demo=$(basename "$0")

directory=$(mktemp -d) || exit 1
socket=$directory/hivel.sock
processes=''  # in the order of their start; ended in the reverse order

# needs COMMAND...: the commands of the build that the script uses.
needs() {
  for command in "$@"; do
    if [ ! -x "$bin/$command" ]; then
      echo "$demo: $bin/$command is missing; build the target 'commands' first" >&2
      rm -rf "$directory"
      exit 2
    fi
  done
}

# background NAME COMMAND...: output goes to NAME.out and NAME.log, the process to $NAME_pid.
background() {
  name=$1
  shift
  "$@" >"$directory/$name.out" 2>"$directory/$name.log" &
  eval "${name}_pid=$!"
  processes="$! $processes"
}
# stop PID: asks a process of ours to end and waits for it; its status.
stop() {
  left=''
  for process in $processes; do
    [ "$process" = "$1" ] || left="$left $process"
  done
  processes=$left
  kill -TERM "$1" 2>/dev/null
  wait "$1"
}
at_end() { :; }  # what else a script has to clear away
finish() {
  status=$?
  trap - EXIT INT TERM
  for process in $processes; do
    kill -TERM "$process" 2>/dev/null
    wait "$process" 2>/dev/null
  done
  at_end
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
  echo "$demo: $1" >&2
  for log in "$directory"/*.log; do
    [ ! -s "$log" ] || sed "s/^/  $(basename "$log" .log): /" "$log" >&2
  done
  exit 1
}
# until_true WHAT COMMAND...: waits at most ten seconds, and only for processes that live.
until_true() {
  what=$1
  shift
  tries=0
  until "$@" >/dev/null 2>&1; do
    for process in $processes; do
      kill -0 "$process" 2>/dev/null || give_up "process $process ended before $what"
    done
    tries=$((tries + 1))
    [ "$tries" -lt 200 ] || give_up "waited 10 s in vain until $what"
    sleep 0.05
  done
}
# lines NAME: of the output of a background process.
lines() {
  wc -l <"$directory/$1.out"
}
# has_lines NAME COUNT
has_lines() {
  [ "$(lines "$1")" -ge "$2" ]
}

ctl() {
  "$bin/tunnelctl" -s "$socket" "$@"
}
start_database() {
  title 'The state database starts'
  background hiveld "$bin/hiveld" --socket "$socket" --types "$lib/libTunnelHivelTypes.so.0"
  until_true 'the database listens' ctl status
  modules=$(sed -n 's/.* \([0-9]*\) modules known.*/\1/p' \
    "$directory/hiveld.out" "$directory/hiveld.log" | tail -n 1)
  echo "  hiveld, process $hiveld_pid, with ${modules:-some} modules of types"
}
milliseconds() {
  echo $(($(date +%s%N) / 1000000))
}
