#!/usr/bin/env bash
# The demo's walk-through; scripts/demo.sh runs it inside the namespace that
# tests/systemd/with-systemd.sh makes (private /run, a real systemd user
# manager at the system manager's addresses).
set -uo pipefail
source_dir=$1 build=$2
# shellcheck source=../tests/e2e/sandbox-lib.sh
source "$source_dir/tests/e2e/sandbox-lib.sh"

log=/run/tessary-demo.log
shown=0
bold=$'\e[1m' dim=$'\e[2m' plain=$'\e[0m'
[[ -t 1 ]] || bold='' dim='' plain=''

step() { printf '\n%s== %s%s\n' "$bold" "$*" "$plain"; }
say() { printf '%s\n' "$*"; }
# Runs a command and shows it with its output.
show() {
    printf '%s$ %s%s\n' "$dim" "$*" "$plain"
    "$@" 2>&1 | sed 's/^/  /'
}
# The daemon's log lines written since the last call.
daemon_log() {
    local total
    sleep "${1:-0.3}"
    total=$(wc -l <"$log")
    if ((total > shown)); then
        printf '%s  system log:%s\n' "$dim" "$plain"
        sed -n "$((shown + 1)),${total}p" "$log" |
            sed 's/^/    /'
    fi
    shown=$total
}
unit_state() { systemctl --user is-active "$1.service" 2>/dev/null; }
wait_until() {  # SECONDS CONDITION...
    local limit=$(($1 * 20))
    shift
    for _ in $(seq "$limit"); do
        "$@" && return 0
        sleep 0.05
    done
    return 1
}
tessaryctl() { "$build/tessaryctl" "$@"; }

step "Setting up the sandbox"
sandbox_private_dirs
sandbox_overlay_usr
sandbox_syslog "$log"
sandbox_system_bus "$source_dir/data/polkit/com.orvane.tessaryd.policy"
"$build/tests/tessary_login1_standin" unix:path=/run/dbus/system_bus_socket &
SANDBOX_PIDS+=($!)
sandbox_wait_for_name org.freedesktop.login1 || sandbox_fail "no logind stand-in"
mkdir -p /usr/lib/tessary/bin
cp "$build/jobtool" "$build/syslog" /usr/lib/tessary/bin/
cp -a "$build/Tessary.app" /Applications/Tessary.app
say "A private /run, /Applications, /Library, /var/db and /usr layer; systemd $(systemctl --version | head -1 | cut -d' ' -f2) as the service manager; polkitd and a logind stand-in on a private system bus."
show ls /Applications/Tessary.app/Contents/TessaryRoot/System/Library/LaunchDaemons

step "Installing the daemon, as the app does"
show "$build/tessary-install"
wait_until 10 sandbox_wait_for_daemon || sandbox_fail "the daemon did not start"
show systemctl --user --no-pager --lines=0 status com.orvane.tessaryd.service
daemon_log 0.5

step "Asking for the setup status (open to every user)"
show tessaryctl status
step "Listing the services"
show tessaryctl list

step "Enabling the KeepAlive heartbeat service"
show tessaryctl enable com.orvane.tessary.heartbeat
wait_until 10 test -s /run/tessary-heartbeat
show systemctl --user --no-pager --lines=0 status com.orvane.tessary.heartbeat.service
show cat /run/tessary-heartbeat
pid=$(systemctl --user show -p MainPID --value com.orvane.tessary.heartbeat.service)
say "Killing its process ($pid): systemd brings it back, as KeepAlive asks."
kill -9 "$pid"
wait_until 10 bash -c "[[ \$(systemctl --user show -p MainPID --value com.orvane.tessary.heartbeat.service) \
    != $pid && \$(systemctl --user is-active com.orvane.tessary.heartbeat.service) == active ]]"
show systemctl --user show -p MainPID -p NRestarts com.orvane.tessary.heartbeat.service
daemon_log

step "The socket-activated echo service"
show tessaryctl enable com.orvane.tessary.echo
ask_echo() {
    python3 -c 'import socket,sys; s=socket.socket(socket.AF_UNIX); s.connect("/run/tessary-echo.sock"); s.sendall(sys.argv[1].encode()+b"\n"); print(s.makefile().readline().rstrip())' "$1"
}
say "Nothing runs until a client connects: $(unit_state com.orvane.tessary.echo)"
show ask_echo "hello"
say "After the connection the service is $(unit_state com.orvane.tessary.echo)."

