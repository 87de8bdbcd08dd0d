#!/usr/bin/env bash
# Gives the private manager of tests/systemd/with-systemd.sh as many units of
# its own as a booted machine's manager holds, then runs COMMAND, if any:
#
#   machine-units.sh [COMMAND [ARG...]]
#
# The booted machine of tests/machine (Debian 12 with this host's packages)
# holds 85 service and socket units and 168 units in all; the private manager
# starts with 11 and 27. Every pass of the daemon lists the services and
# sockets the manager holds, and "list-units" lists all, so a bare manager
# would make the figures at 10 services smaller than any machine's. The units
# made here are services that ran once and stay active, and targets, loaded
# from the manager's configuration directory, never the backend's.
set -euo pipefail
want_services=85 want_all=168
count() { systemctl --user list-units --all --no-legend "$@" | wc -l; }
services=$((want_services - $(count --type=service,socket)))
others=$((want_all - $(count) - services))
dir="$XDG_CONFIG_HOME/systemd/user"
mkdir -p "$dir"
units=()
for ((i = 0; i < services; i++)); do
    printf '[Service]\nType=oneshot\nRemainAfterExit=yes\nExecStart=/bin/true\n' \
        >"$dir/tessary-machine-$i.service"
    units+=("tessary-machine-$i.service")
done
for ((i = 0; i < others; i++)); do
    printf '[Unit]\nDescription=A unit of the machine\n' >"$dir/tessary-machine-$i.target"
    units+=("tessary-machine-$i.target")
done
systemctl --user daemon-reload
systemctl --user start "${units[@]}"
(($#)) || exit 0
exec "$@"
