#!/usr/bin/env bash
# Line, function and branch coverage of the code under test: a --coverage build, all tests,
# then a gcovr summary over everything but the tests and benchmarks. Not part of CI.
# Usage: scripts/coverage.sh [build-dir]   (default build-coverage)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
src=$(pwd)
build=${1:-build-coverage}
jobs=$(nproc)

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DFLOWBLUR_BENCH=OFF \
  -DCMAKE_C_FLAGS=--coverage -DCMAKE_CXX_FLAGS=--coverage \
  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage
cmake --build "$build" -j "$jobs"
find "$build" -name '*.gcda' -delete
(cd "$build" && ctest --output-on-failure -j "$jobs" --timeout 900)

# gcc 12's gcov prints negative branch counts on some templates; gcovr would stop on them.
gcovr --root "$src" --object-directory "$build" --gcov-ignore-parse-errors \
  --exclude '(.+/)?tests?/' --exclude 'bench/' --exclude "$build/" \
  --print-summary --txt "$build/coverage.txt" | tail -n 4
