#!/usr/bin/env bash
# Runs one command with a private, empty tmpfs over /Library, for tests of
# jobs whose scripts name paths under /Library, and a /dev/log whose lines,
# each "<PRIORITY>IDENT: TEXT", go to the file TESSARY_TEST_SYSLOG names.
# Meant to run inside with-systemd.sh --private-run: the mounts are made in
# that script's private mount namespace, where the private systemd and the
# jobs it starts see them too, and go away with the namespace. The host's
# /Library is never written to; should it not exist, an empty directory is
# made there as the mount point and left behind (another test may be
# mounting on it at the same time).
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

# shellcheck source=../e2e/sandbox-lib.sh
source "$(dirname "$0")/../e2e/sandbox-lib.sh"
export TESSARY_TEST_SYSLOG=/run/tessary-test.syslog
sandbox_syslog "$TESSARY_TEST_SYSLOG" --priority

# In sanitizer builds, the leak check at the exit of a jobtool that ends
# inside its own stopping unit stops the process with ptrace, and the SIGCONT
# that systemd sends with the stop's SIGTERM can leave that check waiting
# forever. The jobs of this private manager run without it; what the test
# runs itself still has it.
systemctl --user set-environment "ASAN_OPTIONS=${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0" ||
    fail "cannot set the manager's environment"
exec "$@"
