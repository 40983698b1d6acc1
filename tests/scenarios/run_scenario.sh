#!/bin/sh
# Runs one scenario script through vigilsim and compares what it prints with
# the script's expected output, failing with a unified diff.
#
# Usage: run_scenario.sh [--update] VIGILSIM SOURCE_DIR SCRIPT
#   SCRIPT is tests/scenarios/NAME.vsim, relative to SOURCE_DIR; vigilsim
#   runs in SOURCE_DIR, so the scripts name captures as examples/captures/...
#   and error texts name the script the same way on every machine.
#   --update writes the (normalised) output to NAME.expected instead of
#   comparing; regenerate.sh does that for all scripts.
#
# The run fails when vigilsim crashes or exits with 2, when it writes
# anything to standard error (the simulated host reports lock-rank
# violations, panics and double releases there, the sanitizers their
# findings), or when the output differs from NAME.expected.
#
# Normalisation.  The output is compared as vigilsim prints it, except for
# these values, which differ between builds and runs without any change of
# behaviour; each rule touches only the value named:
#   1. "module" of load: the path of vigil.so in the build tree -> "vigil.so".
#   2. Log records: "lineNo" and the ":LINE:" behind the function name in
#      "raw" -> 0.  They are source line numbers and move with every edit of
#      the module; the function name and the text stay compared.
#   3. Hexadecimal numbers of 9 to 16 digits -> 0xPTR: pointers that log
#      texts print with %p (filter records, frame bytes).  Port ids, flag
#      words and statuses have at most 8 digits and stay as they are.
#   4. The level 1 records of the two worlds' own loops, whose texts are
#      exactly "Task queue empty", "CPWorld is Started" and "Aging World is
#      Started", are dropped from "logs".  The worlds are threads of their own; how often the
#      control-plane world finds its queue empty, and where those lines fall
#      among the data path's lines, depends on the scheduling of the run.
#      Every other line of the worlds, and the portset messages they deliver
#      (which keep their order), stay compared.
#   5. "peak" of heap: the high-water mark of the module heap depends on
#      when the control-plane world frees the tasks it has delivered;
#      "inUse", "allocations" and "totalAllocs" are read with the worlds idle
#      and stay compared.
set -u

update=0
if [ "${1:-}" = "--update" ]; then
   update=1
   shift
fi
if [ $# -ne 3 ]; then
   echo "usage: run_scenario.sh [--update] VIGILSIM SOURCE_DIR SCRIPT" >&2
   exit 2
fi
vigilsim=$1
srcdir=$2
script=$3
expected="${script%.vsim}.expected"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cd "$srcdir" || exit 1
"$vigilsim" "$script" >"$work/raw" 2>"$work/stderr"
rc=$?

# One record of a log line: {"level":..,"log":..,"func":F,"lineNo":0,"text":T,"raw":R}
str='"([^"\\]|\\.)*"'
world_chatter="\\{\"level\":1,\"log\":\"vigil\",\"func\":$str,\"lineNo\":0,\"text\":\"(Task queue empty|CPWorld is Started|Aging World is Started)\",\"raw\":$str\\}"

sed -E \
   -e 's/^(\{"cmd":"load",.*"module":)"([^"\\]|\\.)*"/\1"vigil.so"/' \
   -e 's/"lineNo":[0-9]+/"lineNo":0/g' \
   -e 's/("raw":"(vigil(\.throttle)?: )?[A-Za-z_][A-Za-z_0-9]*):[0-9]+:/\1:0:/g' \
   -e 's/0x[0-9a-fA-F]{9,16}/0xPTR/g' \
   -e "s/,$world_chatter//g" \
   -e "s/$world_chatter,?//g" \
   -e 's/("cmd":"heap",.*),"peak":[0-9]+/\1/' \
   "$work/raw" >"$work/actual"

status=0
if [ "$rc" -gt 1 ]; then
   echo "FAILED: vigilsim exited with status $rc on $script" >&2
   status=1
fi
if [ -s "$work/stderr" ]; then
   echo "FAILED: vigilsim wrote to standard error on $script:" >&2
   sed 's/^/   | /' "$work/stderr" >&2
   status=1
fi

if [ "$update" -eq 1 ]; then
   cp "$work/actual" "$expected"
   echo "wrote $expected ($(wc -l <"$expected") lines, vigilsim status $rc)"
   exit $status
fi

if [ ! -f "$expected" ]; then
   echo "FAILED: no $expected; run tests/scenarios/regenerate.sh to write it" >&2
   exit 1
fi
if ! diff -u --label "$expected" --label "actual output of $script" \
        "$expected" "$work/actual" >"$work/diff"; then
   echo "FAILED: the output of $script differs from $expected:" >&2
   cat "$work/diff" >&2
   # The lines are long JSON objects: the same difference once more, with
   # each line split at its commas and every piece led by its line number.
   fields() { awk '{ n = split($0, f, ","); for (i = 1; i <= n; i++) print NR ": " f[i] }' "$1"; }
   fields "$expected" >"$work/expected.fields"
   fields "$work/actual" >"$work/actual.fields"
   echo "The changed values (LINE: piece of the line):" >&2
   diff -U1 --label "$expected" --label "actual output" \
        "$work/expected.fields" "$work/actual.fields" | grep -v '^@@' >&2
   status=1
fi
exit $status
