#!/bin/sh
# Checks the console's socket unit and its service together:
#   check_console_socket.sh SOCKET_UNIT SERVICE_UNIT PROGRAM
# systemd-analyze verify must accept the pair without a word (on copies whose
# ExecStart names the built PROGRAM), the socket must listen on loopback only,
# and the service must require it. Exits 77 when systemd-analyze is missing.
set -eu
socket=$1 service=$2 program=$3
command -v systemd-analyze >/dev/null || { echo "SKIPPED: systemd-analyze is not installed"; exit 77; }
fail() { echo "check_console_socket: FAIL: $*" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$socket" "$work/tsanomalyconsole.socket"
sed "s#^ExecStart=[^ ]*tsanomalyctl#ExecStart=$program#" "$service" > "$work/tsanomalyconsole.service"
output=$(cd "$work" && systemd-analyze verify --man=no ./tsanomalyconsole.socket ./tsanomalyconsole.service 2>&1) \
  || fail "systemd-analyze verify: $output"
[ -z "$output" ] || fail "systemd-analyze verify warns: $output"

listen=$(sed -n 's/^ListenStream=//p' "$socket")
case $listen in
  127.*:* | "[::1]:"*) ;;
  *) fail "the socket listens on $listen, not on loopback" ;;
esac
grep -qx 'Requires=tsanomalyconsole.socket' "$service" || fail "the service does not require its socket"
grep -q -- "--listen $listen" "$service" || fail "the service's --listen differs from the socket's $listen"
echo "check_console_socket: $listen held by the socket unit"
