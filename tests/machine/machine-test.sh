#!/usr/bin/env bash
# The Debian package on a booted machine, the way an administrator has it:
# systemd as PID 1 in a throw-away container.
#
#   machine-test.sh SOURCE_DIR BUILD_DIR NEXT_VERSION
#
# Installs the packages that scripts/build-package.sh made in BUILD_DIR/package,
# and makes those of NEXT_VERSION from SOURCE_DIR with the same script in
# BUILD_DIR/machine-next (a changelog entry of their own; built while the
# first steps run; kept, so that a second run only rebuilds what changed).
# Boots this machine's own root, under an
# overlay whose upper layer is a tmpfs, with systemd-nspawn, and then inside,
# checking each step:
#   1. `apt-get install` of the package: the daemon runs as a system unit and
#      answers tessaryctl; the generator makes the very unit the install
#      submitted; the unit carries the package's sandbox (systemd's
#      exposure figure at the goal, the capabilities and read-only paths in
#      effect, a probe under the same settings refused writes elsewhere and
#      sockets that are not Unix ones), and every later step runs under it;
#      with tessary-dbgsym, gdb names the project's functions in a backtrace
#      of the running daemon;
#   2. a sample service enabled runs as its unit; its arguments overridden,
#      a new process runs with them; a dynamic service created runs, and is
#      gone once destroyed; the calendar sample waits on its timer;
#   3. the Tessary page of the Cockpit web console in Chromium, as a user
#      without administrative access and as an administrator with it
#      (browser-test.cjs);
#   4. a promotion; then a reboot: the generator brings the daemon back, and
#      the choices (the services, the override) are kept;
#   5. `apt-get install` of the later package: the daemon restarts on the new
#      executable, and the services stay enabled and running;
#   6. `apt-get remove`: nothing of the project is left but the preferences;
#      installed again, `apt-get purge` while the daemon does not answer: the
#      removal alone takes everything, the preferences too.
# The daemon's journal lines are printed when a step fails.
#
# Everything happens in a private mount and PID namespace, so that no mount
# and no process outlives the script even when it is killed, and in cgroups of
# its own, so that machines of runs side by side keep apart; on its way out it
# stops the machine, unmounts and removes what it made.
#
# Exit status 77 (CTest's "skipped") when not root, or when systemd-nspawn,
# dpkg-buildpackage, gdb or overlays are not there or the machine does not boot.
set -Eeuo pipefail

readonly skip_status=77

skip() {
    echo "machine-test: skipped: $*" >&2
    exit "$skip_status"
}

if [[ -z "${TESSARY_MACHINE_INNER:-}" ]]; then
    [[ "$(id -u)" == 0 ]] || skip "booting a machine needs root"
    command -v systemd-nspawn >/dev/null || skip "no systemd-nspawn (package systemd-container)"
    command -v dpkg-buildpackage >/dev/null || skip "no dpkg-buildpackage (package dpkg-dev)"
    command -v gdb >/dev/null || skip "no gdb"
    exec unshare --mount --pid --fork --kill-child=SIGTERM --mount-proc --propagation private \
        env TESSARY_MACHINE_INNER=1 bash "$0" "$@"
fi

source_dir=$1 build_dir=$2 next_version=$3
package_dir=$build_dir/package
next_build_dir=$build_dir/machine-next

# Inside the machine.
readonly daemon_unit=com.orvane.tessaryd.service
readonly preferences=/Library/Tessary/Setup/com.orvane.tessaryd.plist
readonly installed_daemon=/Library/PrivilegedHelperTools/com.orvane.tessaryd
readonly app_daemon=/Applications/Tessary.app/Contents/Library/LaunchServices/com.orvane.tessaryd
readonly libexec=/Applications/Tessary.app/Contents/TessaryRoot/usr/libexec/tessary
readonly heartbeat=com.orvane.tessary.heartbeat
readonly backend=com.orvane.tessaryadmind.backend
readonly dynamic=com.example.machine.dynamic
readonly files=/root/tessary-machine  # what the test hands the machine
readonly notices=/home/tessdesk/notices  # what the console user's notification server got

work=''
nspawn_pid=''
machine_pid=''
next_build_pid=''

# --- the machine ------------------------------------------------------------

# Runs a command inside the machine, with a plain environment.
machine() {
    nsenter -t "$machine_pid" -m -u -i -n -p -- \
        env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
        DEBIAN_FRONTEND=noninteractive "$@"
}

machine_running() {
    [[ -n "$nspawn_pid" ]] && kill -0 "$nspawn_pid" 2>/dev/null
}

# Runs CONDITION... every 0.1 s until it succeeds or SECONDS have passed.
wait_for() {
    local seconds=$1
    shift
    local tries=$((seconds * 10))
    while ((tries-- > 0)); do
        "$@" && return 0
        sleep 0.1
    done
    return 1
}

system_is_up() {
    local state
    state=$(machine systemctl is-system-running 2>/dev/null) || true
    [[ "$state" == running || "$state" == degraded ]]
}

# Boots the machine over the upper layer as it is; returns non-zero when it
# does not come up.
boot() {
    local tries
    systemd-nspawn -D "$work/root" --register=no --keep-unit --boot --private-network \
        </dev/null >>"$work/console.log" 2>&1 &
    nspawn_pid=$!
    machine_pid=''
    for ((tries = 0; tries < 900; tries++)); do
        machine_running || return 1
        # nspawn's child becomes the machine's PID 1.
        [[ -n "$machine_pid" ]] || machine_pid=$(pgrep -P "$nspawn_pid" -x systemd) || true
        [[ -n "$machine_pid" ]] && system_is_up && return 0
        sleep 0.1
    done
    return 1
}

