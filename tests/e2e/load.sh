#!/usr/bin/env bash
# Sixteen clients, 5,000 mixed requests each, against the daemon that
# daemon-sandbox.sh runs: every request answered, the daemon alive, and its
# resident memory no larger after the run than after a warm-up of the same
# mix (a leak of even a few bytes per request would show as megabytes).
#
#   load.sh LOAD_CLIENT [CLIENTS REQUESTS]
set -euo pipefail
client=$1 clients=${2:-16} requests=${3:-5000}
pid=${TESSARYD_PID:?run me under daemon-sandbox.sh}

rss() { awk '/^VmRSS:/ {print $2}' "/proc/$pid/status"; }

"$client" "$clients" 500
before=$(rss)
"$client" "$clients" "$requests"
after=$(rss)
kill -0 "$pid"
echo "load: resident memory ${before} kB after the warm-up, ${after} kB after $((clients * requests)) requests"

# AddressSanitizer holds freed memory back on purpose: there the figure is
# only reported. Elsewhere allocators keep some slack, but growth beyond
# 1 MB is not slack.
if grep -q libasan "/proc/$pid/maps"; then
    exit 0
fi
if ((after - before > 1024)); then
    echo "load: the daemon grew by $((after - before)) kB" >&2
    exit 1
fi
