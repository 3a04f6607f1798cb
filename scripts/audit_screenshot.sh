#!/bin/sh
# Takes a screenshot of the audit page of an example log in headless
# Chromium, to check the page in a real browser and to show it in the README.
# Installs Debian's chromium when it is missing. Not part of CI.
#
# usage: scripts/audit_screenshot.sh [LOG] [OUT.png]
#   LOG      default examples/audit_demo.log
#   OUT.png  default docs/audit_report.png
# The tool is taken from build/default (build it first) or $ZYLDB.

set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
log=${1:-$root/examples/audit_demo.log}
out=${2:-$root/docs/audit_report.png}
zyldb=${ZYLDB:-$root/build/default/tools/zyldb}

if [ ! -x "$zyldb" ]; then
  echo "no zyldb tool at $zyldb; build it (cmake --build --preset default --target zyldb_cli)" >&2
  exit 1
fi
if ! command -v chromium >/dev/null 2>&1; then
  echo "installing chromium" >&2
  apt-get install -y chromium >/dev/null
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The page is written next to a copy of the log, so that it names the log
# by its plain file name.
cp "$log" "$work/"
name=$(basename "$log")
(cd "$work" && "$zyldb" audit "$name" --html report.html >/dev/null) || true
[ -s "$work/report.html" ] || { echo "the tool wrote no page" >&2; exit 1; }

chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run \
  --disable-background-networking --disable-component-update --disable-sync \
  --hide-scrollbars --user-data-dir="$work/profile" --screenshot="$out" \
  --window-size=1400,1000 "file://$work/report.html" 2>"$work/chromium.log" || {
  cat "$work/chromium.log" >&2
  exit 1
}
echo "wrote $out"
