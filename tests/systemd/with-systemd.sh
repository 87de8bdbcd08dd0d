#!/usr/bin/env bash
# Runs one command beside a real systemd, reachable at the system manager's
# fixed addresses, without touching the machine's own /run/systemd.
#
#   with-systemd.sh [--private-run] [--] COMMAND [ARG...]
#
# Inside a private mount and PID namespace: a tmpfs over /run/systemd (and,
# with --private-run or TESSARY_PRIVATE_RUN=1, a tmpfs over /run first), a
# `systemd --user` manager with its own runtime directory, and that manager's
# private socket and runtime unit directory bind-mounted onto
# /run/systemd/private and /run/systemd/system (and its generator directory
# linked at /run/systemd/generator). COMMAND runs once the manager
# is up, with XDG_RUNTIME_DIR and XDG_CONFIG_HOME pointing at the manager's, so
# `systemctl --user` talks to it too. Whatever happens to COMMAND, the manager
# is stopped and every process it started is killed before the script exits
# with COMMAND's status; killing the script tears the namespace down with
# everything in it.
#
# Exit status 77 (CTest's "skipped") when not run as root.
set -uo pipefail

readonly skip_status=77
systemd_binary="${TESSARY_SYSTEMD_BINARY:-/usr/lib/systemd/systemd}"

if [[ -z "${TESSARY_WITH_SYSTEMD_INNER:-}" ]]; then
    if [[ "$(id -u)" != 0 ]]; then
        echo "with-systemd: skipped: a private systemd needs root (mount and PID namespaces)" >&2
        exit "$skip_status"
    fi
    if [[ ! -x "$systemd_binary" ]]; then
        echo "with-systemd: skipped: no systemd at $systemd_binary" >&2
        exit "$skip_status"
    fi
    # SIGTERM rather than SIGKILL when unshare itself dies, so that the inner
    # shell still stops the manager and removes its cgroups.
    exec unshare --mount --pid --fork --kill-child=SIGTERM --mount-proc --propagation private \
        env TESSARY_WITH_SYSTEMD_INNER=1 bash "$0" "$@"
fi

# From here on this shell is PID 1 of the new PID namespace: when it exits,
# the kernel kills whatever is left in the namespace.

private_run="${TESSARY_PRIVATE_RUN:-0}"
while (($#)); do
    case "$1" in
    --private-run) private_run=1 ;;
    --) shift; break ;;
    -*) echo "with-systemd: unknown option $1" >&2; exit 64 ;;
    *) break ;;
    esac
    shift
done
if ((!$#)); then
    echo "usage: with-systemd.sh [--private-run] [--] COMMAND [ARG...]" >&2
    exit 64
fi

fail() {
    echo "with-systemd: $*" >&2
    exit 70
}

if [[ "$private_run" == 1 ]]; then
    mount -t tmpfs -o mode=0755 tmpfs /run || fail "cannot mount a tmpfs over /run"
fi
mkdir -p /run/systemd || fail "cannot make /run/systemd"
mount -t tmpfs -o mode=0755 tmpfs /run/systemd || fail "cannot mount a tmpfs over /run/systemd"
# A user manager refuses to start unless this exists.
mkdir -p /run/systemd/system

runtime=/run/systemd/test-user-manager
mkdir -p -m 0700 "$runtime"
# The user manager loads runtime units from $XDG_RUNTIME_DIR/systemd/user; it
# must exist before the manager starts or the manager never watches it.
mkdir -p "$runtime/systemd/user" "$runtime/config"
export XDG_RUNTIME_DIR="$runtime"
export XDG_CONFIG_HOME="$runtime/config"
# Tells tests that the manager at the fixed addresses is this private one.
export TESSARY_PRIVATE_SYSTEMD=1
manager_log="$runtime/manager.log"
# The manager and the processes it starts write what they log to
# /dev/console; inside this namespace the console is this file.
: >"$manager_log"
if [[ -e /dev/console ]]; then
    mount --bind "$manager_log" /dev/console || fail "cannot redirect /dev/console"
fi

# The manager takes the cgroup it starts in as its own root and moves every
# process it finds there into init.scope. Started in the caller's cgroup it
# would sweep up unrelated processes (in a container: all of them), so it gets
# a fresh child cgroup of its own, in the hierarchy it tracks processes with
# (name=systemd on a hybrid machine) and in the unified one.
cgroup_name="tessary-systemd-$(tr -d '-' </proc/sys/kernel/random/uuid)"
declare -a cgroup_mounts=()
declare -a manager_cgroups=()
cgroup_path_for() {  # hierarchy key ("name=systemd" or "" for unified)
    local id controllers path
    while IFS=: read -r id controllers path; do
        if [[ "$controllers" == "$1" ]]; then
            printf '%s\n' "$path"
            return 0
        fi
    done </proc/self/cgroup
    return 1
}
while read -r _ _ _ _ mount_point _ rest; do
    fstype=" $rest"
    fstype="${fstype#* - }"
    fstype="${fstype%% *}"
    case "$fstype" in
    cgroup | cgroup2) cgroup_mounts+=("$mount_point") ;;
    *) continue ;;
    esac
    if [[ "$fstype" == cgroup2 ]]; then
        path="$(cgroup_path_for "")" || continue
    elif [[ "$rest" == *name=systemd* ]]; then
        path="$(cgroup_path_for "name=systemd")" || continue
    else
        continue
    fi
    dir="${mount_point}${path%/}/$cgroup_name"
    mkdir "$dir" || fail "cannot make cgroup $dir"
    manager_cgroups+=("$dir")
