#!/bin/bash
# Shows the firewall at work on a fresh Debian: installs what it needs, builds, and in a throw-away root
# directory and network loads a sample profile into the kernel and sends packets at it. The machine's own
# packet filter and files are not touched. Exit status 0 when every packet did what the profile says,
# with both back ends of iptables.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
if [ "$(id -u)" != 0 ]; then
  echo "demo.sh: needs root, for namespaces of its own" >&2
  exit 1
fi
. scripts/dependencies.sh
install_packages build run
build=$top/build/demo
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARN_TESTS=OFF -DTARN_DEMO=ON >/dev/null
cmake --build "$build" -j "$(nproc)"

failed=0
for backend in nft legacy; do
  "$build/bin/tarn-sandbox" --backend "$backend" --network --keep "$top" -- \
    bash "$top/scripts/demo/inside.sh" "$build/bin" "$top/scripts/demo" "$top/platform/linux/data" || failed=1
done
echo
if [ "$failed" != 0 ]; then
  echo "demo: packets and profile do not agree, see above" >&2
  exit 1
fi
echo "demo: every packet did what the profile says, with iptables-nft and iptables-legacy"
