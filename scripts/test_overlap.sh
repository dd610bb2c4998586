#!/usr/bin/env bash
# Which tests run no code that other tests do not run too: every test is run alone in a build
# that records the basic blocks of each process (subprocesses included), then
# test_overlap.py lists the test bodies that can all go together without leaving a block of
# the code under test unrun. A list to read, not a verdict: coverage says the code runs
# elsewhere, not that its result is checked elsewhere. Not part of CI.
# Usage: scripts/test_overlap.sh [build-dir]   (default build-overlap)
set -euo pipefail
cd "$(dirname "$0")/.."
src=$(pwd)
build=$(realpath -m "${1:-build-overlap}")
mkdir -p "$build/covtrace"
gcc -O2 -shared -fPIC -o "$build/covtrace/libcovtrace.so" scripts/covtrace.c -ldl
link="-Wl,--no-as-needed $build/covtrace/libcovtrace.so -Wl,-rpath,$build/covtrace"
cmake -S . -B "$build" -G Ninja -DFLOWBLUR_BENCH=OFF \
  -DCMAKE_C_FLAGS=-fsanitize-coverage=trace-pc -DCMAKE_CXX_FLAGS=-fsanitize-coverage=trace-pc \
  -DCMAKE_EXE_LINKER_FLAGS="$link" -DCMAKE_SHARED_LINKER_FLAGS="$link" \
  -DCMAKE_MODULE_LINKER_FLAGS="$link"
cmake --build "$build" -j "$(nproc)"
rm -rf "$build/traces"
# The symbol test fails here by design: the build imports the recording hook.
(cd "$build" && COVTRACE_DIR="$build/traces" ctest -j "$(nproc)" --timeout 900) || true
python3 scripts/test_overlap.py "$build/traces" --root "$src" --build "$build" \
  --json "$build/overlap.json" | tee "$build/overlap.txt"