step "Overriding the echo service's arguments (the loaded job is reloaded)"
show tessaryctl program-arguments com.orvane.tessary.echo
show tessaryctl program-arguments com.orvane.tessary.echo -- \
    /Applications/Tessary.app/Contents/TessaryRoot/usr/libexec/tessary/tessary-echo "Overridden echo"
show ask_echo "hello again"
show tessaryctl reset com.orvane.tessary.echo
show tessaryctl program-arguments com.orvane.tessary.echo
daemon_log

step "Creating and destroying a service at run time"
cat >/run/demo-dynamic.plist <<'PLIST'
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
    <key>Label</key><string>com.example.dynamic</string>
    <key>ProgramArguments</key>
    <array><string>/bin/sh</string><string>-c</string><string>echo "made at run time" > /run/demo-dynamic.out; exec sleep 1000</string></array>
    <key>RunAtLoad</key><true/>
    <key>UnloadOnSleep</key><true/>
</dict>
</plist>
PLIST
show tessaryctl create --file /run/demo-dynamic.plist
show tessaryctl enable com.example.dynamic
wait_until 10 test -s /run/demo-dynamic.out
show cat /run/demo-dynamic.out
say "The service unloads on sleep; keep it for the sleep below."
daemon_log

step "A sleep and a wake"
say "logind announces the sleep; the daemon stops the services that unload on sleep before it lets the machine go, and starts them again after the wake."
before=$(systemctl --user show -p MainPID --value com.example.dynamic.service)
show busctl --address=unix:path=/run/dbus/system_bus_socket call org.freedesktop.login1 \
    /org/freedesktop/login1 org.freedesktop.login1.Manager Suspend b false
wait_until 10 bash -c "[[ \$(systemctl --user show -p MainPID --value com.example.dynamic.service) != $before ]]"
say "The dynamic service's process: $before before the sleep, $(systemctl --user show -p MainPID --value com.example.dynamic.service) after the wake."
daemon_log 0.5
show tessaryctl destroy com.example.dynamic
show tessaryctl list
daemon_log

step "A promotion: the app sets the machine up"
show tessaryctl promote -- sh -c 'echo "  (the app configures the machine…)"; sleep 1'
show tessaryctl status
show ls -la /var/db/.TessarySetupDone
daemon_log

step "The app is replaced by a new copy"
old_pid=$(systemctl --user show -p MainPID --value com.orvane.tessaryd.service)
cp -a /Applications/Tessary.app /Applications/Tessary.app.new
printf '\n' >>/Applications/Tessary.app.new/Contents/Library/LaunchServices/com.orvane.tessaryd
mv /Applications/Tessary.app /run/Tessary.app.old
mv /Applications/Tessary.app.new /Applications/Tessary.app
say "The daemon stops the services, updates its own executable from the new app and exits; systemd starts the new one (after the job's ten-second restart delay)."
answering() {
    local pid
    pid=$(systemctl --user show -p MainPID --value com.orvane.tessaryd.service)
    [[ "$pid" != 0 && "$pid" != "$old_pid" ]] && "$build/tessaryctl" --timeout 1 status >/dev/null 2>&1
}
wait_until 40 answering || say "(the new daemon did not answer in time)"
say "Daemon process: $old_pid before, $(systemctl --user show -p MainPID --value com.orvane.tessaryd.service) now."
say "After an update the enabled services are parked until the app promotes the machine again:"
show tessaryctl status
daemon_log 0.5

step "The app is removed"
show rm -rf /Applications/Tessary.app
say "The daemon waits five seconds for a copy to come back, then uninstalls itself."
wait_until 30 bash -c '[[ ! -e /Library/PrivilegedHelperTools/com.orvane.tessaryd ]]'
wait_until 20 bash -c '[[ $(systemctl --user is-active com.orvane.tessaryd.service) != active ]]'
show ls -la /Library/PrivilegedHelperTools /Library/LaunchDaemons
say "Units left: $(systemctl --user list-units --all --no-legend 'com.orvane*' | wc -l)"
daemon_log 1

step "Done"
say "Stopping the sandbox; its mounts and processes go with it."
sandbox_stop
exit 0
