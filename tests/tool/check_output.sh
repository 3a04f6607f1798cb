#!/bin/sh
# Checks of the zyldb tool's output that a golden comparison cannot make:
#  * JSON output parses with a standard JSON parser and holds the log's values;
#  * tables fit the width asked for, counted in terminal columns;
#  * a log survives conversion to the log format and back unchanged, and a
#    comma-separated file written by the tool reads back through the library.
#
# usage: check_output.sh ZYLDB DATA_DIR EXAMPLES_DIR

set -u
zyldb=$1
data_dir=$2
examples_dir=$3
work=$(mktemp -d) || exit 1
trap 'rm -rf "$work"' EXIT
cp "$data_dir"/small.log "$examples_dir"/clips.log "$work"/
cd "$work" || exit 1
failed=0
fail() {
  echo "FAILED: $*"
  failed=1
}

# JSON: the document printed by show and written by convert (one shape).
"$zyldb" show clips.log --format json > rows.json || fail "show --format json"
"$zyldb" show small.log --format json --columns Name,Description > small_rows.json ||
  fail "show small.log --format json"
"$zyldb" convert small.log small.json 2> /dev/null || fail "convert small.log small.json"
"$zyldb" convert clips.log clips.json 2> /dev/null || fail "convert clips.log clips.json"
python3 - << 'EOF' || fail "JSON content"
import json, sys
shown = json.load(open("rows.json"))
assert set(shown) == {"parameters", "columns", "rows"}, shown.keys()
rows = shown["rows"]
assert len(rows) == 36, len(rows)
assert rows[0]["Name"] == "12-1A" and rows[0]["Start time"] == "01:00:00;00", rows[0]
assert rows[4]["Description"] == 'Over Maria\'s shoulder, Tom says "not tonight" early'
small = json.load(open("small_rows.json"))["rows"]
assert small[0]["Description"] == 'Café scene, "wide" — dawn', small[0]
assert small[1]["Description"] == "Pan across the harbour\nlights come on", small[1]
assert small[2]["Description"] == "港の夜景 (night harbour)", small[2]
assert small[3]["Description"] == "Path C:\\temp\\clips, backslash kept", small[3]
doc = json.load(open("clips.json"))
assert doc["parameters"]["owner"] == "assist 2, cutting room B", doc["parameters"]
assert [c["name"] for c in doc["columns"]][:3] == ["Name", "Cookie", "Reel"]
assert doc["columns"][6] == {"name": "Start time", "type": "timecode"}, doc["columns"][6]
assert len(doc["rows"]) == 36 and doc["rows"][35]["Notes"] == "Tail slate"
json.load(open("small.json"))
EOF

# Tables fit: every line within the width, wide characters counting two.
for width in 20 40 60 80 132; do
  for log in clips.log small.log; do
    "$zyldb" show "$log" --width "$width" > "table_$width.txt" 2> /dev/null ||
      fail "show $log --width $width"
    python3 - "$width" "table_$width.txt" << 'EOF' || fail "$log does not fit in $width"
import sys, unicodedata
width = int(sys.argv[1])
for line in open(sys.argv[2], encoding="utf-8"):
    line = line.rstrip("\n")
    w = sum(2 if unicodedata.east_asian_width(c) in "WF" else 1 for c in line)
    if w > width:
        sys.exit("line of width %d: %s" % (w, line))
EOF
  done
done

# Round trips.
"$zyldb" convert clips.log copy.log 2> /dev/null || fail "convert clips.log copy.log"
cmp clips.log copy.log || fail "clips.log changed on its way through the tool"
"$zyldb" show clips.log --format csv --columns "Name,Scene,Take,Start time,Who" > part.csv ||
  fail "show --format csv"
"$zyldb" convert part.csv part.log 2> /dev/null || fail "convert part.csv part.log"
"$zyldb" show part.log --format csv > part_again.csv || fail "show part.log --format csv"
cmp part.csv part_again.csv || fail "CSV changed on its way through the log format"

# Every writer's output reads back to the same log: log -> JSON -> log, and
# the same through pipes ("-" for stdin and stdout).
"$zyldb" convert clips.json back.log 2> /dev/null || fail "convert clips.json back.log"
cmp clips.log back.log || fail "clips.log changed on its way through JSON"
"$zyldb" convert clips.log - --format json | "$zyldb" convert - - > clips_back.log ||
  fail "convert through a pipe"
cmp clips.log clips_back.log || fail "clips.log changed on its way through a JSON pipe"
"$zyldb" convert clips.log - < /dev/null | "$zyldb" show - --format log > piped.log ||
  fail "show -"
cmp clips.log piped.log || fail "clips.log changed on its way through stdin"

# An interrupted write leaves no temporary file: a FIFO that nobody reads
# keeps the tool writing until it is stopped.
mkfifo slow.fifo
"$zyldb" convert clips.log slow.fifo 2> /dev/null &
pid=$!
sleep 1
kill -TERM "$pid" 2> /dev/null
wait "$pid" 2> /dev/null
"$zyldb" convert clips.log out_$$.log 2> /dev/null &
pid=$!
kill -INT "$pid" 2> /dev/null
wait "$pid" 2> /dev/null
if ls ./*.zyltmp.* > /dev/null 2>&1; then fail "temporary file left: $(ls ./*.zyltmp.*)"; fi

# A write through a symbolic link replaces its target and keeps the link; a
# write to a FIFO goes into the FIFO.
"$zyldb" convert small.log target.log 2> /dev/null
ln -s target.log link.log
"$zyldb" sort clips.log --by Name:desc -o link.log 2> /dev/null || fail "sort -o link.log"
[ -L link.log ] || fail "link.log is no longer a link"
cmp -s target.log clips.log && fail "sorting clips.log changed nothing"
"$zyldb" show target.log --format log --limit 1 > /dev/null || fail "target.log unreadable"
mkfifo out.fifo
cat out.fifo > from_fifo.log &
reader=$!
"$zyldb" convert clips.log out.fifo --format log 2> /dev/null || fail "convert to a FIFO"
wait "$reader"
cmp clips.log from_fifo.log || fail "the FIFO did not receive the log"
[ -p out.fifo ] || fail "out.fifo was replaced"

exit $failed
