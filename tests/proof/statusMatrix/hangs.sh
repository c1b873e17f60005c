#!/bin/sh
# Runs the matrix's cases of tools that hang, all at the same time, and prints the closing line.
#   hangs.sh IN_PARALLEL PROGRAM SANDBOX [OPTION...]
promised=11
inParallel=$1
program=$2
shift 2
start=$(date +%s)
failing=$(mktemp) || exit 1
trap 'rm -f "$failing"' EXIT
"$inParallel" "$program" '*Slow*' "$@" > "$failing" 2>&1
result=$?
cat "$failing"
cases=$("$program" --gtest_list_tests --gtest_filter='*Slow*' | grep -c '^  ')
wrong=$(grep -c '^\[ RUN ' "$failing")
if [ $result != 0 ] && [ "$wrong" = 0 ]; then
  wrong=$cases  # not one of them was run
fi
if [ "$cases" -lt $promised ]; then
  echo "fewer than $promised cases"
  result=1
fi
echo "figures: status-matrix/hangs: $cases cases, $wrong wrong; $(($(date +%s) - start)) s"
exit $result
