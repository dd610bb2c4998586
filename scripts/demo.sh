#!/usr/bin/env bash
# Installs what is missing, builds the batch host and runs the built-in demo clip.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$(nproc)" --target flowblur
out="${1:-$PWD/flowblur-demo}"
build/tools/flowblur demo "$out"
echo "Demo written to $out (contact sheet: $out/contact-sheet.png)"
