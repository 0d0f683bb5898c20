#!/usr/bin/env bash
# Installs what building and testing Velmora needs, where it is missing (Debian packages).
# Extra package names given as arguments are installed too.
set -euo pipefail
packages=(cmake g++ make pkg-config googletest libgtest-dev libgmock-dev libbenchmark-dev "$@")
missing=()
for package in "${packages[@]}"; do
  dpkg -s "$package" >/dev/null 2>&1 || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
