#!/usr/bin/env bash
# The daemon's figures at one size, inside the namespace that
# tests/systemd/with-systemd.sh --private-run makes:
#
#   growth-suite.sh COUNT BUILD OUT
#
# The sandbox of tests/e2e/sandbox-lib.sh, its manager holding a booted
# machine's units (machine-units.sh), with the end-to-end app (three
# services of its own) and COUNT services created at run time: definitions in
# the preferences' "dynamicServices", as "create" stores them (a sleep that
# runs at load), every tenth one switched on and the rest off. A tenth keeps
# what a machine runs growing with what it holds, without the fleet being
# mostly running, which no real machine with a thousand services is.
#
# The daemon starts once (it submits the services that are on), then
# START_RUNS start-ups are timed, exec to the first "status" answered, each
# finding its services loaded as a restart does. Then, beside the running
# daemon, ROUNDS rounds alternate: "tessaryctl enable" + "disable" of one
# service that is off, and "systemctl --user start" + "stop" of a plain
# unit of the same command; "tessaryctl --json list" and
# "systemctl --user list-units --all --output=json"; and the switch again
# with the preferences in memory. Every figure goes to OUT/figures as
# "name microseconds" lines, one per run.
set -euo pipefail
count=$1 build=$2 out=$3
start_runs=${TESSARY_GROWTH_STARTS:-7}
rounds=${TESSARY_GROWTH_ROUNDS:-15}
here="$(cd "$(dirname "$0")/.." && pwd)"
# shellcheck source=../tests/e2e/sandbox-lib.sh
source "$here/tests/e2e/sandbox-lib.sh"
[[ -n "${TESSARY_PRIVATE_SYSTEMD:-}" ]] || sandbox_fail "run me under with-systemd.sh --private-run"

bash "$here/bench/machine-units.sh"
sandbox_private_dirs
sandbox_system_bus "$here/data/polkit/com.orvane.tessaryd.policy"
sandbox_app "$here/tests/e2e/app" "$build/src/tessaryd"
mkdir -p /Library/PrivilegedHelperTools /Library/Tessary/Setup "$out/setup"
# The preferences on the disk, as an installation keeps them, where the
# sandbox's /Library is a tmpfs: their writes are flushed to the disk.
mount --bind "$out/setup" /Library/Tessary/Setup
daemon=/Library/PrivilegedHelperTools/com.orvane.tessaryd
cp "$build/src/tessaryd" "$daemon"
touch /var/db/.TessarySetupDone
python3 - "$count" /Library/Tessary/Setup/com.orvane.tessaryd.plist <<'PY'
import plistlib, sys
count, path = int(sys.argv[1]), sys.argv[2]
labels = ["com.example.grown%04d" % i for i in range(count)]
plistlib.dump({
    "dynamicServices": [{"Label": l, "ProgramArguments": ["/bin/sleep", "1000"], "RunAtLoad": True}
                        for l in labels],
    "enabledServices": labels[::10],
}, open(path, "wb"))
PY
ctl_unit=tessary-growth-ctl.service
printf '[Service]\nType=exec\nExecStart=/bin/sleep 1000\n' >"/run/systemd/system/$ctl_unit"
systemctl --user daemon-reload

figures="$out/figures"
: >"$figures"
probe="$build/bench/tessary_daemon_probe"
ctl="$build/tessaryctl"
switched=com.example.grown0001

# The daemon in the background until it answers (the socket of an earlier
# start-up may still be there), and its end, which must find it still running.
start_daemon() {
    "$daemon" 2>/run/tessaryd.log &
    daemon_pid=$!
    for _ in $(seq 200); do
        "$ctl" status >/dev/null 2>&1 && break
        sleep 0.05
    done
}
stop_daemon() {
    kill -0 "$daemon_pid" || sandbox_fail "tessaryd is gone: $(cat /run/tessaryd.log)"
    kill "$daemon_pid"
    wait "$daemon_pid" || true
}

# The soft descriptor limit the service manager gives a service.
ulimit -Sn 1024
"$probe" startup "$daemon" >/dev/null || sandbox_fail "tessaryd did not answer"
for _ in $(seq "$start_runs"); do
    "$probe" startup "$daemon" >>"$figures"
done

start_daemon
for _ in $(seq "$rounds"); do
    "$probe" time switch_tessaryctl "$ctl" enable "$switched" -- "$ctl" disable "$switched"
    "$probe" time switch_systemctl systemctl --user start "$ctl_unit" -- \
        systemctl --user stop "$ctl_unit"
    "$probe" time list_tessaryctl "$ctl" --json list
    "$probe" time list_systemctl systemctl --user list-units --all --output=json
done >>"$figures"

stop_daemon

# The same switch with the preferences in memory, as the booted machine of
# tests/machine keeps them (its root is an overlay on a tmpfs): the figure
# without the flushes to the disk that each write of the preferences makes.
cp -a "$out/setup/." /run/tessary-growth-setup
umount /Library/Tessary/Setup
cp -a /run/tessary-growth-setup/. /Library/Tessary/Setup/
start_daemon
for _ in $(seq "$rounds"); do
    "$probe" time switch_memory_tessaryctl "$ctl" enable "$switched" -- "$ctl" disable "$switched"
    "$probe" time switch_memory_systemctl systemctl --user start "$ctl_unit" -- \
        systemctl --user stop "$ctl_unit"
done >>"$figures"
stop_daemon
sandbox_stop
