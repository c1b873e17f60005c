#!/bin/bash
# Installs what it needs, builds and runs all tests: with g++, again with clang under the address and
# undefined-behaviour sanitizers, warnings as errors in both, threads under the thread sanitizer, and every fuzz
# target for a minute. Ends with the figures of the proofs and the summary of each run.
#
#   scripts/test.sh [--fast | --long]
#
#   --fast  only the g++ build, without the tests labelled slow and without the proofs
#   --long  proofs, random profiles and fuzz targets up to ten times as long: a night's work
set -euo pipefail
cd "$(dirname "$0")/.."
mode=${1:-}
longer=-DTARN_TIME_FACTOR=1
began=$SECONDS
case $mode in
  "" | --fast) ;;
  --long)
    export TARN_LONG=${TARN_LONG:-10}
    # More of each often means longer steps as well.
    longer=-DTARN_TIME_FACTOR=$((TARN_LONG * 10))
    ;;
  *)
    echo "test.sh: what is $mode?" >&2
    exit 2
    ;;
esac
if [ "$(id -u)" != 0 ]; then
  echo "test.sh: needs root, for namespaces of its own" >&2
  exit 1
fi
. scripts/dependencies.sh
install_packages build run test

build() {  # build PRESET [CMAKE-OPTION...] [-- TARGET...]
  local preset=$1 options=()
  shift
  while [ $# -gt 0 ] && [ "$1" != -- ]; do
    options+=("$1")
    shift
  done
  [ $# -eq 0 ] || shift
  cmake --preset "$preset" -DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache \
    "$longer" "${options[@]}" >/dev/null
  cmake --build --preset "$preset" -j "$(nproc)" ${1:+--target "$@"}
}

log=$(mktemp)
trap 'rm -f "$log"' EXIT
failed=""

run() {  # run PRESET [CTEST-OPTION...]; a failure is remembered, the other tests run all the same
  local preset=$1
  shift
  echo "== $preset" | tee -a "$log"
  rm -f "build/$preset/Testing/Temporary/LastTest.log"
  ctest --preset "$preset" "$@" 2>&1 | tee -a "$log" || failed=yes
}

# Line tables are what a failing test prints; all debug information takes a quarter longer to compile.
build dev -DCMAKE_CXX_FLAGS_DEBUG=-g1 -DCMAKE_C_FLAGS_DEBUG=-g1
if [ "$mode" = --fast ]; then
  run dev -j "$(nproc)" -LE 'slow|proof|property'
  [ -z "$failed" ]
  exit
fi
build asan
build tsan -- tarn-sandbox proof_many_threadsTest
build fuzz
# Most tests wait now and then for something else than a processor; a fuzz target never does.
run asan -j "$(($(nproc) + 2))" -LE 'checks|slow'
run tsan -j "$(nproc)" -L many-at-once
run fuzz -j "$(nproc)"
run dev -j "$(($(nproc) + 2))"
echo
for preset in fuzz tsan dev; do
  grep -ahE '^figures: ' "build/$preset/Testing/Temporary/LastTest.log" || failed=yes
done
echo "test.sh: $(((SECONDS - began) / 60)) minutes on $(nproc) processors"
grep -E '^== |tests passed|^\s+[0-9]+ - .*\(|^Total Test time' "$log"
[ -z "$failed" ]
