#!/usr/bin/env bash
# Starts tessaryd in the private sandbox (a real systemd user manager, a
# private system bus with polkitd) with an app holding 100 services, and runs
# the round-trip benchmark against it. As root, after a release build:
#   bash bench/run-daemon-bench.sh [--pinned] [build/release]
# --pinned puts the whole sandbox (daemon, bus, polkitd, client) on CPU 0.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
pin=()
if [[ "${1:-}" == --pinned ]]; then
    pin=(taskset -c 0)
    shift
fi
build="$(cd "${1:-$here/build/release}" && pwd)"
out="$(mktemp -d)"
trap 'rm -rf "$out"' EXIT
"${pin[@]}" bash "$here/tests/systemd/with-systemd.sh" --private-run -- \
    bash "$here/bench/daemon-suite.sh" roundtrips "$build" "$out"
