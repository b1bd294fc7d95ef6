# The full mesh of $graph, published and read by another process; sourced by the scripts that
# show it. Takes its tunnels away again.

title "The full mesh of $(basename "$graph" .graphml)"
at_end() {
  # When something went wrong half-way, the tables are still there.
  [ -z "${published:-}" ] ||
    "$bin/tunnelgen" "$graph" --socket "$socket" --withdraw >/dev/null 2>&1
}
published=yes
"$bin/tunnelgen" "$graph" --socket "$socket" --changes 10 --timeout 600 \
  >"$directory/mesh" 2>&1 || {
  cat "$directory/mesh" >&2
  give_up 'the mesh was not published'
}
indent <"$directory/mesh"
echo
ctl --timeout 600 table | indent
read_began=$(milliseconds)
ctl --timeout 600 --brief rib >"$directory/rib" || give_up 'the RIB could not be read'
echo
echo "  Another process reads the best tunnel of $(wc -l <"$directory/rib") end points; the first:"
head -n 3 "$directory/rib" | indent
echo "  (in $(($(milliseconds) - read_began)) ms)"
told=$(sed -n 's/^published *\([0-9,]*\) tunnels .*/\1/p' "$directory/mesh" | tr -d ,)
rows=$(ctl --timeout 600 --brief table srTunnelTable | wc -l)
echo "  and $rows rows of the $told tunnels that were published"
[ "$rows" = "$told" ] || give_up 'rows are missing'
ctl --timeout 600 table srTunnelTable --verify >"$directory/verified" 2>&1 || {
  cat "$directory/verified" >&2
  give_up 'the table is damaged'
}
indent <"$directory/verified"
"$bin/tunnelgen" "$graph" --socket "$socket" --withdraw >/dev/null 2>&1 ||
  give_up 'the mesh was not withdrawn'
published=''
