#!/bin/bash
# Is every source file laid out as .clang-format says? format.sh CLANG-FORMAT SOURCE-DIRECTORY
set -eu
find "$2/include" "$2/src" "$2/platform" "$2/ops" "$2/tools" "$2/tests" "$2/bench" \
  \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) -print0 | xargs -0 "$1" --dry-run --Werror
