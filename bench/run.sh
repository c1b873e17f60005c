#!/bin/bash
# Measures the library against the bare work, prints the ratios as a table and writes them as CSV.
# README.md says what each number means.
#
#   bench/run.sh [--quick] [--csv FILE] [--build DIRECTORY]
#
#   --quick            under 40 seconds: fewer repetitions, and not the longest rows
#   --csv FILE         where the CSV goes; without it DIRECTORY/bench.csv
#   --build DIRECTORY  a configured build with TARN_BENCH=ON; without it build/release, which is made
#                      when it is not there
#
# Exit status: 0 every bound is kept or missed by less than the spread, 1 one is missed, 2 it could
# not be measured, 77 not root.
set -euo pipefail

usage() {
  sed -n '5,10s/^# \{0,1\}//p' "$0" >&2
  exit 2
}

quick=""
csv=""
build=""
while [ $# -gt 0 ]; do
  case $1 in
    --quick) quick=--quick ;;
    --csv) csv=$(realpath -m "${2:?--csv needs a file}"); shift ;;
    --build) build=$(realpath "${2:?--build needs a directory}"); shift ;;
    *) usage ;;
  esac
  shift
done

cd "$(dirname "$0")/.."
top=$PWD
if [ "$(id -u)" != 0 ]; then
  echo "run.sh: needs root, for namespaces of its own" >&2
  exit 77
fi
if [ -z "$build" ]; then
  . scripts/dependencies.sh
  install_packages build run test
  build=$top/build/release
  cmake --preset release >/dev/null
fi
cmake --build "$build" --target tarn-bench >/dev/null
csv=${csv:-$build/bench.csv}

# measure BACKEND QUESTION...: the rows of the named programs, each in a sandbox of its own
measure() {
  local backend=$1 option=() question
  shift
  [ "$backend" = none ] || option=(--backend "$backend")
  for question in "$@"; do
    "$build/bin/tarn-sandbox" "${option[@]}" --network --keep "$top" --keep "$build" -- \
      bash "$top/bench/inside.sh" "$backend" "$top/platform/linux/data/firewall_services.json" \
      "$build/bin/tarn-bench-$question" $quick || exit 2
  done
}

# One line of the table for one row of the CSV.
table() {
  awk -F, '
    { spread = sprintf("%s-%s", $6, $7)
      sides = $1 == "backend" ? "ours : other" : sprintf("%s : %s %s", $11, $12, $13)
      if ($1 == "backend") spread = "spread"
      printf "%-7s  %-15s  %-36s  %-19s  %6s  %-13s  %5s  %5s  %-13s  %s\n",
             $1, $2, $3, $4, $5, spread, $8, $9, $10, sides
      fflush() }'
}

header=backend,question,what,size,ratio,low,high,pairs,bound,verdict,ours,other,unit
{
  echo "$header"
  measure none compile query memory
  measure nft fwExec dropPeriod
  measure legacy fwExec dropPeriod
} | tee "$csv" | table || exit 2

if [ -z "$quick" ]; then
  echo
  "$build/bin/tarn-sandbox" --network --keep "$top" --keep "$build" -- \
    "$build/bin/tarn-bench-stages" 2>/dev/null || exit 2
fi
echo
echo "$csv"
if awk -F, '$10 == "missed" { missed = 1 } END { exit !missed }' "$csv"; then
  echo "run.sh: a bound is missed by more than the spread" >&2
  exit 1
fi
