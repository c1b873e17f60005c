#!/bin/bash
# Tests of tarn-sandbox: sandboxTest.sh PATH-OF-TARN-SANDBOX. Needs root.
#
# Each check is a name, the expected exit status, the expected output (both streams) and the arguments. Uses
# ip, ping, perl, ps, setpriv and both variants of iptables.

set -u
sandbox=$(readlink -f "$1")
work=$(mktemp -d /tmp/sandboxTest.XXXXXX)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failed=0

fail() {
  failed=1
  printf 'FAILED %s\n--- expected\n%s\n--- found\n%s\n' "$1" "$2" "$3"
}

equal() {
  if [ "$2" != "$3" ]; then fail "$1" "$2" "$3"; fi
}

check() {
  local name=$1 status=$2 output=$3 found
  shift 3
  found=$("$sandbox" "$@" 2>&1)
  equal "$name: exit status" "$status" "$?"
  equal "$name: output" "$output" "$found"
}

# What of the machine a sandbox could have changed.
machine() {
  cut -d' ' -f3- /proc/self/mountinfo
  ls -A / /usr /usr/share /var
  ls -d /usr/tarn /etc.defaults /usr/share/xt_geoip /run/netns {/tmp,/run,/etc,/var/tmp,/dev/shm}/made-in-sandbox 2>&1
  ls /sys/class/net
}

before=$(machine)

# --- exit status and arguments ---

check Success 0 '' true
check Status 7 '' sh -c 'exit 7'
check Signal 137 '' sh -c 'kill -9 $$'
check NotFound 127 'tarn-sandbox: /no/such/program: No such file or directory' /no/such/program
check NotExecutable 126 'tarn-sandbox: /etc/passwd: Permission denied' /etc/passwd
check Arguments 0 $'[a b]\n[]\n[--network]\n[*]' printf '[%s]\n' 'a b' '' --network '*'
check EndOfOptions 0 x -- echo x
check BadBackend 125 'tarn-sandbox: --backend is nft or legacy, not none' --backend none true
check AbsentTool 125 'tarn-sandbox: /no/such/tool: No such file or directory' --tool /no/such/tool true
equal NoCommand 125 "$("$sandbox" > /dev/null 2>&1; echo $?)"
equal UnknownOption 125 "$("$sandbox" --none true > /dev/null 2>&1; echo $?)"
equal NeedsRoot "tarn-sandbox: needs root: it mounts file systems and makes namespaces 125" \
  "$(cp "$sandbox" copy; chmod 755 . copy; setpriv --reuid 65534 --regid 65534 --clear-groups ./copy true 2>&1 | tr '\n' ' '
     echo "${PIPESTATUS[0]}")"

# --- the root directory ---

check WorkingDirectoryInTmp 0 "$work" pwd
equal WorkingDirectoryElsewhere /usr/share "$(cd /usr/share && "$sandbox" pwd)"
check Standard 0 $'input' cat < <(printf input)
check Root 0 0 id -u
check EmptyDirectories 0 '0' sh -c \
  'find /etc.defaults /usr/tarn/etc.defaults /usr/tarn/etc/firewall.d /usr/share/xt_geoip /var/tmp /run/lock -mindepth 1 | wc -l'
check Modes 0 '1777 1777 1777 1777 755 755 755 ' \
  stat --printf='%a ' /tmp /run/lock /var/tmp /dev/shm /usr/tarn /etc.defaults /run
check Locks 0 /run/lock readlink /var/lock
check CopyOfEtc 0 '' sh -c 'for f in passwd group protocols services; do [ ! -e /etc/$f ] || [ -s /etc/$f ] || echo $f; done'
check Writable 0 '' sh -c \
  'for d in /etc /etc.defaults /usr/tarn /usr/tarn/etc/firewall.d /usr/share/xt_geoip /tmp /var/tmp /run /run/lock /var/lock /dev/shm; do
     echo x > $d/made-in-sandbox || echo $d; done'
check Devices 0 0 sh -c 'echo x > /dev/null && head -c 4 /dev/zero | wc -c > /dev/null && test -c /dev/urandom && echo 0'
check Marker 0 '' test -f /run/tarn-sandbox
check Nested 0 "$work" "$sandbox" pwd
mkdir kept
check Keep 0 "$work/kept" sh -c "cd / && '$sandbox' --keep '$work/kept' sh -c 'cd $work/kept && pwd'"

