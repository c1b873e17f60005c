#!/bin/bash
# The part of run.sh that runs inside the sandbox: runs one benchmark program and prints its rows, with
# the backend in front.
#
#   inside.sh BACKEND SERVICE-TABLE PROGRAM [OPTION...]
set -euo pipefail
backend=$1
install -D -m 0644 "$2" /usr/tarn/etc.defaults/firewall_services.json
shift 2
if ! "$@" | sed "s/^/$backend,/"; then
  echo "$1 could not measure; the end of the system log:" >&2
  tail -n 5 /run/syslog >&2
  exit 1
fi
