#!/usr/bin/env bash
# Runs every operation of zyldb_profile_bench as its own process on the
# profile logs (see bench/profile_bench.cpp), zyldb beside SQLite and the
# floor, and prints one markdown table of medians with the ratios.
#
#   scripts/bench_profiles.sh [--rows N] [--reps R] [--profiles "long wide ..."] [--scaling "1e4 ..."]
#
# Logs are generated once into $ZYLDB_BENCH_DIR/profiles (default
# /tmp/zyldb-bench/profiles). Every operation other than load runs on a table
# sorted on "Scene" first. With --scaling, the mixedtc profile is also run at
# each of the given row counts.
set -euo pipefail
cd "$(dirname "$0")/.."
rows=200000
reps=3
profiles="long sparse wide narrow nonascii mixedtc"
scaling=""
while [ $# -gt 0 ]; do
  case "$1" in
    --rows) rows="$2"; shift 2 ;;
    --reps) reps="$2"; shift 2 ;;
    --profiles) profiles="$2"; shift 2 ;;
    --scaling) scaling="$2"; shift 2 ;;
    *) echo "unknown option $1" >&2; exit 2 ;;
  esac
done
bin=build/default/bench/zyldb_profile_bench
if [ ! -x "$bin" ]; then
  cmake --preset default >/dev/null
  cmake --build --preset default --target zyldb_profile_bench >&2
fi
dir="${ZYLDB_BENCH_DIR:-/tmp/zyldb-bench}/profiles"
mkdir -p "$dir"

# median of the seconds column of `reps` runs: ENGINE OP FILE
median() {
  for _ in $(seq "$reps"); do "$bin" run "$@"; done |
    sort -k3 -g | awk -v n="$reps" 'NR == int((n + 1) / 2) { print $3, $4, $5 }'
}

row() {  # PROFILE ROWS
  local p="$1" n="$2" f="$dir/$1-$2.log"
  [ -f "$f" ] || "$bin" gen "$p" "$n" "$f"
  for op in load sortscene sorttc search destroy; do
    read -r zs zm zr < <(median zyldb "$op" "$f")
    read -r ss sm sr < <(median sqlite "$op" "$f")
    fl=""
    if [ "$op" = load ]; then read -r fl _ _ < <(median floor load "$f"); fi
    awk -v p="$p" -v n="$n" -v op="$op" -v zs="$zs" -v ss="$ss" -v fl="$fl" -v zm="$zm" -v sm="$sm" \
      -v zr="$zr" -v sr="$sr" 'BEGIN {
        ratio = zs > 0 ? ss / zs : 0
        floor = fl == "" ? "" : sprintf("%.3f s (zyldb %.2fx floor)", fl, zs / fl)
        mem = op == "load" ? sprintf("%.0f / %.0f MB", zm, sm) : ""
        res = (op == "search" || op == "sorttc") ? sprintf("%s / %s", zr, sr) : ""
        printf "| %s | %d | %s | %.4f s | %.4f s | %.2fx | %s | %s | %s |\n", p, n, op, zs, ss, ratio, floor, mem, res
      }'
  done
}

echo "| profile | rows | operation | zyldb | SQLite | SQLite / zyldb | floor | resident zyldb / SQLite | results zyldb / SQLite |"
echo "|---|---:|---|---:|---:|---:|---|---|---|"
for p in $profiles; do row "$p" "$rows"; done
for n in $scaling; do row mixedtc "$(printf '%.0f' "$n")"; done
