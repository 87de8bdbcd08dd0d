#!/usr/bin/env bash
# The daemon's figures, inside the namespace that
# tests/systemd/with-systemd.sh --private-run makes:
#
#   daemon-suite.sh roundtrips|full BUILD OUT
#
# Builds the sandbox of tests/e2e/sandbox-lib.sh (system bus, polkitd, real
# systemd) with an app of 100 services, all off, com.example.bench00 being
# RunAtLoad, and a unit tessary-bench-ctl.service running the same command
# for systemctl. `full` first times five start-ups of the daemon (exec to the
# first "status" answered) without and five with the sd-bus timer preloaded.
# Then the daemon runs and tessary_daemon_bench measures against it
# (OUT/daemon.json). `full` also reads the daemon's VmRSS idle, after the
# benchmark, and after 10,000 and 100,000 requests, with the floor of
# tessary_minimal_resident beside it. Every figure but the benchmark's goes
# to OUT/figures as "name value" lines.
set -euo pipefail
mode=$1 build=$2 out=$3
here="$(cd "$(dirname "$0")/.." && pwd)"
# shellcheck source=../tests/e2e/sandbox-lib.sh
source "$here/tests/e2e/sandbox-lib.sh"
[[ -n "${TESSARY_PRIVATE_SYSTEMD:-}" ]] || sandbox_fail "run me under with-systemd.sh --private-run"

bundle=/run/tessary-bench-app
mkdir -p "$bundle"
cp -a "$here/tests/e2e/app/." "$bundle/"
python3 - "$bundle" <<'PY'
import os, plistlib, sys
d = sys.argv[1] + "/Contents/TessaryRoot/System/Library/LaunchDaemons/"
extra = 100 - len(os.listdir(d))
for i in range(extra):
    job = {"Label": "com.example.bench%02d" % i, "ProgramArguments": ["/bin/sleep", "1000"]}
    if i == 0:
        job["RunAtLoad"] = True
    plistlib.dump(job, open(d + "com.example.bench%02d.plist" % i, "wb"))
PY

sandbox_private_dirs
sandbox_system_bus "$here/data/polkit/com.orvane.tessaryd.policy"
sandbox_app "$bundle" "$build/src/tessaryd"
mkdir -p /Library/PrivilegedHelperTools
daemon=/Library/PrivilegedHelperTools/com.orvane.tessaryd
cp "$build/src/tessaryd" "$daemon"
touch /var/db/.TessarySetupDone
printf '[Service]\nType=exec\nExecStart=/bin/sleep 1000\n' \
    >/run/systemd/system/tessary-bench-ctl.service
systemctl --user daemon-reload

figures="$out/figures"
: >"$figures"
probe="$build/bench/tessary_daemon_probe"
rss() { awk '/^VmRSS:/ { print $2 }' "/proc/$1/status"; }

if [[ "$mode" == full ]]; then
    for _ in 1 2 3 4 5; do
        "$probe" startup "$daemon" >>"$figures"
    done
    times=/run/tessary-bus-times
    for _ in 1 2 3 4 5; do
        rm -f "$times"
        start="$(TESSARY_BUS_TIMES=$times LD_PRELOAD="$build/bench/libtessary_bus_time_shim.so" \
            "$probe" startup "$daemon")"
        read -r calls ns connects _ _ <"$times"
        echo "timed_${start}" >>"$figures"
        echo "timed_manager_us $((ns / 1000))" >>"$figures"
        echo "timed_manager_calls $calls" >>"$figures"
        echo "timed_manager_connects $connects" >>"$figures"
    done
fi

"$daemon" 2>/run/tessaryd.log &
daemon_pid=$!
sandbox_wait_for_daemon || sandbox_fail "tessaryd opened no socket: $(cat /run/tessaryd.log)"

if [[ "$mode" == full ]]; then
    sleep 1
    echo "rss_idle_kb $(rss "$daemon_pid")" >>"$figures"
    "$build/bench/tessary_minimal_resident" &
    minimal_pid=$!
    sleep 1
    echo "rss_minimal_kb $(rss "$minimal_pid")" >>"$figures"
    kill "$minimal_pid"
fi

# TESSARY_BENCH_FILTER, when set, picks the benchmarks to run (a regular
# expression, as --benchmark_filter takes it).
TESSARYCTL="$build/tessaryctl" "$build/bench/tessary_daemon_bench" \
    ${TESSARY_BENCH_FILTER:+--benchmark_filter="$TESSARY_BENCH_FILTER"} \
    --benchmark_out="$out/daemon.json" --benchmark_out_format=json

if [[ "$mode" == full ]]; then
    echo "rss_after_bench_kb $(rss "$daemon_pid")" >>"$figures"
    "$probe" load 10000
    echo "rss_10k_kb $(rss "$daemon_pid")" >>"$figures"
    "$probe" load 90000
    echo "rss_100k_kb $(rss "$daemon_pid")" >>"$figures"
fi

kill -0 "$daemon_pid" || sandbox_fail "tessaryd is gone: $(cat /run/tessaryd.log)"
kill "$daemon_pid"
sandbox_stop