# `systemctl reboot` inside ends nspawn; the next boot finds what the upper
# layer kept, as a disk would.
reboot_machine() {
    machine systemctl reboot
    wait_for 60 eval '! kill -0 "$nspawn_pid" 2>/dev/null' || fail "the machine did not shut down"
    wait "$nspawn_pid" || true  # nspawn ends with 133 on a reboot
    nspawn_pid=''
    boot || fail "the machine did not boot again: $(tail -n 20 "$work/console.log")"
}

stop_machine() {
    machine_running || return 0
    machine systemctl poweroff >/dev/null 2>&1 || true
    if ! wait_for 60 eval '! kill -0 "$nspawn_pid" 2>/dev/null'; then
        kill -KILL "$nspawn_pid" 2>/dev/null || true
    fi
    wait "$nspawn_pid" 2>/dev/null || true
    nspawn_pid=''
}

teardown() {
    local status=$?
    trap - ERR
    set +e
    if [[ -n "$next_build_pid" ]]; then
        # The build runs in a process group of its own, compilers and all.
        kill -TERM -- "-$next_build_pid" 2>/dev/null
        wait_for 20 eval '! kill -0 -- "-$next_build_pid" 2>/dev/null'
    fi
    stop_machine
    leave_own_cgroup 2>/dev/null
    if [[ -n "$work" ]]; then
        umount -R "$work" || umount -R -l "$work"
        rmdir "$work"
    fi
    umount /run/systemd 2>/dev/null
    exit "$status"
}

# The daemon's lines and the state of the project's units, to see why a step
# failed. With the machine down, its journal is read from the upper layer
# (kept there where the host keeps a persistent journal).
show_journal() {
    echo "--- the daemon's journal:" >&2
    if machine_running; then
        machine journalctl --no-pager -q -t com.orvane.tessaryd >&2
        echo "--- the project's units:" >&2
        machine systemctl --no-pager list-units --all 'com.orvane.*' 'com.example.*' >&2
    elif [[ -n "$work" && -d "$work/root/var/log/journal" ]]; then
        journalctl --no-pager -q -D "$work/root/var/log/journal" -t com.orvane.tessaryd >&2
    fi
}

fail() {
    trap - ERR
    echo "machine-test: $*" >&2
    show_journal || true
    exit 1
}

# --- a cgroup of its own -----------------------------------------------------

# With no systemd on this host, nspawn puts a machine in "payload" (and itself
# in "supervisor") under the cgroup it was started from. Two machines started
# from one cgroup, by two runs side by side, would share those: each machine's
# systemd would count the other's processes as its own units' (a unit that is
# not unloaded after its removal, a cgroup it cannot kill). The run moves into
# a cgroup of its own in each hierarchy systemd uses, and takes it away at the
# end.
own_cgroups=()

enter_own_cgroup() {
    local hierarchy path mount cgroup cgroups name unified=/sys/fs/cgroup/unified
    [[ "$(stat -fc %T /sys/fs/cgroup)" == cgroup2fs ]] && unified=/sys/fs/cgroup
    # One name in every hierarchy: on a hybrid host nspawn takes its path
    # from the unified one and makes the same in the systemd one.
    name=$(mktemp -u tessary-machine.XXXXXXXX)
    # Read whole before the first move: the file changes with it.
    cgroups=$(</proc/self/cgroup)
    while IFS=: read -r _ hierarchy path; do
        case $hierarchy in
        name=systemd) mount=/sys/fs/cgroup/systemd ;;
        '') mount=$unified ;;
        *) continue ;;
        esac
        [[ -w "$mount$path/cgroup.procs" ]] || continue
        cgroup=$mount${path%/}/$name
        mkdir "$cgroup" || continue
        own_cgroups+=("$cgroup")
        echo "$BASHPID" >"$cgroup/cgroup.procs" || continue
    done <<<"$cgroups"
}

# True once every cgroup of the run is gone.
own_cgroups_removed() {
    local cgroup gone=0
    for cgroup in "${own_cgroups[@]}"; do
        [[ ! -d "$cgroup" ]] || find "$cgroup" -depth -type d -exec rmdir {} + 2>/dev/null || gone=1
    done
    return "$gone"
}

# The machine's last processes may take a moment to be reaped (this script
# is their PID 1), and a cgroup goes only once it is empty.
leave_own_cgroup() {
    local cgroup
    for cgroup in "${own_cgroups[@]}"; do
        echo "$BASHPID" >"${cgroup%/*}/cgroup.procs"
    done
    wait_for 10 own_cgroups_removed
}

# --- the packages -----------------------------------------------------------

# The same tree at the later version, so that the daemon in it is a rebuilt
# one that carries another version. Runs in the background: it reports by its
# status alone.
build_next_package() {
    trap - ERR
    bash "$source_dir/scripts/build-package.sh" --next "$next_version" "$next_build_dir"
}

# --- checks inside the machine ----------------------------------------------

unit_state() {
    machine systemctl is-active "$1" 2>/dev/null || true
}

main_pid() {
    machine systemctl show -P MainPID "$1"
}

runs_another_process() {
    local pid
    pid=$(main_pid "$1")
    [[ "$pid" != 0 && "$pid" != "$2" ]]
}

unit_is_active() {
    [[ "$(unit_state "$1")" == active ]]
}

# The command line of a unit's main process, arguments separated by spaces.
command_line() {
    machine bash -c 'tr "\0" " " </proc/$(systemctl show -P MainPID "$1")/cmdline' - "$1"
}

tessaryctl() {
    machine tessaryctl "$@"
}

