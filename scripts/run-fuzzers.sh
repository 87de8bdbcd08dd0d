#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan+UBSan) and runs each for SECONDS
# (default 60) from its seed corpus in fuzz/corpus. New inputs go to a
# scratch corpus, not into the repository; a crash leaves its input in
# build/fuzz/artifacts and fails the run. Each input has a memory and a time
# limit, so an input that makes the decoder build without end is a finding;
# the seeds hold shared references, loops and deep nestings to start from.
#   bash scripts/run-fuzzers.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

artifacts="$PWD/build/fuzz/artifacts"
mkdir -p "$artifacts"
for target in build/fuzz/fuzz/fuzz_*; do
    name="$(basename "$target")"
    seeds="fuzz/corpus/${name#fuzz_}"
    scratch="$(mktemp -d)"
    echo "== $name for ${seconds}s"
    status=0
    "$target" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=30 -print_final_stats=1 \
        -artifact_prefix="$artifacts/$name-" "$scratch" "$seeds" >"$scratch.log" 2>&1 || status=$?
    grep -E '^(stat::number_of_executed_units|Done|==[0-9]+==|SUMMARY)' "$scratch.log" || true
    rm -f "$scratch.log"
    rm -rf "$scratch"
    if [[ "$status" != 0 ]]; then
        echo "$name found a failure; its input is in $artifacts" >&2
        exit 1
    fi
done
