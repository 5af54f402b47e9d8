#!/bin/bash
# Times the inversion of examples/grid_9x14.dat alone, two of them started
# together (separate buffer folders), and one beside two CPU-bound loops,
# and prints the ratios to the run alone (median of N rounds, default 3).
# Goal: both ratios at most 2.5 on a machine of two cores.
#
#   bench/concurrent_runs.sh [BUILD_DIR] [ROUNDS]
set -u
build=${1:-build}
rounds=${2:-3}
exe=$(readlink -f "$build/ohmvol3d")
[ -x "$exe" ] || { echo "no $exe: build first" >&2; exit 2; }
data=$(readlink -f "$(dirname "$0")/../examples/grid_9x14.dat")
work=$(mktemp -d)
trap 'rm -rf "$work"; pkill -P $$ 2>/dev/null' EXIT
mkdir -p "$work/a" "$work/b"
cp "$data" "$work/a/run.dat" && cp "$data" "$work/b/run.dat" || exit 1

run() { # folder: one inversion, its status checked
  "$exe" invert "$work/$1/run.dat" -o "$work/$1/run.inv" --buffer "$work/$1" --quiet \
    >"$work/$1/log.txt" 2>&1 || { echo "inversion in $1 failed" >&2; exit 1; }
}
now() { date +%s.%N; }
median() { sort -g | awk '{v[NR]=$1} END {print v[int((NR+1)/2)]}'; }

alone=() together=() beside=()
for ((r = 1; r <= rounds; r++)); do
  t0=$(now); run a; t1=$(now)
  alone+=("$(echo "$t1 - $t0" | bc)")
  t0=$(now); run a & pa=$!; run b; wait $pa || exit 1; t1=$(now)
  together+=("$(echo "$t1 - $t0" | bc)")
  sh -c 'while :; do :; done' & s1=$!
  sh -c 'while :; do :; done' & s2=$!
  t0=$(now); run a; t1=$(now)
  kill $s1 $s2; wait $s1 $s2 2>/dev/null
  beside+=("$(echo "$t1 - $t0" | bc)")
  echo "round $r: alone ${alone[-1]} s, two together ${together[-1]} s, beside two loops ${beside[-1]} s"
done
a=$(printf '%s\n' "${alone[@]}" | median)
t=$(printf '%s\n' "${together[@]}" | median)
b=$(printf '%s\n' "${beside[@]}" | median)
printf 'median: alone %.2f s; two together %.2f s (ratio %.2f); beside two loops %.2f s (ratio %.2f); goal 2.5\n' \
  "$a" "$t" "$(echo "$t / $a" | bc -l)" "$b" "$(echo "$b / $a" | bc -l)"
