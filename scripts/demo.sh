#!/usr/bin/env bash
# Builds zyldb and runs the command-line tool's demo on the bundled example
# log: open, make a view, sort it by scene, tag a query, delete the tagged rows
# through the view, save the view, printing each step.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)" --target zyldb_cli >/dev/null
exec build/default/tools/zyldb demo "$@"
