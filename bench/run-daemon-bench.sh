#!/usr/bin/env bash
# Starts tessaryd in the private sandbox (a real systemd user manager, a
# private system bus with polkitd) with an app holding 100 services, and runs
# the round-trip benchmark against it. As root, after a release build:
#   bash bench/run-daemon-bench.sh [build/release]
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
build="$(cd "${1:-$here/build/release}" && pwd)"
bundle="$(mktemp -d)"
trap 'rm -rf "$bundle"' EXIT
cp -a "$here/tests/e2e/app/." "$bundle/"
python3 - "$bundle" <<'PY'
import plistlib, sys
d = sys.argv[1] + "/Contents/TessaryRoot/System/Library/LaunchDaemons/"
for i in range(98):
    plistlib.dump({"Label": "com.example.bench%02d" % i, "ProgramArguments": ["/bin/sleep", "1000"]},
                  open(d + "com.example.bench%02d.plist" % i, "wb"))
PY
exec bash "$here/tests/systemd/with-systemd.sh" --private-run -- \
    bash "$here/tests/e2e/daemon-sandbox.sh" "$build/src/tessaryd" "$bundle" \
    "$here/data/polkit/com.orvane.tessaryd.policy" -- "$build/bench/tessary_daemon_bench"
