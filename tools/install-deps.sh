#!/usr/bin/env bash
# flowblur: installs what the batch host `flowblur` needs on a fresh Debian 12 (OpenImageIO for
# file I/O, Imath for half floats, CLI11 for the command line, pkg-config to find them), with
# the compiler and build tools. Packages already installed are left alone.
set -euo pipefail
packages=(cmake ninja-build g++ pkg-config libgtest-dev
          libopenimageio-dev libimath-dev libcli11-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
echo "tools/install-deps.sh: installing ${missing[*]}"
$sudo_cmd apt-get update -qq
$sudo_cmd env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
