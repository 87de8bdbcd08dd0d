#!/usr/bin/env bash
# What tessaryctl says of each refusal of the running daemon (under
# daemon-sandbox.sh), of usage errors, and what list shows beside a label that
# can name no unit, a created service's among them.
#
#   client-messages.sh TESSARYCTL
set -uo pipefail
# shellcheck disable=SC2034 # the tables' command lines use it
ctl=$1
files=/run/client-messages
failures=0

# Rows "STATUS|PATTERN|COMMAND LINE": the command line's exit status, and a
# glob that its standard output and error together match ("\n" a new line).
table() {
    local status pattern line out got
    while IFS='|' read -r status pattern line; do
        [[ -z "$line" ]] && continue
        out=$(eval "$line" 2>&1)
        got=$?
        pattern=$(printf '%b' "$pattern")
        # shellcheck disable=SC2053 # the pattern is a glob
        if [[ "$got" != "$status" || "$out" != $pattern ]]; then
            echo "client-messages: FAILED: $line: status $got, said:" >&2
            printf '%s\n' "$out" | sed 's/^/    /' >&2
            failures=$((failures + 1))
        fi
    done
}

definition() {  # KEYS: a definition in XML
    printf '<plist version="1.0"><dict><key>Program</key><string>/bin/sleep</string>%s</dict></plist>\n' "$1"
}
mkdir -p "$files"
definition '<key>Label</key><string>com.example.idle</string>' >"$files/idle.plist"
definition '<key>Label</key><string>x y</string>' >"$files/invalid.plist"
definition '' >"$files/no-label.plist"
echo 'not a property list' >"$files/garbage"

echo "== refusals and usage errors"
table <<'TABLE'
1|tessaryctl: no service com.nosuch.service; `tessaryctl list` shows them|"$ctl" enable com.nosuch.service
1|tessaryctl: no service com.nosuch.service; `tessaryctl list` shows them|"$ctl" reset com.nosuch.service
1|tessaryctl: no service com.nosuch.service; `tessaryctl list` shows them|"$ctl" destroy com.nosuch.service
1|tessaryctl: no service com.nosuch.service; `tessaryctl list` shows them|"$ctl" program-arguments com.nosuch.service
1|tessaryctl: com.example.idle has no job nosuch|"$ctl" sockets com.example.idle --job nosuch
1|tessaryctl: there is a service com.example.idle already|"$ctl" create --file /run/client-messages/idle.plist
1|tessaryctl: not created, as it cannot run here: Label: the job has no Label string (--force creates it all the same)|"$ctl" create --file /run/client-messages/no-label.plist
1|tessaryctl: the definition has no Label string|"$ctl" create --force --file /run/client-messages/no-label.plist
1|tessaryctl: not created, as it cannot run here: Label: "x y" is not a valid systemd unit name: only letters, digits and ":_.-@" are allowed (--force creates it all the same)|"$ctl" create --file /run/client-messages/invalid.plist
1|tessaryctl: not authorized: run as root or authenticate as an administrator|runuser -u nobody -- env DBUS_SYSTEM_BUS_ADDRESS=unix:path=/run/none "$ctl" enable com.example.idle
64|tessaryctl: disable wants a SERVICE\nTry 'tessaryctl --help'.|"$ctl" disable
64|tessaryctl: /run/client-messages/garbage: not a property list*\nTry 'tessaryctl --help'.|"$ctl" create --file /run/client-messages/garbage
64|tessaryctl: give at least one argument after --\nTry 'tessaryctl --help'.|"$ctl" program-arguments com.example.idle --
64|tessaryctl: only create takes --force\nTry 'tessaryctl --help'.|"$ctl" --force enable com.example.idle
0|usage: tessaryctl *|"$ctl" help
0|usage: tessaryctl *|"$ctl" --help
TABLE

echo "== a label that can name no unit beside running services"
table <<'TABLE'
0|tessaryctl: created, but it cannot run here: Label: "x y" is not a valid *\nx y|"$ctl" create --force --file /run/client-messages/invalid.plist
0||"$ctl" enable 'x y'
0||"$ctl" enable com.example.probe
TABLE
for _ in $(seq 100); do
    [[ "$(systemctl --user is-active com.example.probe.service)" == active ]] && break
    sleep 0.1
done
table <<'TABLE'
0|*enabled   running                   com.example.probe\n*|"$ctl" list
0|*enabled   invalid                   x y\n*|"$ctl" list
0|*"states":{*"com.example.probe":"running",*"x y":"invalid"}*|"$ctl" --json list
0|*"dynamicServices":\["x y"\]*|"$ctl" --json list
0|x y|"$ctl" destroy 'x y'
TABLE

exit $((failures > 0))
