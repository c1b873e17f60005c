#!/bin/sh
# Runs the matrix's cases of tools that hang, all at the same time, and prints the closing line.
#   hangs.sh IN_PARALLEL PROGRAM SANDBOX [OPTION...]
inParallel=$1
program=$2
shift 2
start=$(date +%s)
"$inParallel" "$program" '*Slow*' "$@"
result=$?
cases=$("$program" --gtest_list_tests --gtest_filter='*Slow*' | grep -c '^  ')
[ $result = 0 ] && wrong=0 || wrong="some"
echo "figures: status-matrix/hangs: $cases cases, $wrong wrong; $(($(date +%s) - start)) s"
exit $result