# --- processes ---

check ProcessOne 0 1 sh -c 'ps -e -o pid= | head -1 | tr -d " "'
check OrphansAreReaped 0 '0' bash -c \
  '(true & exec true); for i in {1..100}; do z=$(ps -e -o stat= | grep -c ^Z); [ $z = 0 ] && break; sleep 0.05; done; echo $z'
equal Mask 0027 "$(umask 027; "$sandbox" bash -c umask)"

# A command line that nothing else on the machine has.
stamp="61$RANDOM$RANDOM"
"$sandbox" sh -c "sleep $stamp & exit 3"
equal LeftOversAreKilled '' "$(pgrep -f "sleep $stamp")"
"$sandbox" sh -c "echo > started; sleep $stamp" &
until [ -e started ]; do sleep 0.01; done
kill -9 $!
wait $! 2> /dev/null
for ((i = 0; i < 500; ++i)); do pgrep -f "sleep $stamp" > /dev/null || break; sleep 0.01; done
equal DeathOfTheSandboxKills '' "$(pgrep -f "sleep $stamp")"

# --- system log ---

check Syslog 0 $'<11>one\n<15>a#012b' bash -c \
  'perl -MSocket -e "socket(S, AF_UNIX, SOCK_DGRAM, 0); for (\"<11>one\\0\", \"<15>a\\nb\\n\") { send(S, \$_, 0, sockaddr_un(\"/dev/log\")) }"
   for i in {1..500}; do [ "$(wc -l < /run/syslog)" = 2 ] && break; sleep 0.01; done; cat /run/syslog'

# --- tools ---

printf '#!/bin/sh\necho "$0 $*"\n' > tool
chmod 755 tool
check Tool 0 $'/sbin/iptables -F A\n/sbin/ip6tables -F B' --tool ./tool sh -c '/sbin/iptables -F A; /sbin/ip6tables -F B'
check ToolLeavesTheRest 0 '' --tool ./tool test -x /sbin/ip
for backend in nft legacy; do
  case $backend in nft) variant=nf_tables ;; *) variant=legacy ;; esac
  version=$(/usr/sbin/iptables-$backend --version | cut -d' ' -f2)
  check "Backend $backend" 0 "iptables $version ($variant)
ip6tables $version ($variant)
iptables-save $version ($variant)
ip6tables-restore $version ($variant)" --backend $backend sh -c \
    '/sbin/iptables --version; /sbin/ip6tables --version; /sbin/iptables-save --version; /sbin/ip6tables-restore --version'
  check "Rules $backend" 0 '-N MADE' --backend $backend sh -c '/sbin/iptables -N MADE && /sbin/iptables -S MADE'
done

# --- network ---

check LoopbackOnly 0 lo ls /sys/class/net
check LoopbackIsUp 0 '' sh -c 'ping -c1 -W1 127.0.0.1 > /dev/null && ping -c1 -W1 ::1 > /dev/null'
check Links 0 'eth0 eth1 lo tun0 tun1000 ' --network sh -c 'ls /sys/class/net | tr "\n" " "'
check Addresses 0 '10.77.0.1/24 10.78.0.1/24 10.79.0.1/24 fd77::1/64 fd78::1/64 ' --network sh -c \
  'ip -o address show scope global | awk "{print \$4}" | sort | tr "\n" " "'
while read -r name from to; do
  check "$name" 0 '' --network sh -c "ip netns exec $from ping -q -c1 -W2 $to > /dev/null"
done << 'END'
ClientToRouter      client 10.77.0.1
ClientToRouter6     client fd77::1
ClientToLan         client 10.78.0.2
ClientToLan6        client fd78::2
LanToClient         lan    10.77.0.2
RoadToLan           road   10.78.0.2
END
check RouterToAll 0 '' --network sh -c \
  'for a in 10.77.0.2 fd77::2 10.78.0.2 fd78::2 10.79.0.2; do ping -q -c1 -W2 $a > /dev/null || echo $a; done'

equal LeavesNothingBehind "$before" "$(machine)"
exit $failed
