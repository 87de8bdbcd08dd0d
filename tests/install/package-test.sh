#!/usr/bin/env bash
# The Debian package, installed, used and removed with dpkg, without touching
# the machine:
#
#   with-systemd.sh --private-run -- package-test.sh PACKAGE_DIR
#
# Takes the package from PACKAGE_DIR (scripts/build-package.sh made it), then,
# in with-systemd.sh's private mount namespace (a real systemd at the fixed
# addresses, /run private): overlays with throw-away upper layers over /usr, /etc and /var
# (so dpkg's database, its log and every file the package or a trigger
# writes stay in this namespace) and tmpfs mounts over /Applications and
# /Library. Then `dpkg -i` must start the daemon as a unit of that systemd, and
# after a reboot the generator; the daemon must answer tessaryctl and run the
# sample services; a second `dpkg -i` must restart it; `dpkg -r` must leave
# nothing of the daemon, its services or the package behind but the
# preferences, whether the daemon demotes itself or does not answer; and
# `dpkg -P` must take the preferences too.
set -Eeuo pipefail

package_dir=$1

fail() {
    echo "package-test: $*" >&2
    exit 1
}
trap 'fail "line $LINENO: $BASH_COMMAND failed"' ERR

[[ -n "${TESSARY_PRIVATE_SYSTEMD:-}" ]] || fail "run me under with-systemd.sh --private-run"
deb=$(echo "$package_dir"/tessary_*.deb)
[[ -f "$deb" ]] || fail "no package in $package_dir"

work=$(mktemp -d /run/tessary-package.XXXXXX)

for dir in usr etc var; do
    mkdir -p "$work/$dir.upper" "$work/$dir.work"
    mount -t overlay overlay \
        -o "lowerdir=/$dir,upperdir=$work/$dir.upper,workdir=$work/$dir.work" "/$dir" ||
        fail "cannot overlay /$dir"
done
for dir in /Applications /Library; do
    mkdir -p "$dir"
    mount -t tmpfs -o mode=0755 tmpfs "$dir" || fail "cannot mount a tmpfs over $dir"
done
# man-db's trigger would rebuild the manual index for nothing.
rm -f /var/lib/man-db/auto-update

units() {  # the project's units the manager knows
    systemctl --user list-units --all --plain --no-legend 'com.orvane.*' | awk '{print $1}'
}

# The daemon runs as a unit of the manager and answers.
daemon_answers() {
    [[ "$(systemctl --user is-active com.orvane.tessaryd.service)" == active ]] ||
        fail "the daemon's unit is not active: $(systemctl --user status com.orvane.tessaryd.service)"
    # A socket file may be left from the daemon before; it answers once it
    # has started.
    for _ in $(seq 100); do
        tessaryctl status >/dev/null 2>&1 && return
        sleep 0.1
    done
    fail "tessaryctl status failed: $(tessaryctl status 2>&1)"
}

# A reboot: the runtime unit is gone, and the generator makes the daemon's
# unit from the job definition file. The manager here is a user manager: it
# runs user generators and starts nothing for multi-user.target, so the
# generator is linked in as one and the unit started by hand.
reboot() {
    systemctl --user stop com.orvane.tessaryd.service
    rm /run/systemd/system/com.orvane.tessaryd.service
    rm -f /run/tessaryd/com.orvane.tessaryd
    mkdir -p /usr/lib/systemd/user-generators
    ln -sf /usr/lib/systemd/system-generators/tessaryd-generator /usr/lib/systemd/user-generators/
    systemctl --user daemon-reload
    systemctl --user start com.orvane.tessaryd.service || fail "the generator's unit did not start"
    booted_from_generator
}

booted_from_generator() {
    local fragment
    fragment=$(systemctl --user show -P FragmentPath com.orvane.tessaryd.service)
    [[ "$fragment" == "$XDG_RUNTIME_DIR/systemd/generator/com.orvane.tessaryd.service" ]] ||
        fail "the daemon's unit comes from $fragment"
}

