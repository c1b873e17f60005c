#!/bin/bash
# Installs what it needs, builds and runs all tests: with g++ and warnings as errors, and again under
# the address and undefined-behaviour sanitizers. clang compiles what is shipped, with the same warnings.
#
#   scripts/test.sh [--fast]     --fast: only the g++ build, without the tests labelled slow
set -euo pipefail
cd "$(dirname "$0")/.."
if [ "$(id -u)" != 0 ]; then
  echo "test.sh: needs root, for namespaces of its own" >&2
  exit 77
fi
fast=""
[ "${1:-}" = --fast ] && fast=yes
. scripts/dependencies.sh
install_packages build run test

build() {  # build PRESET [CMAKE-OPTION...]
  local preset=$1
  shift
  cmake --preset "$preset" -DCMAKE_CXX_COMPILER_LAUNCHER=ccache "$@" >/dev/null
  cmake --build --preset "$preset" -j "$(nproc)"
}

build dev
if [ -n "$fast" ]; then
  ctest --preset dev -j "$(nproc)" -LE slow
  exit
fi
build clang -DTARN_TESTS=OFF -DTARN_BENCH=OFF
build asan
ctest --preset asan -j "$(nproc)" -LE 'checks|slow'
ctest --preset dev -j "$(nproc)"
