#!/bin/sh
# Runs one golden case of the zyldb tool and compares what it did with what
# the case expects.
#
# usage: run_golden.sh ZYLDB CASE_DIR DATA_DIR EXAMPLES_DIR
#
# CASE_DIR holds:
#   args     the arguments, one per line (blanks inside an argument are kept)
#   stdout   the expected standard output
#   stderr   the expected standard error
#   status   the expected exit status
#   stdin    optional: what the tool reads on stdin (else nothing)
#   files/   optional: every file the run must create, with its content
#
# The tool runs in a scratch copy of DATA_DIR plus the example logs, so that
# arguments name inputs by their plain names. After the run every input must
# be unchanged, the files it created or changed must be exactly those under
# files/, and no temporary file may be left behind. The scratch directory's path is
# written as @WORK@ in the compared output.
#
# With ZYLDB_UPDATE_GOLDEN=1 the case's expected files are rewritten from
# this run instead (review the diff before committing it).

set -u

if [ $# -ne 4 ]; then
  echo "usage: $0 ZYLDB CASE_DIR DATA_DIR EXAMPLES_DIR" >&2
  exit 2
fi
zyldb=$1
case_dir=$2
data_dir=$3
examples_dir=$4

scratch=$(mktemp -d) || exit 1
trap 'rm -rf "$scratch"' EXIT
work=$scratch/work
inputs=$scratch/inputs
mkdir "$work" "$inputs" "$scratch/tmp" "$scratch/actual"
cp -R "$data_dir"/. "$inputs"/
cp "$examples_dir"/clips.log "$examples_dir"/clips.csv "$inputs"/
cp -R "$inputs"/. "$work"/

set --
if [ -f "$case_dir/args" ]; then
  while IFS= read -r arg || [ -n "$arg" ]; do
    set -- "$@" "$arg"
  done < "$case_dir/args"
fi

(
  cd "$work" || exit 125
  unset COLUMNS
  TMPDIR=$scratch/tmp
  export TMPDIR
  input=/dev/null
  if [ -f "$case_dir/stdin" ]; then input=$case_dir/stdin; fi
  exec "$zyldb" "$@" < "$input" > "$scratch/stdout.raw" 2> "$scratch/stderr.raw"
)
echo $? > "$scratch/actual/status"
sed "s|$work|@WORK@|g" "$scratch/stdout.raw" > "$scratch/actual/stdout"
sed "s|$work|@WORK@|g" "$scratch/stderr.raw" > "$scratch/actual/stderr"

# The files the run created or changed: an input may change only when the
# case expects it under files/ (as when -o names the input).
failed=0
(cd "$work" && find . -type f | sort) > "$scratch/after"
(cd "$inputs" && find . -type f | sort) > "$scratch/before"
mkdir "$scratch/actual/files"
keep() {
  mkdir -p "$(dirname "$scratch/actual/files/$1")"
  cp "$work/$1" "$scratch/actual/files/$1"
}
while IFS= read -r f; do
  if [ ! -f "$work/$f" ]; then
    echo "input $f was removed"
    failed=1
  elif ! cmp -s "$inputs/$f" "$work/$f"; then
    keep "$f"
  fi
done < "$scratch/before"
comm -13 "$scratch/before" "$scratch/after" > "$scratch/created"
while IFS= read -r f; do keep "$f"; done < "$scratch/created"
if [ -n "$(ls -A "$scratch/tmp")" ]; then
  echo "temporary files left behind: $(ls -A "$scratch/tmp")"
  failed=1
fi

if [ "${ZYLDB_UPDATE_GOLDEN:-0}" = 1 ]; then
  for f in stdout stderr status; do cp "$scratch/actual/$f" "$case_dir/$f"; done
  rm -rf "$case_dir/files"
  if [ -n "$(ls -A "$scratch/actual/files")" ]; then
    cp -R "$scratch/actual/files" "$case_dir/files"
  fi
  echo "updated $case_dir"
  exit $failed
fi

for f in stdout stderr status; do
  if [ ! -f "$case_dir/$f" ]; then
    echo "missing expected file $case_dir/$f"
    failed=1
  elif ! diff -u "$case_dir/$f" "$scratch/actual/$f"; then
    failed=1
  fi
done
if [ -d "$case_dir/files" ]; then
  diff -ru "$case_dir/files" "$scratch/actual/files" || failed=1
elif [ -n "$(ls -A "$scratch/actual/files")" ]; then
  echo "unexpected files created or changed: $(cd "$scratch/actual/files" && find . -type f)"
  failed=1
fi
exit $failed