# The daemon runs as the system manager's unit from UNIT_FILE and answers.
daemon_answers() {
    local unit_file=$1
    wait_for 30 unit_is_active "$daemon_unit" ||
        fail "the daemon's unit is $(unit_state "$daemon_unit")"
    [[ "$(machine systemctl show -P FragmentPath "$daemon_unit")" == "$unit_file" ]] ||
        fail "the daemon's unit comes from $(machine systemctl show -P FragmentPath "$daemon_unit")"
    # A request socket may be left from the daemon before; it answers once it
    # has started.
    wait_for 10 tessaryctl status >/dev/null 2>&1 || fail "tessaryctl status: $(tessaryctl status 2>&1)"
}

setup_status_is() {
    local status
    status=$(tessaryctl status | head -n 1)
    [[ "$status" == "$1" ]] || fail "the set-up status is $status, not $1"
}

# SERVICE is listed as enabled and running, and its unit is active.
service_runs() {
    wait_for 10 unit_is_active "$1.service" || fail "$1.service is $(unit_state "$1.service")"
    tessaryctl list | awk -v service="$1" '$1 == "enabled" && $2 == "running" && $NF == service {
        found = 1 } END { exit !found }' || fail "$1 is not enabled and running: $(tessaryctl list)"
}

heartbeat_runs_with() {
    local expected="/bin/bash $libexec/tessary-heartbeat $*"
    [[ "$(command_line "$heartbeat.service")" == "$expected " ]] ||
        fail "the heartbeat runs as: $(command_line "$heartbeat.service")"
}

preferred_version() {
    machine grep -A1 '<key>version</key>' "$preferences" | sed -n 's:.*<string>\(.*\)</string>.*:\1:p'
}

install_package() {
    local deb=$1 version=$2
    machine apt-get install -y --no-install-recommends "$files/$deb" >"$work/apt.log" 2>&1 ||
        fail "apt-get install $deb failed: $(cat "$work/apt.log")"
    [[ "$(machine dpkg-query -W -f '${Version}' tessary)" == "$version" ]] ||
        fail "tessary $version is not installed"
}

# What the project may have left anywhere it writes, other than the
# preferences; empty when nothing is left.
project_leftovers() {
    machine find /Applications /Library /run /var/db /usr/lib/tessary \
        \( -iname '*tessary*' -o -name 'com.orvane.*' -o -name 'com.example.*' -o -name Orvane \) \
        -not -path /Library/Tessary -not -path /Library/Tessary/Setup -not -path "$preferences" \
        -print 2>/dev/null || true
    machine systemctl list-units --all --plain --no-legend 'com.orvane.*' 'com.example.*'
    machine systemctl list-unit-files --plain --no-legend 'com.orvane.*' 'com.example.*' || true
    machine pgrep -a -f 'Tessary\.app|PrivilegedHelperTools|com\.orvane' || true
    machine grep -E 'tessary|orvane' /proc/net/unix || true
}

# --- the steps --------------------------------------------------------------

# The definition of a service LABEL that sleeps, kept alive.
sleeper_definition() {
    cat <<PLIST
<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0">
<dict>
	<key>Label</key><string>$1</string>
	<key>ProgramArguments</key>
	<array><string>/bin/sleep</string><string>infinity</string></array>
	<key>KeepAlive</key><true/>
</dict>
</plist>
PLIST
}

step_install() {
    install_package "$first_deb" "$first_version"
    daemon_answers "/run/systemd/system/$daemon_unit"
    # At boot the generator makes the very unit that the install submitted.
    machine mkdir -p "$files/generated"
    machine /usr/lib/systemd/system-generators/tessaryd-generator "$files/generated"
    machine cmp "$files/generated/$daemon_unit" "/run/systemd/system/$daemon_unit" ||
        fail "the generator's unit differs from the one the install submitted"
    setup_status_is unconfigured
    [[ "$(preferred_version)" == "$first_version" ]] || fail "the daemon records version $(preferred_version)"
}

# The daemon's backtrace, as gdb reads it from the running process.
daemon_backtrace() {
    machine gdb -batch -p "$(main_pid "$daemon_unit")" -ex bt 2>&1
}

# The daemon is stripped: with tessary-dbgsym installed, a backtrace of the
# running daemon names the project's functions and source lines, and without
# it, none.
step_backtrace() {
    local trace
    machine apt-get install -y --no-install-recommends "$files/$first_dbgsym" >"$work/apt.log" 2>&1 ||
        fail "apt-get install $first_dbgsym failed: $(cat "$work/apt.log")"
    trace=$(daemon_backtrace) || fail "gdb could not read the daemon: $trace"
    grep -q ' in main () at ./src/daemon/main.cpp:' <<<"$trace" ||
        fail "the daemon's backtrace names none of the project's functions: $trace"
    echo "machine-test: the running daemon's backtrace, with tessary-dbgsym:"
    grep '^#' <<<"$trace" | sed 's/^/    /'
    machine apt-get purge -y tessary-dbgsym >"$work/apt.log" 2>&1 ||
        fail "apt-get purge tessary-dbgsym failed: $(cat "$work/apt.log")"
    trace=$(daemon_backtrace) || fail "gdb could not read the daemon: $trace"
    ! grep -q 'src/daemon/main.cpp' <<<"$trace" ||
        fail "the daemon's backtrace has its source lines without tessary-dbgsym: $trace"
}