# Removed: nothing of the daemon, its services or the package is left but the
# preferences.
remove_cleanly() {
    local left path
    dpkg -r tessary >"$work/remove.log" 2>&1 || fail "dpkg -r failed: $(cat "$work/remove.log")"
    ! grep tessary- "$work/remove.log" || fail "tessary-install complained"
    left=$(units)
    [[ -z "$left" ]] || fail "units left after removal: $left"
    left=$(find /run/systemd/system "$XDG_RUNTIME_DIR/systemd/generator" -name 'com.orvane.*' \
        2>/dev/null || true)
    [[ -z "$left" ]] || fail "unit files left after removal: $left"
    left=$(pgrep -a -f '/Applications/Tessary.app|PrivilegedHelperTools' || true)
    [[ -z "$left" ]] || fail "processes left after removal: $left"
    for path in /Applications/Tessary.app /Library/PrivilegedHelperTools /Library/LaunchDaemons \
        "/Library/Application Support" /usr/bin/tessaryctl /usr/lib/tessary \
        /usr/lib/systemd/system-generators/tessaryd-generator \
        /usr/share/polkit-1/actions/com.orvane.tessaryd.policy /run/tessaryd \
        /run/tessary-echo.sock /run/tessary-heartbeat /run/tessaryadmind-backend.state; do
        [[ ! -e "$path" ]] || fail "$path is left after removal"
    done
    [[ -f /Library/Tessary/Setup/com.orvane.tessaryd.plist ]] ||
        fail "removal took the preferences"
}

# First round: install, boot, use the sample services, remove; the daemon
# demotes itself on the way out.
dpkg -i "$deb" >"$work/install.log" 2>&1 || fail "dpkg -i failed: $(cat "$work/install.log")"
daemon_answers
[[ "$(tessaryctl status | head -n 1)" == unconfigured ]] || fail "tessaryctl status: $(tessaryctl status)"
[[ "$(stat -c %a /Library/PrivilegedHelperTools/com.orvane.tessaryd)" == 755 ]] ||
    fail "the installed daemon's mode"
# At boot the generator makes the very unit that the install submitted.
mkdir "$work/generator"
/usr/lib/systemd/system-generators/tessaryd-generator "$work/generator"
cmp "$work/generator/com.orvane.tessaryd.service" /run/systemd/system/com.orvane.tessaryd.service ||
    fail "the generator's unit differs from the submitted one"
reboot
daemon_answers

for service in com.orvane.tessary.heartbeat com.orvane.tessary.calendar \
    com.orvane.tessary.echo com.orvane.tessaryadmind.backend; do
    tessaryctl enable "$service" || fail "tessaryctl enable $service failed"
done
for unit in com.orvane.tessary.heartbeat.service com.orvane.tessaryadmind.backend.service \
    com.orvane.tessary.calendar.timer com.orvane.tessary.echo.socket; do
    [[ "$(systemctl --user is-active "$unit")" == active ]] || fail "$unit is not active"
    units | grep -qx "$unit" || fail "$unit is not among the units listed"
done
answer=$(python3 -c '
import socket
s = socket.socket(socket.AF_UNIX)
s.settimeout(10)
s.connect("/run/tessary-echo.sock")
s.sendall(b"ping\n")
print(s.makefile().readline(), end="")
') || fail "no answer from the echo service"
[[ "$answer" == "Tessary echo: ping" ]] || fail "the echo service answered: $answer"
for _ in $(seq 50); do
    [[ -s /run/tessary-heartbeat ]] && break
    sleep 0.1
done
[[ -s /run/tessary-heartbeat ]] || fail "no heartbeat"
remove_cleanly

# Second round: install, boot, install again over the running daemon (it is
# restarted from the unit the generator made), then remove while the daemon
# does not answer (its socket gone), so that the removal alone must do it.
dpkg -i "$deb" >"$work/install.log" 2>&1 || fail "dpkg -i failed: $(cat "$work/install.log")"
reboot
daemon_answers
pid=$(systemctl --user show -P MainPID com.orvane.tessaryd.service)
dpkg -i "$deb" >"$work/install.log" 2>&1 || fail "dpkg -i again failed: $(cat "$work/install.log")"
daemon_answers
booted_from_generator
[[ "$(systemctl --user show -P MainPID com.orvane.tessaryd.service)" != "$pid" ]] ||
    fail "the second install did not restart the daemon"
rm /run/tessaryd/com.orvane.tessaryd
remove_cleanly

dpkg -P tessary >"$work/purge.log" 2>&1 || fail "dpkg -P failed: $(cat "$work/purge.log")"
left=$(find /Library -mindepth 1)
[[ -z "$left" ]] || fail "left after purge: $left"
! dpkg -s tessary >/dev/null 2>&1 || fail "dpkg still knows the package"
echo "package-test: installed, used, upgraded, removed and purged cleanly"
