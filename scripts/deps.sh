#!/usr/bin/env bash
# Installs what flowblur needs on Debian 12 that the machine does not have yet.
set -euo pipefail
packages=(cmake ninja-build g++ pkg-config libgtest-dev libbenchmark-dev
          libopenimageio-dev libimath-dev libcli11-dev)
# Each feature that needs more lists its packages in scripts/deps.d/NAME.list, one a line.
here=$(dirname "$0")
for list in "$here"/deps.d/*.list; do
  [ -f "$list" ] || continue
  while read -r p; do
    case "$p" in ''|'#'*) ;; *) packages+=("$p") ;; esac
  done < "$list"
done
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
