#!/usr/bin/env bash
# The daemon at work, from nothing: installs what it needs, builds, and walks
# through what tessaryd does with the sample app, against a real systemd in a
# private namespace. Prints a transcript; leaves nothing running or mounted.
#   bash scripts/demo.sh        (as root, on Debian 12)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
echo "Building (release)…"
cmake --preset release >/dev/null
cmake --build --preset release --target tessaryd tessaryctl tessary_install tessary_app jobtool \
    syslog_command tessary_login1_standin >/dev/null

exec bash tests/systemd/with-systemd.sh --private-run -- \
    bash scripts/demo-steps.sh "$PWD" "$PWD/build/release"
