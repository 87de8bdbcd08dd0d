#!/usr/bin/env bash
# Runs COMMAND beside a running tessaryd, in the namespace that with-systemd.sh
# made (private /run, a real systemd at the fixed addresses):
#
#   daemon-sandbox.sh [--as-service] DAEMON BUNDLE_DIR POLICY -- COMMAND [ARG...]
#
# With --as-service the daemon runs as the unit com.orvane.tessaryd.service of
# the private systemd, restarted always, as an installation runs it; else as
# a plain child of this script.
#
# Private tmpfs mounts over /Applications, /Library, /var/db and /etc/tessary;
# a private system bus on /run/dbus/system_bus_socket with polkitd on it, the
# project's polkit action installed and a rule that lets the user "daemon"
# hold it; the app bundle from BUNDLE_DIR at /Applications/Tessary.app with
# DAEMON inside it and installed at /Library/PrivilegedHelperTools. The daemon
# runs until COMMAND ends; its standard error goes to /run/tessaryd.log.
set -euo pipefail

as_service=0
if [[ "${1:-}" == --as-service ]]; then
    as_service=1
    shift
fi
daemon=$1 bundle=$2 policy=$3
shift 3
[[ "${1:-}" == -- ]] && shift

fail() {
    echo "daemon-sandbox: $*" >&2
    exit 70
}

[[ -n "${TESSARY_PRIVATE_SYSTEMD:-}" ]] || fail "run me under with-systemd.sh --private-run"

for dir in /Applications /Library /var/db /etc/tessary; do
    mkdir -p "$dir"
    mount -t tmpfs -o mode=0755 tmpfs "$dir" || fail "cannot mount a tmpfs over $dir"
done

# polkit: the shipped action beside the system's, and a rule for "daemon".
work=/run/tessary-sandbox
mkdir -p "$work/actions" "$work/rules"
cp /usr/share/polkit-1/actions/*.policy "$work/actions/" 2>/dev/null || true
cp "$policy" "$work/actions/"
cat >"$work/rules/50-tessary-test.rules" <<'RULES'
polkit.addRule(function(action, subject) {
    if (action.id == "com.orvane.tessaryd.admin" && subject.user == "daemon") {
        return polkit.Result.YES;
    }
});
RULES
mount --bind "$work/actions" /usr/share/polkit-1/actions
mkdir -p /etc/polkit-1/rules.d
mount --bind "$work/rules" /etc/polkit-1/rules.d

mkdir -p /run/dbus
cat >"$work/system-bus.conf" <<'CONF'
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=/run/dbus/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
CONF
dbus-daemon --config-file="$work/system-bus.conf" --nofork --nopidfile &
bus_pid=$!
for _ in $(seq 100); do
    [[ -S /run/dbus/system_bus_socket ]] && break
    sleep 0.05
done
/usr/lib/polkit-1/polkitd --no-debug >"$work/polkitd.log" 2>&1 &
polkit_pid=$!
for _ in $(seq 100); do
    busctl --address=unix:path=/run/dbus/system_bus_socket list 2>/dev/null |
        grep -q org.freedesktop.PolicyKit1 && break
    sleep 0.05
done
busctl --address=unix:path=/run/dbus/system_bus_socket list 2>/dev/null |
    grep -q org.freedesktop.PolicyKit1 || fail "polkitd did not come up: $(cat "$work/polkitd.log")"

# The app and the installed daemon.
cp -a "$bundle" /Applications/Tessary.app
mkdir -p /Applications/Tessary.app/Contents/Library/LaunchServices /Library/PrivilegedHelperTools
cp "$daemon" /Applications/Tessary.app/Contents/Library/LaunchServices/com.orvane.tessaryd
cp "$daemon" /Library/PrivilegedHelperTools/com.orvane.tessaryd
# A machine that was set up before: start-up parks nothing.
touch /var/db/.TessarySetupDone

daemon_alive() {
    if ((as_service)); then
        [[ "$(systemctl --user is-active com.orvane.tessaryd.service)" == active ]]
    else
        kill -0 "$daemon_pid" 2>/dev/null
    fi
}
if ((as_service)); then
    cat >/run/systemd/system/com.orvane.tessaryd.service <<'UNIT'
[Service]
ExecStart=/Library/PrivilegedHelperTools/com.orvane.tessaryd
Restart=always
RestartSec=200ms
StartLimitIntervalSec=0
UNIT
    systemctl --user daemon-reload
    systemctl --user start com.orvane.tessaryd.service || fail "cannot start the daemon's unit"
else
    /Library/PrivilegedHelperTools/com.orvane.tessaryd 2>/run/tessaryd.log &
    daemon_pid=$!
fi
for _ in $(seq 200); do
    [[ -S /run/com.orvane.tessaryd ]] && break
    daemon_alive || fail "tessaryd ended at start: $(cat /run/tessaryd.log 2>/dev/null)"
    sleep 0.05
done
[[ -S /run/com.orvane.tessaryd ]] || fail "tessaryd opened no socket"

set +e
"$@"
status=$?
if ((as_service)); then
    systemctl --user stop com.orvane.tessaryd.service 2>/dev/null
else
    daemon_alive || { echo "daemon-sandbox: tessaryd is gone" >&2; status=1; }
    kill "$daemon_pid" 2>/dev/null
fi
kill "$polkit_pid" "$bus_pid" 2>/dev/null
wait 2>/dev/null
exit "$status"
