#!/usr/bin/env bash
# Line, function and branch coverage of the code under test: a --coverage build, all tests,
# then a gcovr summary over everything but the tests and benchmarks, and per-folder figures
# with functions counted by definition as well (scripts/coverage_functions.py). Not part of CI.
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
# A failing test still leaves its counts: report them, then fail at the end.
tests_status=0
(cd "$build" && ctest --output-on-failure -j "$jobs" --timeout 900) || tests_status=$?

# gcc 12's gcov prints negative branch counts on some templates; gcovr would stop on them.
gcovr --root "$src" --object-directory "$build" --gcov-ignore-parse-errors \
  --exclude '(.+/)?tests?/' --exclude 'bench/' --exclude "$build/" \
  --print-summary --txt "$build/coverage.txt" --json "$build/coverage.json" | tail -n 4
# gcovr counts each template instance as a function of its own; this adds per-folder figures
# and the count by definition (covered when any instance ran). The listing names what no test
# ran, instance by instance.
python3 scripts/coverage_functions.py "$build/coverage.json" \
  --uncovered "$build/coverage-uncovered.txt"
if [ "$tests_status" -ne 0 ]; then
  echo "coverage.sh: some tests failed (ctest status $tests_status); the figures above include them" >&2
fi
exit "$tests_status"
