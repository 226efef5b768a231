#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, when missing.
# Needs root (or sudo) only when something is missing.
set -euo pipefail

packages=(cmake g++ make pkg-config libfftw3-dev libgtest-dev libbenchmark-dev libsndfile1-dev)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
