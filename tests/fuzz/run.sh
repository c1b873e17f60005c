#!/bin/bash
# Runs one fuzz target in its own root directory and network, and prints its figures.
#
#   run.sh --sandbox PROGRAM --program PROGRAM --build FOLDER [--floor N] [--seconds N] TARGET
#
# Every input of corpus/ and regressions/ is run first, then new ones for a minute, TARN_LONG=n for n
# minutes, or the seconds given. Findings are kept in FOLDER/findings/TARGET/. Fails on a finding, and when
# a minute of processor time made fewer than N executions: how many a minute by the clock makes says more of
# what else the machine does. New inputs that reached new code are kept in FOLDER/corpus/TARGET/ when the
# seconds are given; they are used the next time.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
floor=0
seconds=""
target=""
while [ $# -gt 0 ]; do
  case $1 in
    --sandbox) sandbox=$2; shift 2 ;;
    --program) program=$2; shift 2 ;;
    --build) build=$2; shift 2 ;;
    --floor) floor=$2; shift 2 ;;
    --seconds) seconds=$2; shift 2 ;;
    *) target=$1; shift ;;
  esac
done
findings=$build/findings/$target/
mkdir -p "$findings"
inputs=("$here/corpus/$target")
[ -d "$here/regressions/$target" ] && inputs+=("$here/regressions/$target")
if [ -n "$seconds" ]; then
  corpus=$build/corpus/$target
  mkdir -p "$corpus"
else
  seconds=$((60 * ${TARN_LONG:-1}))
  corpus=/var/tmp/corpus  # the sandbox's own: each run starts from the same inputs
fi
# Less to keep for every allocation: the targets allocate much.
export ASAN_OPTIONS=malloc_context_size=8:quarantine_size_mb=32${ASAN_OPTIONS:+:$ASAN_OPTIONS}
options=(-seed=1 -timeout=10 -rss_limit_mb=2048 -max_total_time="$seconds" -print_final_stats=1
  -verbosity=1 -artifact_prefix="$findings")
dictionary=$here/dictionaries/$target.dict
[ -f "$dictionary" ] && options+=(-dict="$dictionary")

log=$(mktemp)
processor=$(mktemp)
trap 'rm -f "$log" "$processor"' EXIT
status=0
TIMEFORMAT='%U %S'
# shellcheck disable=SC2016  # expanded in the sandbox
{
  time timeout --kill-after=10 $((seconds + 120)) "$sandbox" --keep "$root" --keep "$build" -- \
    sh -c 'mkdir -p "$1" && shift && exec "$@"' sh "$corpus" \
    "$program" "${options[@]}" "$corpus" "${inputs[@]}" >"$log" 2>&1
} 2>"$processor" || status=$?

executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
kept=$(grep -oE 'corp: [0-9]+' "$log" | tail -n 1 | cut -d ' ' -f 2 || true)
crashes=$([ "$status" = 0 ] && echo 0 || echo 1)
if [ "$status" != 0 ]; then
  grep -vE '^#[0-9]+' "$log" | tail -n 100
  echo "run.sh: $target ended with status $status; the input is kept in $findings"
fi
used=$(awk '{print int($1 + $2)}' "$processor")
least=$((floor * used / 60))
if [ "$status" = 0 ] && { [ "${executions:-0}" -lt "$least" ] || [ "${executions:-0}" = 0 ]; }; then
  echo "run.sh: $target: fewer than $least executions in $used s of processor time"
  status=1
fi
thousands() { sed -E ':a; s/([0-9])([0-9]{3})($|,)/\1,\2\3/; ta' <<<"$1"; }
echo "run.sh: $target took $used s of processor time"
echo "figures: fuzz/$target: $(thousands "${executions:-0}") executions, $crashes crashes, corpus ${kept:-0}; $seconds s"
exit "$status"
