#!/bin/bash
# The demo itself, inside the throw-away root and network: stores a profile, enables the firewall with
# the real tools, sends packets. Called by scripts/demo.sh with the folders of the programs and of the
# data files.
set -u
programs=$1
demo=$2
data=$3
failed=0

say() { printf '\n== %s\n' "$*"; }
check() {  # check WHAT COMMAND...: notes what did not go as the demo promises
  local what=$1
  shift
  "$@" && return
  echo "demo: $what: failed" >&2
  failed=1
}
table() { "$programs/tarn-probe" table "$1"; }
logged() {  # packets that the LOG rule has counted
  /sbin/iptables -nvxL INPUT_FIREWALL | awk '$3 == "LOG" {sum += $1} END {print sum + 0}'
}

say "A machine with $(/sbin/iptables -V): eth0, eth1, tun0, and a host behind each"
for address in 10.77.0.50/24 10.77.0.99/24; do ip -n client address add "$address" dev c0; done
ip -n client address add fd77::99/64 dev c0 nodad
mkdir -p /usr/tarn/etc.defaults /etc.defaults
cp "$data/firewall_services.json" "$data/iptables_modules_list" /usr/tarn/etc.defaults/
cp "$data/tarninfo.conf" /etc.defaults/
ports="22 23 53 80 123 443 8000 8005 8080"
servers=()
for space in - client lan; do
  exec {out}< <(exec "$programs/tarn-probe" serve "$space" $ports)
  servers+=($!)
  read -r -t 10 -u "$out" _ || { echo "demo: no server in $space" >&2; exit 1; }
done

say "tarnfw setup; tarnfw profile use office; tarnfw enable"
check setup "$programs/tarnfw" setup
cp "$demo/office.json" /usr/tarn/etc/firewall.d/1700000000.json
check "profile use" "$programs/tarnfw" profile use office
check enable "$programs/tarnfw" enable
check status "$programs/tarnfw" status

say "What the profile says, and what packets do"
before=$(logged)
check "profile on" table "$demo/profile.tsv"
after=$(logged)
echo "LOG rule: $((after - before)) packets counted"
check "LOG rule counts" test "$after" -gt "$before"

say "A connection that is open stays open over three reloads"
"$programs/tarn-probe" stream client 10.77.0.2 10.77.0.1 22 2500 &
connection=$!
sleep 0.3
for _ in 1 2 3; do check reload "$programs/tarnfw" reload; done
check "open connection" wait "$connection"

say "tarnfw disable: everything is open again"
check disable "$programs/tarnfw" disable
check "profile off" table "$demo/off.tsv"

kill "${servers[@]}" 2>/dev/null
exit "$failed"
