#!/usr/bin/python3
"""Times the zyldb Python package on a large generated log.

    /usr/bin/python3 bench/python_bench.py [--rows N] [--repeat R] [--genlog PATH]

Needs the package importable (PYTHONPATH=build/default/python after
`cmake --build --preset default --target zyldb_python zyldb_genlog`) and
pandas. Generates an N-row log (default 1 000 000) with zyldb_genlog, writes
the same rows as CSV with zyldb.write_csv, then reports the best of R runs
(default 3) of:

  C++ load            the table constructor alone, timed inside the extension
  zyldb.open          the Python call: checks, load, diagnosis, Log object
  open + to_pandas    zyldb.open, then a DataFrame of str columns
  pandas.read_csv     of the CSV, dtype=str and no NaN conversion (strings
                      stay strings, as in to_pandas), and with defaults
  iterate values      every cell of every record through Record.values()
  iterate to_rows     every cell of log.to_rows()

and prints a Markdown table. Timings are wall-clock; run it on a quiet
machine.
"""

import argparse
import gc
import os
import pathlib
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]


def best(fn, repeat):
    times = []
    result = None
    for _ in range(repeat):
        gc.collect()
        start = time.perf_counter()
        result = fn()
        times.append(time.perf_counter() - start)
        del result
        result = None
    return min(times)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--rows", type=int, default=1_000_000)
    parser.add_argument("--repeat", type=int, default=3)
    parser.add_argument("--genlog", default=str(ROOT / "build" / "default" / "bench" / "zyldb_genlog"))
    parser.add_argument("--dir", default=None, help="where the generated files go (default: a temporary directory)")
    args = parser.parse_args()

    import pandas as pd
    import zyldb
    from zyldb import _zyldb

    with tempfile.TemporaryDirectory() as tmp:
        work = pathlib.Path(args.dir or tmp)
        log_path = work / f"bench_{args.rows}.log"
        csv_path = work / f"bench_{args.rows}.csv"
        if not log_path.exists():
            subprocess.check_call([args.genlog, str(args.rows), str(log_path)])
        log = zyldb.open(log_path)
        zyldb.write_csv(log, csv_path)
        columns = len(log.columns)
        del log

        r = args.repeat
        cpp = min(_zyldb._time_cpp_load(str(log_path)) for _ in range(r))
        opened = best(lambda: zyldb.open(log_path), r)
        to_pandas = best(lambda: zyldb.open(log_path).to_pandas(), r)
        read_str = best(lambda: pd.read_csv(csv_path, dtype=str, keep_default_na=False), r)
        read_default = best(lambda: pd.read_csv(csv_path), r)

        log = zyldb.open(log_path)

        def iterate_values():
            n = 0
            for rec in log:
                for _ in rec.values():
                    n += 1
            return n

        def iterate_rows():
            n = 0
            for row in log.to_rows():
                for _ in row:
                    n += 1
            return n

        values = best(iterate_values, r)
        rows = best(iterate_rows, r)
        cells = args.rows * columns

        size = log_path.stat().st_size
    print(f"{args.rows:,} rows x {columns} columns ({cells:,} cells), "
          f"log {size / 1e6:.0f} MB, best of {r}, "
          f"Python {sys.version.split()[0]}, pandas {pd.__version__}")
    print()
    print("| measurement | time | compared with |")
    print("|---|---:|---|")
    print(f"| C++ load (table constructor) | {cpp:.3f} s | |")
    print(f"| zyldb.open | {opened:.3f} s | {opened / cpp:.2f}x the C++ load |")
    print(f"| zyldb.open + to_pandas() | {to_pandas:.3f} s | {read_str / to_pandas:.2f}x faster than read_csv (str) |")
    print(f"| pandas.read_csv, dtype=str, keep_default_na=False | {read_str:.3f} s | |")
    print(f"| pandas.read_csv, defaults | {read_default:.3f} s | {read_default / to_pandas:.2f}x open + to_pandas |")
    print(f"| iterate every value (Record.values()) | {values:.3f} s | {cells / values / 1e6:.1f} M values/s |")
    print(f"| iterate every value (to_rows()) | {rows:.3f} s | {cells / rows / 1e6:.1f} M values/s |")


if __name__ == "__main__":
    main()