step_services() {
    local before list
    tessaryctl enable "$heartbeat"
    service_runs "$heartbeat"
    heartbeat_runs_with /run/tessary-heartbeat 5
    wait_for 10 machine test -s /run/tessary-heartbeat || fail "no heartbeat"

    before=$(main_pid "$heartbeat.service")
    tessaryctl program-arguments "$heartbeat" -- "$libexec/tessary-heartbeat" /run/tessary-heartbeat 1 \
        >/dev/null
    wait_for 10 runs_another_process "$heartbeat.service" "$before" ||
        fail "the heartbeat still runs as process $before after its arguments changed"
    service_runs "$heartbeat"
    heartbeat_runs_with /run/tessary-heartbeat 1

    sleeper_definition "$dynamic" >"$work/root$files/dynamic.plist"
    [[ "$(tessaryctl create --file "$files/dynamic.plist")" == "$dynamic" ]] ||
        fail "tessaryctl create did not name $dynamic"
    tessaryctl enable "$dynamic"
    service_runs "$dynamic"
    # A label that can name no unit, stored on demand and switched on, spoils
    # no other service's state.
    sleeper_definition "x y" >"$work/root$files/invalid.plist"
    tessaryctl create --force --file "$files/invalid.plist" >/dev/null 2>&1 &&
        tessaryctl enable "x y" || fail "the label \"x y\" was not created and enabled"
    list=$(tessaryctl --json list)
    [[ "$list" == *"\"$dynamic\":\"running\""* && "$list" == *"\"$heartbeat\":\"running\""* &&
        "$list" == *'"x y":"invalid"'* ]] || fail "the states beside \"x y\": $list"
    tessaryctl destroy "x y" >/dev/null
    tessaryctl destroy "$dynamic" >/dev/null
    [[ "$(machine systemctl show -P LoadState "$dynamic.service")" == not-found ]] ||
        fail "$dynamic.service is still loaded after its destruction"
    ! tessaryctl list | grep -q "$dynamic" || fail "$dynamic is still listed after its destruction"
    tessaryctl enable com.orvane.tessary.calendar
    wait_for 10 unit_is_active com.orvane.tessary.calendar.timer ||
        fail "the calendar's timer is $(unit_state com.orvane.tessary.calendar.timer)"
    tessaryctl disable com.orvane.tessary.calendar
}

# A service LABEL made of the property-list KEYS (XML), created (with the
# OPTIONs of create) and enabled as a service author would.
create_and_enable() {
    local label=$1 keys=$2
    shift 2
    printf '<?xml version="1.0" encoding="UTF-8"?>\n<plist version="1.0"><dict>
<key>Label</key><string>%s</string>%s</dict></plist>\n' "$label" "$keys" >"$work/root$files/$label.plist"
    tessaryctl create "$@" --file "$files/$label.plist" >/dev/null || fail "tessaryctl create $label failed"
    tessaryctl enable "$label" || fail "tessaryctl enable $label failed"
}

program() {
    local args='' a
    for a in "$@"; do
        args+="<string>$a</string>"
    done
    echo "<key>ProgramArguments</key><array>$args</array>"
}

