# shellcheck shell=bash disable=SC2034  # the variables are for those who source this
# Sourced by the tests of the installed system, whose arguments are SOURCE BUILD PREFIX FILES.
#
#   stage_system      installs to the folder $stage
#   install_system    puts what is there at its real paths
set -u
source_dir=$1
build_dir=$2
prefix=$3
expected_files=$4
stage=/tmp/stage
failures=0

fail() {
  printf 'FAILED: %s\n' "$*" >&2
  failures=$((failures + 1))
}

# same WHAT EXPECTED ACTUAL: compares two texts.
same() {
  [ "$2" = "$3" ] && return
  fail "$1"
  diff <(printf '%s\n' "$2") <(printf '%s\n' "$3") >&2
}

finish() {
  [ "$failures" = 0 ] && exit 0
  echo "$failures failed" >&2
  exit 1
}

stage_system() {
  if [ ! -e /run/tarn-sandbox ]; then
    echo "this test installs files and runs in tarn-sandbox only" >&2
    exit 1
  fi
  DESTDIR=$stage cmake --install "$build_dir" >/tmp/install.log && return
  cat /tmp/install.log >&2
  exit 1
}

install_system() {
  case $prefix in
    / | /usr | /usr/)
      echo "the sandbox has the machine's own /usr: configure with another CMAKE_INSTALL_PREFIX to test" >&2
      exit 1
      ;;
  esac
  mkdir -p "$prefix"
  mount -t tmpfs -o mode=0755 installed "$prefix" || exit 1
  cp -a "$stage$prefix/." "$prefix/"
  for directory in usr/tarn etc.defaults etc; do cp -a "$stage/$directory/." "/$directory/"; done
  ldconfig
  PATH=$prefix/sbin:$PATH
}
