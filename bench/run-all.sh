#!/usr/bin/env bash
# Builds what the benchmarks need in the release tree, runs every benchmark
# in one go and prints the speed and memory table: each figure next to its
# baseline measured in the same run, and how each figure grows from 10 to
# 1,000 services. As root (the sandboxes need mount and
# PID namespaces), after scripts/install-deps.sh:
#   bash bench/run-all.sh [build/release]
# The raw results stay in the directory named on the last line.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$here/build/release}" && pwd)"
cmake --build "$build" -j2 --target tessaryd tessaryctl tessary_bench tessary_systemd_bench \
    tessary_daemon_bench tessary_daemon_probe tessary_minimal_resident tessary_bus_time_shim

out="$(mktemp -d /tmp/tessary-bench.XXXXXX)"
mkdir -p "$out/unpinned" "$out/pinned"
json() { echo "--benchmark_out=$out/$1" --benchmark_out_format=json; }

echo "== the supervisor on the service-manager double"
# shellcheck disable=SC2046
"$build/bench/tessary_bench" --benchmark_filter='Sync|StopAll' $(json doubles.json)

echo "== the backend and the supervisor on a real systemd"
# shellcheck disable=SC2046
bash "$here/tests/systemd/with-systemd.sh" bash "$here/bench/machine-units.sh" \
    "$build/bench/tessary_systemd_bench" $(json systemd.json)

echo "== the daemon in the sandbox, unpinned"
bash "$here/tests/systemd/with-systemd.sh" --private-run -- \
    bash "$here/bench/daemon-suite.sh" full "$build" "$out/unpinned"

echo "== the daemon in the sandbox, everything pinned to CPU 0"
taskset -c 0 bash "$here/tests/systemd/with-systemd.sh" --private-run -- \
    bash "$here/bench/daemon-suite.sh" roundtrips "$build" "$out/pinned"

echo "== tessaryctl against systemctl with the three-service app"
mkdir -p "$out/few"
bash "$here/tests/systemd/with-systemd.sh" --private-run -- \
    bash "$here/tests/e2e/daemon-sandbox.sh" "$build/src/tessaryd" "$here/tests/e2e/app" \
    "$here/data/polkit/com.orvane.tessaryd.policy" -- \
    bash "$here/bench/switch-few.sh" "$build" >"$out/few/figures"

echo "== growth: the daemon with 10, 100 and 1,000 services created at run time, pinned to CPU 0"
for count in 10 100 1000; do
    taskset -c 0 bash "$here/tests/systemd/with-systemd.sh" --private-run -- \
        bash "$here/bench/growth-suite.sh" "$count" "$build" "$out/growth/$count"
done

echo
python3 "$here/bench/table.py" "$out"
echo "raw results: $out"
