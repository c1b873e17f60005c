#!/bin/bash
# Builds the fuzz targets with clang and the sanitizers and runs them one after the other, each for a
# minute or as long as told. New inputs that reached new code are kept in build/fuzz/corpus and used
# the next time; findings are kept in build/fuzz/findings.
#
#   scripts/fuzz.sh [--seconds N] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=60
targets=()
while [ $# -gt 0 ]; do
  case $1 in
    --seconds) seconds=${2:?}; shift 2 ;;
    -h | --help) sed -n '2,6s/^# \{0,1\}//p' "$0"; exit ;;
    -*) echo "fuzz.sh: what is $1?" >&2; exit 2 ;;
    *) targets+=("$1"); shift ;;
  esac
done
[[ $seconds =~ ^[1-9][0-9]*$ ]] || { echo "fuzz.sh: --seconds takes a number, not $seconds" >&2; exit 2; }
known=$(sed -n 's/^tarn_fuzz_target(\([A-Za-z]*\).*/\1/p' tests/fuzz/CMakeLists.txt)
for target in "${targets[@]}"; do
  grep -qx "$target" <<<"$known" || { echo "fuzz.sh: no target $target; there are" $known >&2; exit 2; }
done
# shellcheck disable=SC2206  # a list of words
[ ${#targets[@]} -gt 0 ] || targets=($known)
if [ "$(id -u)" != 0 ]; then
  echo "fuzz.sh: needs root, for namespaces of its own" >&2
  exit 1
fi
. scripts/dependencies.sh
install_packages build run test

cmake --preset fuzz -DCMAKE_CXX_COMPILER_LAUNCHER=ccache >/dev/null
cmake --build --preset fuzz -j "$(nproc)"
build=$PWD/build/fuzz
failed=""
for target in "${targets[@]}"; do
  tests/fuzz/run.sh --sandbox "$build/bin/tarn-sandbox" --program "$build/bin/fuzz_$target" --build "$build" \
    --seconds "$seconds" "$target" || failed+=" $target"
done
[ -z "$failed" ] && exit
cat >&2 <<TEXT
Findings of:$failed

To make a regression of a finding, give the input a name that says what it is, and see the replay fail:
  cp build/fuzz/findings/TARGET/crash-... tests/fuzz/regressions/TARGET/NAME
  cmake --preset dev && cmake --build --preset dev -j2 && ctest --preset dev -R fuzz-replay/TARGET
Smaller first, when it is long:
  build/fuzz/bin/tarn-sandbox --keep $PWD -- build/fuzz/bin/fuzz_TARGET -minimize_crash=1 -runs=10000 \\
    -exact_artifact_path=build/fuzz/findings/TARGET/small build/fuzz/findings/TARGET/crash-...
TEXT
exit 1
