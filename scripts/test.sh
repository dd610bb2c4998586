#!/usr/bin/env bash
# Installs what is missing, builds everything and runs all tests twice: a normal build,
# then AddressSanitizer + UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
jobs=$(nproc)

echo "== build (release with debug info)"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$jobs"
echo "== tests"
(cd build && ctest --output-on-failure -j "$jobs" --timeout 600)

echo "== build (AddressSanitizer + UndefinedBehaviorSanitizer)"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DFLOWBLUR_SANITIZE=ON -DFLOWBLUR_BENCH=OFF
cmake --build build-asan -j "$jobs"
echo "== tests under sanitizers"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
(cd build-asan && ctest --output-on-failure -j "$jobs" --timeout 900)

echo "== the Debian package, installed and run in a fresh Debian 12 (debootstrap)"
scripts/test-package.sh build
