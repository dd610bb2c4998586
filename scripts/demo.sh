#!/usr/bin/env bash
# Installs what is missing, builds the batch host and runs the built-in demo clip
# (into ./flowblur-demo, or the folder given).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target flowblur
exec build/tools/flowblur demo "$@"
