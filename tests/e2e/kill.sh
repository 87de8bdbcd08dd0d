#!/usr/bin/env bash
# The daemon killed with SIGKILL at random instants while clients switch
# services, and restarted by its service manager each time: after every
# kill the preferences file is one whole version, and at the end the daemon
# owes each client the last switch it acknowledged, in the preferences file
# and in the service manager alike.
#
#   kill.sh LOAD_CLIENT [KILLS]     (under daemon-sandbox.sh --as-service)
set -euo pipefail
client=$1 kills=${2:-12}
prefs=/Library/Tessary/Setup/com.orvane.tessaryd.plist
work=$(mktemp -d)

fail() {
    echo "kill: $*" >&2
    exit 1
}
main_pid() { systemctl --user show -p MainPID --value com.orvane.tessaryd.service; }
answers() {
    local _
    for _ in $(seq 200); do
        python3 - <<'PY' && return 0
import socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
s.settimeout(2)
try:
    s.connect("/run/tessaryd/com.orvane.tessaryd")
except OSError:
    sys.exit(1)
PY
        sleep 0.1
    done
    return 1
}
enabled_services() {
    python3 -c 'import plistlib, sys
print("\n".join(sorted(plistlib.load(open(sys.argv[1], "rb")).get("enabledServices", []))))' "$prefs"
}

# Enough requests to keep the clients busy through every kill.
"$client" 8 $((kills * 40 > 400 ? kills * 40 : 400)) --survive-restarts >"$work/owed" 2>"$work/client.log" &
load=$!
for i in $(seq "$kills"); do
    sleep "0.$((RANDOM % 9 + 1))"
    pid=$(main_pid)
    [[ "$pid" != 0 ]] && kill -KILL "$pid"
    # Whatever instant the kill hit, the file is whole.
    enabled_services >/dev/null || fail "the preferences file is not whole after kill $i"
    answers || fail "the daemon did not come back after kill $i"
done
wait "$load" || fail "the clients failed: $(cat "$work/client.log")"
cat "$work/client.log"

awk '$2 == "enabled" {print $1}' "$work/owed" | sort >"$work/expected"
enabled_services | grep '^com.example.load' >"$work/actual" || true
diff -u "$work/expected" "$work/actual" || fail "the preferences file lost an acknowledged switch"
while read -r label state; do
    active=$(systemctl --user is-active "$label.service" || true)
    if [[ "$state" == enabled && "$active" != active ]] || [[ "$state" == disabled && "$active" == active ]]; then
        fail "$label is $state but its unit is $active"
    fi
done <"$work/owed"
echo "kill: $kills kills, every acknowledged switch kept"
