#!/usr/bin/env bash
# Times the zyldb tool's commands on generated logs of 1e5 and 1e6 rows and
# prints, per command, wall time and peak memory beside the library's own
# load of the same log (zyldb_load). Not run in CI.
#
#   bench/tool_bench.sh [ROWS...]        (default: 100000 1000000)
#
# Builds zyldb, zyldb_genlog and zyldb_load with the default preset. Logs go
# to $ZYLDB_BENCH_DIR (default /tmp/zyldb-bench), outputs to a scratch
# directory removed at the end. Each figure is the best of $REPS runs
# (default 3), measured with /usr/bin/time.
set -euo pipefail
cd "$(dirname "$0")/.."
reps=${REPS:-3}
sizes=("$@")
[ ${#sizes[@]} -eq 0 ] && sizes=(100000 1000000)

cmake --preset default > /dev/null
cmake --build --preset default -j2 --target zyldb_cli zyldb_genlog zyldb_load > /dev/null
bin=build/default
zyldb=$bin/tools/zyldb
dir=${ZYLDB_BENCH_DIR:-/tmp/zyldb-bench}
mkdir -p "$dir"
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

# best "seconds kilobytes" of $reps runs of the command
measure() {
  local best_t="" best_m=""
  for _ in $(seq "$reps"); do
    /usr/bin/time -f "%e %M" -o "$out/time" "$@" > /dev/null 2> /dev/null || true
    read -r t m < <(tail -n 1 "$out/time")
    if [ -z "$best_t" ] || awk "BEGIN{exit !($t < $best_t)}"; then best_t=$t; fi
    if [ -z "$best_m" ] || [ "$m" -lt "$best_m" ]; then best_m=$m; fi
  done
  echo "$best_t $best_m"
}

printf '%-10s %-44s %8s %8s %8s %8s\n' rows command "time s" "x load" "peak MB" "x load"
for rows in "${sizes[@]}"; do
  log=$dir/tool_$rows.log
  [ -f "$log" ] || $bin/bench/zyldb_genlog "$rows" "$log"
  head -c 100 "$log" > /dev/null
  read -r lt lm < <(measure $bin/bench/zyldb_load "$log")
  printf '%-10s %-44s %8.2f %8s %8.0f %8s\n' "$rows" "library load" "$lt" "1.00" "$((lm / 1024))" "1.00"
  cmds=(
    "check $log"
    "info $log"
    "show $log --limit 5"
    "show $log --width 0"
    "show $log --where Scene=12 --width 0"
    "sort $log --by Scene:desc,Take -o $out/s.log"
    "find $log --where Take==1 --tag -o $out/f.log"
    "dedupe $log --by Scene -o $out/d.log"
    "merge $log $log -o $out/m.log"
    "convert $log $out/c.csv"
    "convert $log $out/c.json"
    "convert $log $out/c.tsv"
  )
  for c in "${cmds[@]}"; do
    # shellcheck disable=SC2086
    read -r t m < <(measure "$zyldb" $c -q)
    shown=${c//$log/LOG}
    shown=${shown//$out\//}
    printf '%-10s %-44s %8.2f %8.2f %8.0f %8.2f\n' "$rows" "$shown" "$t" \
      "$(awk "BEGIN{print $t / $lt}")" "$((m / 1024))" "$(awk "BEGIN{print $m / $lm}")"
  done
done
