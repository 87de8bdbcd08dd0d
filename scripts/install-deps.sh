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
  systemd-container
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
