#!/usr/bin/env bash
# Installs what building and testing tessaryd needs on Debian 12. Safe to run
# again: it only asks apt when a package is missing.
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  libplist-dev libsystemd-dev systemd
  libgtest-dev libgmock-dev libbenchmark-dev
  python3 clang-format dbus-daemon polkitd
  clang clang-tidy libclang-rt-14-dev
  dpkg-dev file psmisc bash-completion
  build-essential debhelper lintian diffoscope-minimal gdb
  systemd-container
  cockpit-ws cockpit-bridge cockpit-system sudo chromium
  gettext
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The Cockpit page is bundled with npm packages; Debian's nodejs and npm do,
# unless the machine has a Node.js with its own npm already.
if ! command -v npm >/dev/null || ! command -v node >/dev/null; then
  echo "installing: nodejs npm"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends nodejs npm
fi
