#!/usr/bin/env bash
# Installs what building and testing Velmora needs, where it is missing (Debian packages).
# Extra package names given as arguments are installed too.
set -euo pipefail
# The velmora tool: CLI11 (arguments), nlohmann-json (--json), libpcap (captures); its tests read
# the captures back with tshark.
packages=(cmake g++ make pkg-config googletest libgtest-dev libgmock-dev libbenchmark-dev
          libcli11-dev nlohmann-json3-dev libpcap-dev tshark "$@")
missing=()
for package in "${packages[@]}"; do
  dpkg -s "$package" >/dev/null 2>&1 || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
