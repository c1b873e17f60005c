#!/bin/bash
# What is installed, file by file; and that programs in C++ and C, those of doc/using.md, are built with what
# is installed, by pkg-config and by CMake, and print what that page says.
# shellcheck source=installed.sh
. "$(dirname "$0")/installed.sh"

# Modes and paths of all files, links with what they lead to, empty folders.
installed_files() {
  (cd "$stage" && find . \( -type f -o -type l -o -type d -empty \) -printf '%M /%P -> %l\n') | sed 's/ -> $//'
}

# The fenced block of doc/using.md that begins with ```$1.
block() {
  awk -v start="\`\`\`$1" '$0 == start {inside = 1; next} /^```/ {inside = 0} inside' "$source_dir/doc/using.md"
}

build_with_pkgconfig() {
  mkdir /tmp/pkgconfig
  cd /tmp/pkgconfig || exit 1
  cp /tmp/examples/*.c /tmp/examples/*.cpp .
  PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name tarnfirewall.pc)")
  export PKG_CONFIG_PATH
  bash -e <(block sh) || fail "the commands of doc/using.md do not build the examples"
  # The compiler looks into some folders without being told.
  for file in "$(pkg-config --variable=includedir tarnfirewall)/tarnfirewall.h" \
    "$(pkg-config --variable=libdir tarnfirewall)/libtarnfirewall.so"; do
    [ -e "$file" ] || fail "pkg-config knows $file"
  done
}

# Before anything is at its real place: what CMake finds, it finds beside its package file.
build_with_cmake() {
  cmake -S /tmp/examples -B /tmp/cmake -DCMAKE_PREFIX_PATH="$stage$prefix" -DCMAKE_CXX_FLAGS="$warnings" \
    -DCMAKE_C_FLAGS="$warnings" >/tmp/cmake.log 2>&1 && cmake --build /tmp/cmake >>/tmp/cmake.log 2>&1 && return
  fail "CMake does not build the examples of doc/using.md"
  cat /tmp/cmake.log >&2
}

warnings="-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Werror"
stage_system
same "installed files" "$(LC_ALL=C sort -k2 "$expected_files")" "$(installed_files | LC_ALL=C sort -k2)"

mkdir /tmp/examples
block cpp >/tmp/examples/open_ssh.cpp
block c >/tmp/examples/nat_modules.c
block cmake >/tmp/examples/CMakeLists.txt
build_with_cmake
install_system
build_with_pkgconfig

tarnfw setup --quiet || fail "tarnfw setup"
for way in pkgconfig cmake; do
  for program in open_ssh nat_modules; do
    same "output of $program built with $way" "$(block "text $program")" "$("/tmp/$way/$program" 2>&1)"
  done
done
/usr/bin/python3 "$source_dir/packaging/tests/schemas.py" "$source_dir" --written ||
  fail "documents that the library has written"
finish
