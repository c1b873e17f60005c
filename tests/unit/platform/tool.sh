#!/bin/sh
# Stands at /sbin/iptables and /sbin/ip6tables: does what the test has written down.
exec /bin/sh /tmp/platform/tool "$@"
