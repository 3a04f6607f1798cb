#!/usr/bin/env bash
# Builds the table benchmarks with the default preset, runs them with
# repetitions and prints one table of medians: zyldb beside its SQLite peer,
# their ratio and the floor (reading and splitting the file; writing it).
#
#   scripts/bench.sh [--reps N] [--cpu] [--bin PATH | --from JSON] [benchmark options...]
#
# --reps N     repetitions of every case (default 3); the table shows medians
# --cpu        tabulate CPU time instead of wall-clock time (steadier on a
#              busy machine, but blind to waiting for the disk when saving)
# --bin PATH   run this zyldb_table_bench instead of building one
# --from JSON  print the table of an earlier run's results; run nothing
# Other options go to the benchmark program, e.g. --benchmark_filter='/100000'.
# Generated logs are cached in $ZYLDB_BENCH_DIR (default /tmp/zyldb-bench);
# the raw results go to table_bench.json beside the program.
set -euo pipefail
cd "$(dirname "$0")/.."

reps=3
bin=""
clock=real_time
from=""
while [ $# -gt 0 ]; do
  case "$1" in
    --reps) reps="$2"; shift 2 ;;
    --bin) bin="$2"; shift 2 ;;
    --cpu) clock=cpu_time; shift ;;
    --from) from="$2"; shift 2 ;;
    *) break ;;
  esac
done

if [ -n "$from" ]; then
  json="$from"
else
  if [ -z "$bin" ]; then
    scripts/setup.sh
    cmake --preset default >/dev/null
    cmake --build --preset default --target zyldb_table_bench >&2
    bin=build/default/bench/zyldb_table_bench
  fi
  json="$(dirname "$bin")/table_bench.json"
  # Progress goes to stderr; the table alone to stdout.
  "$bin" --benchmark_repetitions="$reps" --benchmark_report_aggregates_only=true \
    --benchmark_out="$json" --benchmark_out_format=json "$@" >&2
fi

python3 - "$json" "$clock" <<'PY'
import json, re, sys

data = json.load(open(sys.argv[1]))
scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}
median = {}  # (engine, op, rows) -> seconds, or a counter value
for b in data["benchmarks"]:
    # With repetitions only the aggregates are reported; with one run, the run.
    if b.get("error_occurred") or (b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median"):
        continue
    m = re.match(r"BM_(\w+?)_(\w+)/(\d+)", b["run_name"])
    if not m:
        continue
    engine, op, rows = m.group(1), m.group(2), int(m.group(3))
    if op == "Resident":
        median[(engine, "Resident", rows)] = b.get("rss_MB")
        median[(engine, "Peak", rows)] = b.get("peak_MB")
    else:
        median[(engine, op, rows)] = b[sys.argv[2]] * scale[b["time_unit"]]

def fmt_time(s):
    if s is None:
        return "-"
    for unit, f in (("s", 1.0), ("ms", 1e-3), ("us", 1e-6), ("ns", 1e-9)):
        if s >= f:
            return "%.3g %s" % (s / f, unit)
    return "%.3g ns" % (s / 1e-9)

def fmt_mb(v):
    return "-" if v is None else "%.1f MB" % v

ops = [("load", "Load", fmt_time), ("save", "Save", fmt_time),
       ("sort Scene", "SortScene", fmt_time), ("sort Start time", "SortStartTime", fmt_time),
       ("search Description", "Search", fmt_time), ("findFirst", "FindFirst", fmt_time),
       ("lookup by id (each)", "LookupById", fmt_time),
       ("resident after load", "Resident", fmt_mb), ("peak during load", "Peak", fmt_mb)]
sizes = sorted({k[2] for k in median})
header = ("operation", "rows", "zyldb", "SQLite", "ratio", "floor")
lines = []
for label, op, fmt in ops:
    for n in sizes:
        z = median.get(("Zyldb", op, n))
        q = median.get(("Sqlite", op, n))
        if z is None and q is None:
            continue
        f = median.get(("Floor", op, n))
        ratio = "%.2fx" % (q / z) if z and q else "-"
        lines.append((label, str(n), fmt(z), fmt(q), ratio, fmt(f) if f is not None else "-"))
widths = [max(len(r[i]) for r in [header] + lines) for i in range(len(header))]
def row(r):
    return "  ".join(c.ljust(widths[i]) if i == 0 else c.rjust(widths[i]) for i, c in enumerate(r))
print(row(header))
print("  ".join("-" * w for w in widths))
for r in lines:
    print(row(r))
print("\n%s; ratio: SQLite median / zyldb median (above 1: zyldb is faster or smaller)."
      % ("CPU time" if sys.argv[2] == "cpu_time" else "wall-clock time"))
PY
