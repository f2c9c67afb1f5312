#!/bin/sh
# Counts the instructions of one change of a record (loop and call included) with 0, 1 and 8
# watchers and holds them against the limits. Needs valgrind.
#
#    bench/instructions.sh <the Notify benchmark>
#
# Ends with status 1 when a limit is exceeded, 77 when valgrind is missing.

set -eu
notify=$1
command -v valgrind > /dev/null || { echo "SKIPPED: no valgrind"; exit 77; }
out=$(mktemp)
trap 'rm -f "$out"' EXIT

# Instructions per change: 1000 changes are made; what surrounds the loop is less than one each.
count() {
   valgrind --tool=callgrind --callgrind-out-file="$out" --toggle-collect='*change<*' \
      "$notify" count "$1" "$2" > /dev/null 2>&1
   awk '/^(summary|totals):/ { print int( $2 / 1000 ); exit }' "$out"
}

failed=0
# row <what> <instructions> <limit> <how the limit is made>
row() {
   verdict=ok
   [ "$2" -le "$3" ] || { verdict=EXCEEDED; failed=1; }
   printf '%-28s %6s %8s  %-30s %s\n' "$1" "$2" "$3" "$4" "$verdict"
}

plain=$(count plain 0)
one=$(count intrusive 1)
eight=$(count intrusive 8)
printf 'peers: compare and store %s, intrusive list of one %s, of eight %s\n' \
   "$plain" "$one" "$eight"
printf '%-28s %6s %8s\n' "one change" "count" "limit"
row "nobody watches" "$(count zek 0)" $((plain + 4)) "compare and store + 4"
row "one notifiee" "$(count zek 1)" $((one * 3 / 2)) "1.5 x intrusive list"
row "eight notifiees" "$(count zek 8)" $((eight * 5 / 2)) "2.5 x intrusive list"
for n in 1 8; do
   own=$(count zek $n)
   printf 'with %s: keyed %s, vector of std::function %s, boost::signals2 %s (%s times)\n' \
      $n "$(count keyed $n)" "$(count functions $n)" "$(count signals $n)" \
      $(($(count signals $n) / own))
done
exit $failed
