#!/usr/bin/env bash
# Faults around the running daemon (under daemon-sandbox.sh): the service
# manager gone in the middle of synchronising, a full disk under a
# preferences write, and the preferences file replaced by garbage. Each
# time the daemon keeps answering, never leaves a half-written or foreign
# preferences file, and brings the service manager back in line once the
# fault is gone. Last, another user's requests with arguments that are no
# dictionary, in the middle of root's promotion.
#
#   faults.sh TESSARYCTL
set -uo pipefail
ctl=$1
setup=/Library/Tessary/Setup
prefs=$setup/com.orvane.tessaryd.plist
services=(com.example.idle com.example.probe com.example.inside)

failures=0
check() {
    local what=$1
    shift
    if ! "$@"; then
        echo "faults: FAILED: $what" >&2
        failures=$((failures + 1))
    fi
}
answers() { "$ctl" --timeout 20 status >/dev/null; }
# Loaded: the manager has the job (a job that does not run at load is
# loaded but inactive).
loaded() { [[ "$(systemctl --user show -p LoadState --value "$1.service")" == loaded ]]; }
not_loaded() { ! loaded "$1"; }
# The preferences file parses, and names exactly the services given.
prefs_enable() {
    python3 - "$prefs" "$@" <<'PY'
import plistlib, sys
have = sorted(plistlib.load(open(sys.argv[1], "rb")).get("enabledServices", []))
sys.exit(have != sorted(sys.argv[2:]))
PY
}
no_temporary_files() { [[ -z "$(find "$setup" -name '.*' -type f)" ]]; }

echo "== the service manager goes away while the daemon synchronises"
# Its socket disappears for a while, and the manager re-executes, closing
# every connection it had, before the socket comes back.
private=$XDG_RUNTIME_DIR/systemd/private
rm -f /run/faults-stop
(
    while [[ ! -e /run/faults-stop ]]; do
        for s in "${services[@]}"; do "$ctl" --timeout 30 enable "$s" >/dev/null; done
        for s in "${services[@]}"; do "$ctl" --timeout 30 disable "$s" >/dev/null; done
    done
) &
switcher=$!
sleep 1
umount /run/systemd/private
sleep 2
check "the daemon answers while the manager is gone" answers
systemctl --user daemon-reexec
# A re-executed manager makes its socket anew.
mount --bind "$private" /run/systemd/private
sleep 1
touch /run/faults-stop
wait "$switcher"
check "the daemon answers after the manager came back" answers
# One more switch brings everything in line with what the file says.
"$ctl" enable com.example.idle >/dev/null
"$ctl" enable com.example.probe >/dev/null
check "the preferences hold the last switches" prefs_enable com.example.idle com.example.probe
check "idle is loaded" loaded com.example.idle
check "probe is loaded" loaded com.example.probe
check "inside is not loaded" not_loaded com.example.inside

echo "== a full disk under a preferences write"
before=$(cat "$prefs")
mkdir -p /run/faults && cp -a "$setup/." /run/faults/
mount -t tmpfs -o size=64k,mode=0755 tmpfs "$setup"
cp -a /run/faults/. "$setup/"
dd if=/dev/zero of="$setup/filler" bs=4k count=64 2>/dev/null
"$ctl" enable com.example.inside >/dev/null
"$ctl" disable com.example.idle >/dev/null
check "the daemon answers on a full disk" answers
check "the file is the last whole version" test "$(cat "$prefs")" == "$before"
check "no temporary file is left behind" no_temporary_files
# The switches hold in the running daemon; the file keeps what it had.
check "the service manager follows the switch" loaded com.example.inside
check "and the switch off" not_loaded com.example.idle
rm -f "$setup/filler"
"$ctl" enable com.example.idle >/dev/null
check "with room again, a switch is written" prefs_enable com.example.idle com.example.probe
check "idle is loaded again" loaded com.example.idle
cp -a "$setup/." /run/faults/
umount "$setup"
cp -a /run/faults/. "$setup/"

echo "== the preferences file replaced by garbage"
printf 'not a property list' >"$prefs"
check "status is answered" answers
"$ctl" list >/dev/null
"$ctl" enable com.example.idle >/dev/null
"$ctl" disable com.example.probe >/dev/null
check "the garbage is never overwritten" test "$(cat "$prefs")" == "not a property list"
check "no temporary file is left behind" no_temporary_files
rm -f "$prefs"
"$ctl" enable com.example.idle >/dev/null
check "a new file starts from the last switch" prefs_enable com.example.idle
check "the service manager follows it" not_loaded com.example.probe

echo "== another user's arguments that are no dictionary, during root's promotion"
# The user without any right sends "status" with an array or a string as its
# arguments while root's promotion holds: each is refused on a connection that
# stays open, and the daemon (which nothing restarts here) runs on, so the
# promotion ends as it was begun.
backend=com.orvane.tessaryadmind.backend
printf '<plist version="1.0"><dict><key>Label</key><string>%s</string><key>ProgramArguments</key>
<array><string>/bin/sleep</string><string>1000</string></array></dict></plist>' "$backend" |
    "$ctl" create --file - >/dev/null
"$ctl" promote -- setpriv --reuid=65534 --regid=65534 --clear-groups /usr/bin/python3 -c '
import plistlib, socket, sys
s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
s.settimeout(10)
s.connect("/run/tessaryd/com.orvane.tessaryd")
codes = []
for arguments in ([], "status", [{}], ""):
    request = {"commandString": "status",
               "argumentsData": plistlib.dumps(arguments, fmt=plistlib.FMT_BINARY)}
    s.send(plistlib.dumps(request, fmt=plistlib.FMT_BINARY))
    codes.append(plistlib.loads(s.recv(65536))["returnCodeInteger"])
sys.exit(codes != [1, 1, 1, 1])'
check "each request was refused and the promotion ended" test $? == 0
daemon_lives() { [[ -n "$(ps -o stat= -p "$TESSARYD_PID" | grep -v '^Z')" ]]; }
check "the daemon runs on" daemon_lives
check "the machine is set up" test "$("$ctl" status | head -n 1)" == configured
check "the services switched on stay on" prefs_enable com.example.idle "$backend"

exit $((failures > 0))
