#!/bin/bash
# Do the sources that are shipped pass .clang-tidy?
#   tidy.sh CLANG-TIDY SOURCE-DIRECTORY BUILD-DIRECTORY [PROCESSES]
set -euo pipefail
cd "$2"
find src common platform/linux ops tools -name '*.cpp' -print0 |
  xargs -0 -n 4 -P "${4:-$(nproc)}" "$1" --quiet -p "$3" 2>/dev/null
