#!/bin/bash
# What pppd and udev start when interfaces come and go.
# shellcheck source=installed.sh
. "$(dirname "$0")/installed.sh"
stage_system
install_system

record=/run/tarn/pppoe_interface
follow=$prefix/libexec/tarnfw/follow-interfaces

# pppd MOMENT TERMINAL INTERFACE: what pppd does then.
pppd() { PPP_TTY=$2 PPP_IFACE=$3 run-parts --exit-on-error "/etc/ppp/$1.d" || fail "/etc/ppp/$1.d"; }
recorded() { cat "$record" 2>/dev/null || echo none; }
loaded() { /sbin/iptables -S INPUT_FIREWALL | grep -c -- "$1"; }

tarnfw setup --quiet || fail "tarnfw setup"
cat >/usr/tarn/etc/firewall.d/links.json <<'END'
{"name": "links", "rules": null, "adapterPolicyMap": {"eth0": 1, "later0": 1, "pppoe": 1}}
END
tarnfw profile use links --quiet || fail "profile use"

# --- follow-interfaces ---

"$follow" || fail "an interface while the firewall is off"
same "rules while the firewall is off" 0 "$(loaded 'eth0')"

tarnfw enable --quiet || fail "enable"
same "rules of an interface that is there" 1 "$(loaded '-i eth0')"
same "rules of an interface that is not there" 0 "$(loaded '-i later0')"

ip link add later0 type veth peer name other0
"$follow" || fail "an interface that has rules"
same "rules of an interface that has come" 1 "$(loaded '-i later0')"

# A reload would wait for the execution lock.
flock /tmp/firewall_iptables_exec.lock timeout 20 "$follow" || fail "an interface without rules"

/sbin/iptables -F INPUT_FIREWALL
"$follow" || fail "rules that somebody took out"
same "rules that somebody took out" 1 "$(loaded '-i eth0')"

# --- pppd ---

pppd ip-up /dev/ttyS0 tun0
same "a link over a serial line" none "$(recorded)"
pppd ip-up ttyS0 tun0
same "a link over a terminal without a path" none "$(recorded)"
pppd ip-up .. tun0
same "a terminal that is no interface" none "$(recorded)"
pppd ip-up eth1 tun0
same "a PPPoE link" tun0 "$(recorded)"
same "rules of the PPPoE link" 1 "$(loaded '-i tun0')"
pppd ip-down /dev/ttyS0 tun1000
same "another link is down" tun0 "$(recorded)"
pppd ip-down eth1 tun0
same "the PPPoE link is down" none "$(recorded)"
finish
