#!/usr/bin/env bash
# Two builds of one tree give the same packages, byte for byte:
#
#   reproducible-test.sh PACKAGE_DIR
#
# PACKAGE_DIR holds what scripts/build-package.sh made there (the package
# tier's packages). This builds them again from nothing, later, in another
# directory, with the tree's files at the time of the copy (as a new checkout
# has them), another umask and another time zone, and compares every .deb.
# On a difference diffoscope, where installed, shows where it is.
set -euo pipefail

first=$(cd "$1" && pwd)
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
again=$(mktemp -d /tmp/tessary-reproducible.XXXXXX)
trap 'rm -rf "$again"' EXIT

if ! (umask 0002 && TZ=Pacific/Kiritimati \
    bash "$source_dir/scripts/build-package.sh" --new-times "$again/second") >"$again/build.log" 2>&1; then
    echo "reproducible-test: the second build failed:" >&2
    tail -n 30 "$again/build.log" >&2
    exit 1
fi

status=0
debs=("$first"/*.deb)
[[ -f "${debs[0]}" ]] || { echo "reproducible-test: no package in $first" >&2; exit 1; }
for deb in "${debs[@]}"; do
    name=${deb##*/}
    if [[ ! -f "$again/second/$name" ]]; then
        echo "reproducible-test: the second build made no $name" >&2
        status=1
    elif cmp -s "$deb" "$again/second/$name"; then
        echo "reproducible-test: $name: identical, $(stat -c %s "$deb") bytes," \
            "sha256 $(sha256sum "$deb" | cut -d ' ' -f 1)"
    else
        echo "reproducible-test: $name differs between $first and the second build" >&2
        if command -v diffoscope >/dev/null; then
            diffoscope --text - "$deb" "$again/second/$name" 2>&1 | head -n 200 >&2 || true
        fi
        status=1
    fi
done
exit "$status"
