#!/usr/bin/env bash
# Builds the Debian package (flowblur_VERSION_ARCH.deb, in BUILD/package/) and prints its path.
# Builds only what the package holds, not the tests. Its dependencies are found by
# dpkg-shlibdeps from what the binaries link against.
# Usage: scripts/package.sh [build-dir]   (default build, the folder the other scripts use)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh >&2
build=${1:-build}
case $build in /*) ;; *) build=$(pwd)/$build ;; esac
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$(nproc)" --target flowblur_installables >&2
rm -f "$build"/package/flowblur_*.deb
(cd "$build" && cpack -G DEB >&2)
ls "$build"/package/flowblur_*.deb
