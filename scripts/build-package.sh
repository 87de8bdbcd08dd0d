#!/usr/bin/env bash
# Makes the Debian packages, tessary and tessary-dbgsym, from this source tree
# with dpkg-buildpackage:
#
#   bash scripts/build-package.sh [--next VERSION] [--new-times] OUTDIR
#
# The build runs in a copy of the tree, OUTDIR/tessary (the files git knows
# of, tracked or new and not ignored, as the working tree has them), and the
# .debs, .buildinfo and .changes land in OUTDIR. The copy's build directory is
# kept, and the copied files keep their times, so another run into the same
# OUTDIR rebuilds only what changed. --new-times gives the copied files the
# time of the copy instead, as a new checkout has. --next VERSION gives the
# copy a changelog entry of VERSION on top of the tree's own: a later package
# of the same tree, to upgrade to.
set -euo pipefail

next='' new_times=''
while [[ "${1:-}" == --* ]]; do
    case "$1" in
    --next) next=$2; shift 2 ;;
    --new-times) new_times=--touch; shift ;;
    *) break ;;
    esac
done
[[ $# == 1 ]] || { echo "usage: build-package.sh [--next VERSION] [--new-times] OUTDIR" >&2; exit 2; }
source_dir=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$1"
outdir=$(cd "$1" && pwd)
tree=$outdir/tessary

# Everything of an earlier copy but its build directory goes, so that no file
# since removed from the tree stays.
mkdir -p "$tree"
find "$tree" -mindepth 1 -maxdepth 1 ! -name 'obj-*' -exec rm -rf {} +
git -C "$source_dir" ls-files -z --cached --others --exclude-standard |
    (cd "$source_dir" && while IFS= read -r -d '' file; do
        [[ -e "$file" ]] && printf '%s\0' "$file"
    done) |
    tar -C "$source_dir" --null --files-from=- -cf - | tar -C "$tree" -x $new_times -f -
rm -f "$outdir"/tessary_*.deb "$outdir"/tessary-dbgsym_*.deb "$outdir"/tessary_*.buildinfo \
    "$outdir"/tessary_*.changes

if [[ -n "$next" ]]; then
    changelog=$tree/debian/changelog
    maintainer=$(sed -n 's/^ -- \(.*>\)  .*/\1/p' "$changelog" | head -n 1)
    {
        printf 'tessary (%s) unstable; urgency=medium\n\n' "$next"
        printf '  * A later build of the same tree.\n\n'
        printf ' -- %s  %s\n\n' "$maintainer" "$(date -R)"
        cat "$changelog"
    } >"$changelog.new"
    mv "$changelog.new" "$changelog"
fi

# debhelper gives the build a HOME of its own: npm keeps its downloads in the
# caller's cache all the same.
export npm_config_cache=${npm_config_cache:-${HOME:-/root}/.npm}
# -nc keeps the build directory of an earlier run; -J builds on every core.
cd "$tree"
dpkg-buildpackage -b -us -uc -nc -J
