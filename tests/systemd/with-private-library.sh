#!/usr/bin/env bash
# Runs one command with a private, empty tmpfs over /Library, for tests of
# jobs whose scripts name paths under /Library. Meant to run inside
# with-systemd.sh: the mount is made in that script's private mount namespace,
# where the private systemd and the jobs it starts see it too, and goes away
# with the namespace. The host's /Library is never written to; should it not
# exist, an empty directory is made there as the mount point and left behind
# (another test may be mounting on it at the same time).
#
#   with-private-library.sh COMMAND [ARG...]
set -euo pipefail

fail() {
    echo "with-private-library: $*" >&2
    exit 70
}

[[ -n "${TESSARY_PRIVATE_SYSTEMD:-}" ]] || fail "run me inside tests/systemd/with-systemd.sh"
(($#)) || { echo "usage: with-private-library.sh COMMAND [ARG...]" >&2; exit 64; }

[[ -d /Library ]] || mkdir /Library || fail "cannot make the mount point /Library"
mount -t tmpfs -o mode=0755 tmpfs /Library || fail "cannot mount a tmpfs over /Library"
export TESSARY_PRIVATE_LIBRARY=1
exec "$@"
