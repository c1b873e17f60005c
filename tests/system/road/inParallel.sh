#!/bin/sh
# Runs every test of a program that a filter selects, each in a sandbox of its own and all at the same time:
# what they do is wait. Prints what the failing ones print.
#   inParallel.sh PROGRAM FILTER SANDBOX [OPTION...]
program=$1
filter=$2
shift 2
outputs=$(mktemp -d) || exit 1
trap 'rm -rf "$outputs"' EXIT

tests=$("$program" --gtest_list_tests --gtest_filter="$filter" |
  awk '/^[^ ]/ { suite = $1 } /^ / { print suite $1 }')
if [ -z "$tests" ]; then
  echo "no test fits $filter" >&2
  exit 1
fi

number=0
for test in $tests; do
  number=$((number + 1))
  {
    "$@" -- "$program" --gtest_filter="$test" > "$outputs/$number" 2>&1
    echo $? > "$outputs/$number.status"
  } &
done
wait

failed=0
while [ "$number" -gt 0 ]; do
  if [ "$(cat "$outputs/$number.status")" != 0 ]; then
    failed=1
    cat "$outputs/$number"
  fi
  number=$((number - 1))
done
exit "$failed"