# The job format's keys by their effect under systemd as PID 1.
step_job_format() {
    local pid line
    create_and_enable com.example.watch "$(program /bin/sh -c 'echo run >>/run/tessary-watch.log')
        <key>WatchPaths</key><array><string>/run/tessary-watched</string></array>"
    wait_for 10 unit_is_active com.example.watch.path || fail "the watched path is not watched"
    machine test ! -e /run/tessary-watch.log || fail "a watching job ran before its path changed"
    machine touch /run/tessary-watched
    wait_for 10 machine grep -q run /run/tessary-watch.log || fail "a watched path changed, the job did not run"

    # Each run takes one file; the queue is kept running while it holds any.
    machine mkdir -p /run/tessary-queue /run/tessary-done
    create_and_enable com.example.queue "$(program /bin/sh -c \
        'f=$(ls /run/tessary-queue | head -n 1); mv "/run/tessary-queue/$f" /run/tessary-done/')
        <key>QueueDirectories</key><array><string>/run/tessary-queue</string></array>
        <key>ThrottleInterval</key><integer>1</integer>"
    machine touch /run/tessary-queue/a /run/tessary-queue/b
    wait_for 15 eval '[[ "$(machine ls /run/tessary-done | wc -l)" == 2 ]]' ||
        fail "the queue was not consumed: $(machine ls /run/tessary-queue)"
    unit_is_active com.example.queue.path || fail "the queue's path unit is $(unit_state com.example.queue.path)"

    # Limits, I/O class and a key Linux has no counterpart for.
    create_and_enable com.example.limits "$(program /bin/sleep infinity)
        <key>KeepAlive</key><true/><key>LowPriorityIO</key><true/>
        <key>MachServices</key><dict><key>com.example.limits</key><true/></dict>
        <key>SoftResourceLimits</key><dict><key>NumberOfFiles</key><integer>4096</integer></dict>
        <key>HardResourceLimits</key><dict><key>NumberOfFiles</key><integer>8192</integer></dict>"
    wait_for 10 unit_is_active com.example.limits.service || fail "com.example.limits does not run"
    pid=$(main_pid com.example.limits.service)
    line=$(machine grep 'Max open files' "/proc/$pid/limits")
    [[ "$line" =~ 4096\ +8192 ]] || fail "the limits job runs with: $line"
    [[ "$(machine ionice -p "$pid")" == idle ]] || fail "its I/O class is $(machine ionice -p "$pid")"
    machine journalctl -q -t com.orvane.tessaryd | grep -q 'WARNING: Job com.example.limits: MachServices is ignored' ||
        fail "no warning of the ignored key"

    # inetd's Wait false: a /bin/cat per connection, two at once.
    create_and_enable com.example.cat "$(program /bin/cat)
        <key>inetdCompatibility</key><dict><key>Wait</key><false/></dict>
        <key>Sockets</key><dict><key>Listeners</key><dict>
        <key>SockPathName</key><string>/run/tessary-cat.sock</string></dict></dict>"
    line=$(machine python3 -c 'import socket
clients = [socket.socket(socket.AF_UNIX) for _ in range(2)]
for i, c in enumerate(clients):
    c.connect("/run/tessary-cat.sock"); c.sendall(b"line %d\n" % i)
print(" ".join(c.recv(64).decode().strip() for c in clients))') || fail "no echo from the inetd job"
    [[ "$line" == "line 0 line 1" ]] || fail "the inetd job echoed: $line"

    # A user's job runs as that user; with a path systemd would read otherwise,
    # not at all.
    create_and_enable com.example.user "$(program /usr/bin/id -un)<key>RunAtLoad</key><true/>
        <key>UserName</key><string>nobody</string>
        <key>StandardOutPath</key><string>/run/tessary-user.log</string>"
    wait_for 10 machine grep -qx nobody /run/tessary-user.log || fail "the user's job did not run as nobody"
    # tessaryctl would not send it; forced, the daemon stores it and its
    # backend refuses it.
    create_and_enable com.example.hostile "$(program /usr/bin/id -un)<key>RunAtLoad</key><true/>
        <key>StandardErrorPath</key><string>/run/job\</string>
        <key>UserName</key><string>nobody</string>" --force
    wait_for 10 eval "machine journalctl -q -t com.orvane.tessaryd | grep -q 'com.example.hostile: StandardErrorPath'" ||
        fail "no refusal of the hostile path in the journal"
    [[ "$(machine systemctl show -P LoadState com.example.hostile.service)" == not-found ]] ||
        fail "a job with a hostile path was loaded"

    for line in watch queue limits cat user hostile; do
        tessaryctl destroy "com.example.$line" >/dev/null
    done
    [[ -z "$(machine systemctl list-units --all --plain --no-legend 'com.example.*')" ]] ||
        fail "units are left: $(machine systemctl list-units --all 'com.example.*')"
}

# --- the sandbox ------------------------------------------------------------

readonly sandbox_dropin=/usr/lib/systemd/system/$daemon_unit.d/sandbox.conf
# systemd-analyze's figure times ten: the daemon's unit must not be more
# exposed than 2.0.
readonly exposure_goal=20

# The overall exposure that systemd-analyze gives UNIT (a unit name, or with
# --offline=yes a unit file).
exposure() {
    machine systemd-analyze security --no-pager "$@" 2>/dev/null |
        sed -n 's/.*Overall exposure level for .*: \([0-9.]*\) .*/\1/p'
}

# What a process may do under the drop-in's settings: write in a path of the
# daemon's and elsewhere, open sockets of four families. It runs as a
# transient unit of its own with each setting of the drop-in but the runtime
# directory, which is the daemon's and which the probe's end would remove.
sandbox_probe() {
    local setting settings=()
    while read -r setting; do
        settings+=(--property="$setting")
    done < <(machine grep -E '^[A-Za-z]+=' "$sandbox_dropin" | grep -v '^RuntimeDirectory')
    machine systemd-run --wait --pipe --quiet "${settings[@]}" python3 -c '
import os, socket
for d in ("/Library/Tessary", "/Library", "/etc", "/run"):
    try:
        open(d + "/.sandbox-probe", "w").close()
        os.unlink(d + "/.sandbox-probe")
        print(d, "writable")
    except OSError as e:
        print(d, os.strerror(e.errno))
for family in ("AF_UNIX", "AF_INET", "AF_INET6", "AF_NETLINK"):
    try:
        socket.socket(getattr(socket, family), socket.SOCK_DGRAM).close()
        print(family, "allowed")
    except OSError as e:
        print(family, os.strerror(e.errno))'
}

# The daemon's unit carries the package's sandbox: systemd's assessment is
# at the goal, the running daemon holds only the capabilities granted, and a
# process under the same settings can neither write outside the daemon's
# paths nor open a socket other than a Unix one. Prints the exposure of the
# daemon without and with the sandbox beside systemd's own daemons and
# others of this machine.
step_sandbox() {
    local pid status expected unit figures
    [[ "$(machine systemctl show -P DropInPaths "$daemon_unit")" == "$sandbox_dropin" ]] ||
        fail "the daemon's unit has the drop-ins: $(machine systemctl show -P DropInPaths "$daemon_unit")"
    machine systemd-analyze security --no-pager --threshold="$exposure_goal" "$daemon_unit" \
        >"$work/security.log" 2>&1 ||
        fail "the daemon's unit is more exposed than the goal: $(cat "$work/security.log")"

    [[ "$(machine systemctl show -P CapabilityBoundingSet "$daemon_unit")" == \
        "cap_kill cap_setgid cap_setuid" ]] ||
        fail "the capabilities: $(machine systemctl show -P CapabilityBoundingSet "$daemon_unit")"
    [[ "$(machine systemctl show -P ProtectSystem "$daemon_unit")" == strict &&
        "$(machine systemctl show -P ReadOnlyPaths "$daemon_unit")" == /run ]] ||
        fail "the daemon's file system is not read-only: $(machine systemctl show \
            -p ProtectSystem -p ReadOnlyPaths "$daemon_unit")"
    pid=$(main_pid "$daemon_unit")
    status=$(machine grep -E '^(CapEff|CapBnd|NoNewPrivs|Seccomp):' "/proc/$pid/status" | tr -s '\t' ' ')
    # CAP_KILL, CAP_SETGID, CAP_SETUID: bits 5, 6 and 7.
    expected=$'CapEff: 00000000000000e0\nCapBnd: 00000000000000e0\nNoNewPrivs: 1\nSeccomp: 2'
    [[ "$status" == "$expected" ]] || fail "the running daemon's credentials: $status"

    sandbox_probe >"$work/probe.log" 2>&1 || fail "the sandbox probe did not run: $(cat "$work/probe.log")"
    expected='/Library/Tessary writable
/Library Read-only file system
/etc Read-only file system
/run Read-only file system
AF_UNIX allowed
AF_INET Address family not supported by protocol
AF_INET6 Address family not supported by protocol
AF_NETLINK Address family not supported by protocol'
    [[ "$(cat "$work/probe.log")" == "$expected" ]] ||
        fail "under the sandbox a process may: $(cat "$work/probe.log")"

    machine cp "/run/systemd/system/$daemon_unit" "$files/unsandboxed.service"
    figures="without its sandbox $(exposure --offline=yes "$files/unsandboxed.service")"
    figures+=", with it $(exposure "$daemon_unit")"
    for unit in systemd-timesyncd systemd-networkd systemd-logind systemd-journald cockpit polkit dbus; do
        figures+="; $unit $(exposure "$unit.service")"
    done
    echo "machine-test: exposure of the daemon $figures"
}

# Whatever the sandbox refuses the daemon shows in its journal, as the reason
# of a failed step: through every step that ran, there was none.
step_sandbox_refused_nothing() {
    local refused
    refused=$(machine journalctl --no-pager -q -t com.orvane.tessaryd --grep \
        'Read-only file system|Operation not permitted|Permission denied|Address family not supported' \
        2>/dev/null) || true
    [[ -z "$refused" ]] || fail "the sandbox refused the daemon: $refused"
}

# What bash offers after WORDS... (the last one being completed), with the
# completion the package installs.
completions() {
    machine bash -c 'source /usr/share/bash-completion/bash_completion
        source /usr/share/bash-completion/completions/tessaryctl
        COMP_WORDS=("$@"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
        COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}
        _tessaryctl; printf "%s\n" "${COMPREPLY[@]}"' - "$@"
}

step_completion() {
    [[ "$(completions tessaryctl ena)" == enable ]] ||
        fail "tessaryctl ena completes to: $(completions tessaryctl ena)"
    [[ "$(completions tessaryctl --json disable com.orvane.tessary.he)" == "$heartbeat" ]] ||
        fail "the labels complete to: $(completions tessaryctl --json disable com.orvane.tessary.he)"
}

# The echo service needs no privilege and gets none: started by its socket, it
# answers as the user "nobody".
step_echo_unprivileged() {
    local answer pid
    tessaryctl enable com.orvane.tessary.echo
    answer=$(machine python3 -c 'import socket
s = socket.socket(socket.AF_UNIX)
s.settimeout(10)
s.connect("/run/tessary-echo.sock")
s.sendall(b"ping\n")
print(s.makefile().readline(), end="")') || fail "no answer from the echo service"
    [[ "$answer" == "Tessary echo: ping" ]] || fail "the echo service answered: $answer"
    pid=$(main_pid com.orvane.tessary.echo.service)
    [[ "$pid" != 0 && "$(machine ps -o user= -p "$pid")" == nobody ]] ||
        fail "the echo service runs as $(machine ps -o user= -p "$pid")"
    tessaryctl disable com.orvane.tessary.echo
}

# An administrator who is not root: tessaryctl asks for the password on the
# terminal through polkit, as systemctl does, and the daemon then finds the
# authorization polkit kept. A user who is not an administrator is told so.
step_administrator() {
    machine useradd --create-home --groups sudo --shell /bin/bash tessadmin
    machine bash -c 'echo "tessadmin:correct horse" | chpasswd'
    machine useradd --create-home --shell /bin/bash tessuser
    cp "$source_dir/tests/machine/answer-prompt.py" "$work/root$files/"
    tessaryctl disable "$heartbeat"
    machine python3 "$files/answer-prompt.py" "correct horse" \
        su --login --pty tessadmin --command "tessaryctl enable $heartbeat" >"$work/transcript" 2>&1 ||
        fail "the administrator's enable failed: $(cat "$work/transcript")"
    echo "machine-test: a non-root administrator's first tessaryctl enable:"
    sed 's/^/    /' "$work/transcript"
    grep -q "Password:" "$work/transcript" || fail "no password was asked for"
    service_runs "$heartbeat"
    local refused
    refused=$(machine su --login tessuser --command "tessaryctl --no-ask-password disable $heartbeat" 2>&1) &&
        fail "a user who is not an administrator disabled $heartbeat"
    [[ "$refused" == "tessaryctl: not authorized: run as root or authenticate as an administrator" ]] ||
        fail "the refusal said: $refused"
    service_runs "$heartbeat"
    tessaryctl logs "$heartbeat" | grep -q "$heartbeat.service" ||
        fail "no journal lines for $heartbeat: $(tessaryctl logs "$heartbeat")"
}

# The Tessary page of the Cockpit web console, in Chromium: a user without
# administrative access, then an administrator who takes it and does with the
# page what tessaryctl does. The browser runs on this side in the machine's
# network namespace, where Cockpit listens on the loopback; the screenshots
# stay in the build directory.
step_browser() {
    local shots=$build_dir/machine-screenshots
    [[ -x /usr/bin/chromium ]] || fail "no Chromium (package chromium) for the browser tests"
    [[ -d "$build_dir/web/node_modules/puppeteer-core" ]] ||
        fail "no puppeteer-core in $build_dir/web: configure with TESSARY_BUILD_WEB=ON"
    machine test -f /usr/share/cockpit/tessary/manifest.json || fail "the package has no Cockpit page"
    machine systemctl start cockpit.socket
    machine bash -c 'echo "tessuser:correct horse" | chpasswd'
    sleeper_definition com.example.browser.dynamic >"$work/browser-dynamic.plist"
    rm -rf "$shots"
    nsenter -t "$machine_pid" -n -- env NODE_PATH="$build_dir/web/node_modules" \
        node "$source_dir/tests/machine/browser-test.cjs" "$machine_pid" "$shots" \
        "$work/browser-dynamic.plist" 2>&1 | tee "$work/browser.log" | sed 's/^/machine-test: /'
    ((PIPESTATUS[0] == 0)) || fail "the browser tests failed (screenshots in $shots)"
    setup_status_is configured
    # The arguments as the steps after this one expect them.
    tessaryctl program-arguments "$heartbeat" -- "$libexec/tessary-heartbeat" /run/tessary-heartbeat 1 \
        >/dev/null
    service_runs "$heartbeat"
}

# An installed product older than the oldest the daemon works with: it loads
# no service and watches no sleep, and still answers. The machine then wants
# setting up again: the next start parks the services, and a promotion brings
# them back.
step_incompatible_product() {
    machine cp /etc/tessary/version "$files/version"
    machine bash -c 'echo 4.0 >/etc/tessary/version'
    machine systemctl restart "$daemon_unit"
    daemon_answers "/run/systemd/generator/$daemon_unit"
    ! tessaryctl list | grep -q enabled || fail "an incompatible product loaded services: $(tessaryctl list)"
    # The power watcher is the daemon's sleep delay lock.
    machine systemd-inhibit --list --no-legend | grep -q com.orvane.tessaryd &&
        fail "an incompatible product watches sleep: $(machine systemd-inhibit --list)"
    machine cp "$files/version" /etc/tessary/version
    machine systemctl restart "$daemon_unit"
    daemon_answers "/run/systemd/generator/$daemon_unit"
    setup_status_is updatable
    machine systemd-inhibit --list --no-legend | grep -q com.orvane.tessaryd ||
        fail "the daemon does not watch sleep: $(machine systemd-inhibit --list)"
    tessaryctl promote -- true || fail "the promotion after the incompatible product failed"
    setup_status_is configured
    service_runs "$heartbeat"
}

# A user logged in on the machine's seat, with a notification server on the
# session bus: the console user, to whom the daemon's notices go.
start_desktop_session() {
    local uid
    machine useradd --create-home --shell /bin/bash tessdesk
    uid=$(machine id -u tessdesk)
    machine systemd-run --quiet --unit=tessary-desk --property=PAMName=login \
        --property=User=tessdesk --setenv=XDG_SEAT=seat0 --setenv=XDG_SESSION_TYPE=tty \
        /bin/sleep infinity
    wait_for 10 machine test -S "/run/user/$uid/bus" || fail "no session bus for the console user"
    cp "$TESSARY_NOTIFICATION_STANDIN" "$work/root$files/notification-server"
    machine install -m 0755 "$files/notification-server" /usr/local/bin/tessary-notification-server
    machine systemd-run --quiet --unit=tessary-notifications --uid=tessdesk \
        /usr/local/bin/tessary-notification-server notifications "unix:path=/run/user/$uid/bus" \
        "$notices"
    wait_for 10 machine test -e "$notices.ready" || fail "the notification server did not start"
}

# Waits for a notice with HEADER and MESSAGE, shown with the app's icon.
notice_shown() {
    wait_for 20 machine grep -qxF "$1" "$notices" ||
        fail "no notice \"$1\": $(machine cat "$notices" 2>&1)"
    machine grep -qxF "$2" "$notices" || fail "the notice says: $(machine cat "$notices")"
    machine grep -qxF "/Library/Application Support/Orvane/Tessary/AppIcon.icns" "$notices" ||
        fail "the notice has no icon: $(machine cat "$notices")"
}

# The app replaced by a new copy in one rename: the console user is told, and
# the daemon updates itself from the copy. The update asks for the machine
# to be set up again, which a promotion does.
step_replacement_notice() {
    local before
    before=$(main_pid "$daemon_unit")
    machine cp -a /Applications/Tessary.app /Applications/Tessary.app.new
    machine bash -c "echo >>/Applications/Tessary.app.new/Contents/Library/LaunchServices/com.orvane.tessaryd"
    machine mv /Applications/Tessary.app /Applications/Tessary.app.old
    machine mv /Applications/Tessary.app.new /Applications/Tessary.app
    notice_shown "Tessary app replacement detected." "Tessary was replaced in the Applications \
folder. The services have been stopped, and service data preserved."
    wait_for 30 runs_another_process "$daemon_unit" "$before" || fail "the daemon did not update itself"
    machine cmp "$installed_daemon" "$app_daemon" || fail "the installed daemon is not the new copy"
    machine rm -rf /Applications/Tessary.app.old
    daemon_answers "/run/systemd/generator/$daemon_unit"
    tessaryctl promote -- true || fail "the promotion after the replacement failed"
    setup_status_is configured
    service_runs "$heartbeat"
}

# The app removed: the console user is told, and the daemon uninstalls
# itself before the package goes.
step_removal_notice() {
    machine rm -rf /Applications/Tessary.app
    notice_shown "Tessary app removal detected." "Tessary was removed from the Applications \
folder. The services have been stopped, and service data preserved. Tessary app must be \
re-installed before services can be restarted."
    wait_for 30 eval '! unit_is_active "$daemon_unit"' || fail "the daemon did not uninstall itself"
    machine systemctl stop tessary-notifications.service tessary-desk.service
    # A transient unit's file goes once the unit is unloaded, a failed one
    # only once its failure is reset.
    machine systemctl reset-failed tessary-notifications.service tessary-desk.service 2>/dev/null || true
    wait_for 10 eval '! machine test -e /run/systemd/transient/tessary-notifications.service' ||
        fail "the notification server's unit stays: $(machine systemctl status tessary-notifications.service)"
}

step_promotion_and_reboot() {
    tessaryctl promote -- true || fail "the promotion failed"
    setup_status_is configured
    service_runs "$backend"
    # Linux has no backup set to exclude the marker from: nothing to warn of.
    if machine journalctl --no-pager -q -t com.orvane.tessaryd | grep -F "exclude TessarySetupDone"; then
        fail "a promotion warned of the backup set"
    fi

    reboot_machine
    daemon_answers "/run/systemd/generator/$daemon_unit"
    setup_status_is configured
    service_runs "$backend"
    service_runs "$heartbeat"
    heartbeat_runs_with /run/tessary-heartbeat 1
}

step_upgrade() {
    local before
    before=$(main_pid "$daemon_unit")
    install_package "$next_deb" "$next_version"
    daemon_answers "/run/systemd/generator/$daemon_unit"
    [[ "$(main_pid "$daemon_unit")" != "$before" ]] || fail "the upgrade did not restart the daemon"
    [[ "$(machine readlink "/proc/$(main_pid "$daemon_unit")/exe")" == "$installed_daemon" ]] ||
        fail "the daemon does not run from $installed_daemon"
    machine cmp -s "$installed_daemon" "$app_daemon" ||
        fail "the installed daemon is not the one of the new package"
    # The daemon records its own version at start.
    [[ "$(preferred_version)" == "$next_version" ]] ||
        fail "the running daemon records version $(preferred_version), not $next_version"
    setup_status_is configured
    service_runs "$backend"
    service_runs "$heartbeat"
    heartbeat_runs_with /run/tessary-heartbeat 1
}

step_remove_and_purge() {
    local left package_files conffiles
    # The configuration files (the product's versions) stay until the purge.
    conffiles=$(machine dpkg-query -W -f '${Conffiles}' tessary | awk '{print $1}')
    package_files=$(machine dpkg-query -L tessary | grep -vxF "$conffiles")
    machine apt-get remove -y tessary >"$work/apt.log" 2>&1 ||
        fail "apt-get remove failed: $(cat "$work/apt.log")"
    ! grep tessary- "$work/apt.log" || fail "tessary-install complained"
    # The manager drops units that lost their files on its own schedule.
    wait_for 10 eval '[[ -z "$(project_leftovers)" ]]' || true
    left=$(project_leftovers)
    [[ -z "$left" ]] || fail "left after removal: $left"
    left=$(machine bash -c 'while read -r path; do [[ -d $path || ! -e $path ]] || echo "$path"; done' \
        <<<"$package_files")
    [[ -z "$left" ]] || fail "the package's files left after removal: $left"
    machine test -f "$preferences" || fail "removal took the preferences"

    # Installed again and purged while the daemon does not answer (its
    # request socket gone): the removal alone must take everything.
    install_package "$next_deb" "$next_version"
    daemon_answers "/run/systemd/system/$daemon_unit"
    machine rm /run/tessaryd/com.orvane.tessaryd
    machine apt-get purge -y tessary >"$work/apt.log" 2>&1 ||
        fail "apt-get purge failed: $(cat "$work/apt.log")"
    wait_for 10 eval '[[ -z "$(project_leftovers)" ]]' || true
    left=$(project_leftovers)
    [[ -z "$left" ]] || fail "left after a purge the daemon did not answer: $left"
    ! machine test -e /Library/Tessary || fail "the preferences are left after purge"
    ! machine test -e /etc/tessary || fail "the product's version files are left after purge"
    ! machine dpkg-query -W tessary >/dev/null 2>&1 || fail "dpkg still knows the package"
}

# --- the run ------------------------------------------------------------------

trap teardown EXIT
trap 'exit 143' TERM INT
trap 'fail "line $LINENO: $BASH_COMMAND failed"' ERR
started=$SECONDS

enter_own_cgroup
work=$(mktemp -d /tmp/tessary-machine.XXXXXX)
mount -t tmpfs -o mode=0700 tmpfs "$work"
# nspawn keeps its locks under /run/systemd/nspawn: keep them off the host.
mount -t tmpfs -o mode=0755 tmpfs /run/systemd
mkdir "$work/upper" "$work/overlay" "$work/root"

set -m  # a process group of its own for the build, to end it as a whole
build_next_package >"$work/next-build.log" 2>&1 &
next_build_pid=$!
set +m

mount -t overlay overlay -o "lowerdir=/,upperdir=$work/upper,workdir=$work/overlay" "$work/root" ||
    skip "cannot mount an overlay of / here"
# nspawn refuses the host's machine id; man-db's trigger would rebuild the
# manual index for nothing at every install and removal.
rm -f "$work/root/etc/machine-id" "$work/root/var/lib/man-db/auto-update"
systemd-id128 new >"$work/root/etc/machine-id"
boot || skip "systemd-nspawn cannot boot a machine here: $(tail -n 20 "$work/console.log")"
echo "machine-test: booted in $((SECONDS - started)) s"

mkdir -p "$work/root$files"
cp "$package_dir"/tessary_*.deb "$package_dir"/tessary-dbgsym_*.deb "$work/root$files/" ||
    fail "no packages in $package_dir: scripts/build-package.sh makes them"
first_deb=$(basename "$package_dir"/tessary_*.deb)
first_dbgsym=$(basename "$package_dir"/tessary-dbgsym_*.deb)
first_version=$(dpkg-deb -f "$work/root$files/$first_deb" Version)

step_install
step_sandbox
step_backtrace
step_services
step_job_format
step_completion
step_echo_unprivileged
step_administrator
step_browser
# TESSARY_MACHINE_UNTIL=browser ends the run here, for work on the page.
[[ "${TESSARY_MACHINE_UNTIL:-}" != browser ]] || exit 0
step_promotion_and_reboot
step_incompatible_product
start_desktop_session
step_replacement_notice

wait "$next_build_pid" ||
    fail "the package of version $next_version was not made: $(tail -n 30 "$work/next-build.log")"
next_build_pid=''
cp "$next_build_dir"/tessary_"$next_version"_*.deb "$work/root$files/"
next_deb=$(basename "$next_build_dir"/tessary_"$next_version"_*.deb)
dpkg --compare-versions "$next_version" gt "$first_version" ||
    fail "$next_version is not later than $first_version"
step_upgrade
step_removal_notice
step_sandbox_refused_nothing
step_remove_and_purge

echo "machine-test: installed, used, rebooted, upgraded to $next_version, removed and purged" \
    "in $((SECONDS - started)) s"
