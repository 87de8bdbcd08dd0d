#!/usr/bin/env bash
# The long runs that CI shortens: each fuzz target for SECONDS (default 600),
# and KILLS (default 100) SIGKILLs of the daemon under load, with
# AddressSanitizer and UndefinedBehaviorSanitizer on. As root, after
# scripts/install-deps.sh:
#   bash scripts/run-long.sh [SECONDS] [KILLS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-600}" kills="${2:-100}"

bash scripts/run-fuzzers.sh "$seconds"

cmake --preset asan >/dev/null
cmake --build --preset asan --target tessaryd tessaryctl tessary_load_client
build=build/asan
sandbox=(bash tests/systemd/with-systemd.sh --private-run -- bash tests/e2e/daemon-sandbox.sh)
app=(tests/e2e/app data/polkit/com.orvane.tessaryd.policy --)

echo "== $kills kills under load, sanitizers on"
"${sandbox[@]}" --as-service "$build/src/tessaryd" "${app[@]}" bash tests/e2e/kill.sh "$build/tests/tessary_load_client" "$kills"
