# Installs what building and testing take, from Debian's packages. Sourced by the other scripts; does
# nothing when all of it is there.
#
#   install_packages GROUP...     groups: build, run, test

packages_build="g++ cmake ninja-build pkg-config ccache libjsoncpp-dev libboost-dev libkmod-dev libmnl-dev libcli11-dev"
packages_run="iptables netbase iproute2"
packages_test="clang libclang-rt-dev clang-format clang-tidy libgtest-dev libbenchmark-dev python3 iputils-ping strace e2fsprogs procps"

# Debian names the sanitizer runtimes of clang by its version.
packages_of() {
  local name="packages_$1"
  local word
  for word in ${!name}; do
    if [ "$word" = libclang-rt-dev ]; then
      word=$(apt-cache depends clang 2>/dev/null | sed -n 's/.*Depends: clang-\([0-9]*\)$/libclang-rt-\1-dev/p' | head -n 1)
    fi
    printf '%s ' "$word"
  done
}

installed() {
  local package
  for package in "$@"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || return 1
  done
}

install_packages() {
  local group wanted=""
  for group in "$@"; do wanted+=$(packages_of "$group"); done
  # shellcheck disable=SC2086  # a list of words
  installed $wanted && return
  if [ "$(id -u)" != 0 ]; then
    echo "missing packages, and only root can install them: $wanted" >&2
    return 1
  fi
  apt-get update -qq
  wanted=""
  for group in "$@"; do wanted+=$(packages_of "$group"); done
  # shellcheck disable=SC2086
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $wanted >/dev/null
}
