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
# runs until COMMAND ends; what it logs goes to /run/tessaryd.syslog, its
# standard error to /run/tessaryd.log, and
# as a plain child its pid is in TESSARYD_PID.
set -euo pipefail

as_service=0
if [[ "${1:-}" == --as-service ]]; then
    as_service=1
    shift
fi
daemon=$1 bundle=$2 policy=$3
shift 3
[[ "${1:-}" == -- ]] && shift

here="$(cd "$(dirname "$0")" && pwd)"
# shellcheck source=sandbox-lib.sh
source "$here/sandbox-lib.sh"

[[ -n "${TESSARY_PRIVATE_SYSTEMD:-}" ]] || sandbox_fail "run me under with-systemd.sh --private-run"

sandbox_private_dirs
sandbox_system_bus "$policy"
sandbox_syslog /run/tessaryd.syslog
sandbox_app "$bundle" "$daemon"
mkdir -p /Library/PrivilegedHelperTools
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
[Unit]
StartLimitIntervalSec=0
[Service]
ExecStart=/Library/PrivilegedHelperTools/com.orvane.tessaryd
Restart=always
RestartSec=200ms
UNIT
    systemctl --user daemon-reload
    systemctl --user start com.orvane.tessaryd.service || sandbox_fail "cannot start the daemon's unit"
else
    # The soft descriptor limit the service manager gives a service.
    (ulimit -Sn 1024 && exec /Library/PrivilegedHelperTools/com.orvane.tessaryd 2>/run/tessaryd.log) &
    daemon_pid=$!
    export TESSARYD_PID=$daemon_pid
fi
sandbox_wait_for_daemon || sandbox_fail "tessaryd opened no socket: $(cat /run/tessaryd.log 2>/dev/null)"

set +e
"$@"
status=$?
if ((as_service)); then
    systemctl --user stop com.orvane.tessaryd.service 2>/dev/null
else
    daemon_alive || { echo "daemon-sandbox: tessaryd is gone" >&2; status=1; }
    kill "$daemon_pid" 2>/dev/null
fi
sandbox_stop
exit "$status"
