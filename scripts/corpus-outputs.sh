#!/usr/bin/env bash
# Every output of the program over a folder of captures, laid out so that two
# builds can be compared byte for byte: run it for the build before a change
# and for the one after, then `diff -r BEFORE AFTER` must print nothing.
#
#   scripts/corpus-outputs.sh BUILD_DIR OUT_DIR [CAPTURE_DIR]
#
# CAPTURE_DIR defaults to the shared corpus beside the repository. Each capture
# is run four ways: --copies (with stdout and stderr), --threads 2 (lines
# sorted, record numbers dropped: they follow posting order), the terminal
# summary (without its timing line), and --lang zh with a condition and
# --codepage 950. Absolute paths of OUT_DIR in the outputs become OUT.
# emails.sqlite is compared as a dump without the run table (it holds the run's
# own clock) and report.html without its "Read" timing row.
set -u
build=$(realpath "$1"); out=$2
prog=$build/capture/pelka-email
corpus=${3:-$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/../shared/corpus/pcap}
rm -rf "$out"; mkdir -p "$out"; cd "$out"
export TZ=UTC
for f in "$corpus"/*; do
  n=$(basename "$f")
  "$prog" -q --copies -o "$n" "$f" >"$n.stdout" 2>"$n.stderr"; echo "rc=$?" >>"$n.stdout"
  "$prog" -q --threads 2 --exact-threads -o "$n.t2" "$f" >/dev/null 2>&1
  # record numbers follow posting order, which differs between threaded runs
  rm -f "$n.t2"/emails.sqlite* "$n.t2"/report.html
  for x in "$n.t2"/*; do [ -f "$x" ] && sed -E 's/"email_number": [0-9]+, //; s/^[0-9]+,//' "$x" | sort -o "$x"; done
  "$prog" -o "$n.summary" "$f" 2>&1 | grep -v '^Read:' >"$n.summary.txt"
  "$prog" -q --lang zh --where "attachment=no" --codepage 950 -o "$n.cond" "$f" >/dev/null 2>&1
  rm -rf "$n.summary"
done
# the run's own clock is not part of what a change may alter
for db in */emails.sqlite; do
  [ -f "$db" ] || continue
  sqlite3 "$db" .dump | grep -v '^INSERT INTO run ' >"$db.sql"; rm -f "$db"
done
for r in */report.html; do
  [ -f "$r" ] && sed -i -E 's#<tr><th>(Read|读取)</th><td>[^<]*</td></tr>##' "$r"
done
# outputs name the absolute output folder: make them comparable
here=$(pwd)
grep -rlF "$here" . | while read -r f; do sed -i "s#$here#OUT#g" "$f"; done