done </proc/self/mountinfo
((${#manager_cgroups[@]})) || fail "no cgroup hierarchy to put the manager in"
tracking_path="$(cgroup_path_for "name=systemd" || cgroup_path_for "")"
unified_path="$(cgroup_path_for "" || true)"

# This run's cgroup directories ("own"), or those of runs killed outright
# ("stale": old enough not to belong to a run that is only starting).
cgroup_dirs() {
    local mount_point rel
    for mount_point in "${cgroup_mounts[@]}"; do
        for rel in "$tracking_path" "$unified_path"; do
            if [[ "$1" == stale ]]; then
                find "${mount_point}${rel%/}" -mindepth 1 -maxdepth 1 -type d \
                    -name 'tessary-systemd-*' -mmin +10 2>/dev/null
            elif [[ -d "${mount_point}${rel%/}/$cgroup_name" ]]; then
                echo "${mount_point}${rel%/}/$cgroup_name"
            fi
        done
    done | sort -u
}
# Removes whole cgroup trees; rmdir refuses any that still has processes.
remove_cgroup_trees() {
    local dir
    while read -r dir; do
        find "$dir" -depth -type d -exec rmdir {} + 2>/dev/null
    done
}
cgroup_dirs stale | remove_cgroup_trees

manager_pid=
command_pid=
cleaned=0

# Every process still in the manager's cgroups.
cgroup_pids() {
    local dir
    for dir in "${manager_cgroups[@]}"; do
        [[ -d "$dir" ]] && find "$dir" -name cgroup.procs -exec cat {} + 2>/dev/null
    done | sort -u
}

cleanup() {
    ((cleaned)) && return
    cleaned=1
    # A second signal (unshare passes one on when it dies) must not cut the
    # clean-up short.
    trap '' TERM INT HUP
    # SIGTERM first (for the manager: stop all units and exit), SIGKILL
    # after ten seconds.
    local pid
    for pid in "$command_pid" "$manager_pid"; do
        [[ -n "$pid" ]] && kill -0 "$pid" 2>/dev/null || continue
        kill -TERM "$pid" 2>/dev/null
        for _ in $(seq 200); do
            kill -0 "$pid" 2>/dev/null || break
            sleep 0.05
        done
        kill -KILL "$pid" 2>/dev/null
        wait "$pid" 2>/dev/null
    done
    local pids round
    for round in $(seq 50); do
        pids="$(cgroup_pids)"
        [[ -z "$pids" ]] && break
        # shellcheck disable=SC2086
        kill -KILL $pids 2>/dev/null
        sleep 0.02
    done
    # The manager made the same relative path in every hierarchy it uses. A
    # process that died a moment ago can hold its cgroup until it is reaped
    # (orphans are reaped by this shell), hence the retries.
    for round in $(seq 40); do
        cgroup_dirs own | remove_cgroup_trees
        [[ -z "$(cgroup_dirs own)" ]] && break
        sleep 0.05
    done
    for dir in "${manager_cgroups[@]}"; do
        [[ -d "$dir" ]] && echo "with-systemd: could not remove cgroup $dir" >&2
    done
}

on_signal() {
    cleanup
    exit 143
}
trap on_signal TERM INT HUP
trap cleanup EXIT

(
    for dir in "${manager_cgroups[@]}"; do
        echo "$BASHPID" >"$dir/cgroup.procs" || exit 70
    done
    exec "$systemd_binary" --user --log-target=console --log-level=info --log-color=no
) >"$manager_log" 2>&1 </dev/null &
manager_pid=$!

for _ in $(seq 200); do
    [[ -S "$runtime/systemd/private" ]] && break
    kill -0 "$manager_pid" 2>/dev/null || break
    sleep 0.05
done
state="$(timeout 30 systemctl --user is-system-running --wait 2>&1)"
if [[ "$state" != running && "$state" != degraded ]]; then
    echo "with-systemd: the user manager did not come up (state: $state); its log:" >&2
    tail -n 40 "$manager_log" >&2
    exit 70
fi

# The production addresses: the system manager's private socket and its
# runtime unit directory.
touch /run/systemd/private
mount --bind "$runtime/systemd/private" /run/systemd/private || fail "cannot bind the socket"
mount --bind "$runtime/systemd/user" /run/systemd/system || fail "cannot bind the unit directory"
# Where the generators write, which the manager makes anew each time it runs
# them: a link, which follows it, where a bind mount would keep the old one.
ln -s "$runtime/systemd/generator" /run/systemd/generator || fail "cannot link the generator directory"

# In the background so that a signal to this shell is handled at once; stdin
# is passed on explicitly because a background job would get /dev/null.
"$@" <&0 &
command_pid=$!
wait "$command_pid"
status=$?
command_pid=

if ((status != 0)) && [[ "$status" != "$skip_status" && -s "$manager_log" ]]; then
    echo "with-systemd: command exited with $status; the manager's console ends:" >&2
    tail -n 30 "$manager_log" >&2
fi
cleanup
exit "$status"
