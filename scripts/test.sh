#!/usr/bin/env bash
# Installs what is missing, builds everything and runs all tests twice: a normal build,
# then AddressSanitizer + UndefinedBehaviorSanitizer; then ThreadSanitizer on the threaded
# tests and a bounded run of each fuzz target.
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
# Leaks inside the decoder libraries that our code cannot free are suppressed there, each
# with its reason; everything else LeakSanitizer finds fails the run. Those libraries have no
# frame pointers, so a suppression matches only on fully unwound stacks; the list of
# suppressions used stays off standard error, which the tests read.
export LSAN_OPTIONS=suppressions=$PWD/scripts/lsan-suppressions.txt:fast_unwind_on_malloc=0:print_suppressions=0
(cd build-asan && ctest --output-on-failure -j "$jobs" --timeout 900)

echo "== build (ThreadSanitizer: runtime, host, plug-in and batch host tests)"
tsan_flags=-fsanitize=thread
cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFLOWBLUR_BENCH=OFF \
  -DCMAKE_C_FLAGS=$tsan_flags -DCMAKE_CXX_FLAGS=$tsan_flags \
  -DCMAKE_EXE_LINKER_FLAGS=$tsan_flags -DCMAKE_SHARED_LINKER_FLAGS=$tsan_flags
cmake --build build-tsan -j "$jobs" --target runtime_tests host_tests plugin_tests \
  plugin_so_tests tools_tests
echo "== tests under ThreadSanitizer"
(
  export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/scripts/tsan-suppressions.txt"
  # A shorter soak here: the sanitizer slows every call, and the count says nothing new.
  export FLOWBLUR_SOAK_CALLS=300
  for t in runtime/runtime_tests host/host_tests tests/plugin/plugin_tests tests/plugin/plugin_so_tests; do
    echo "-- $t"
    build-tsan/$t --gtest_brief=1
  done
  # The batch host's own tests, but not the ones that time whole resumed or chunked runs:
  # those start many processes and take minutes under the sanitizer, with no threads of ours
  # that the others do not already run. Nor the long run's peak memory: the sanitizer's own
  # shadow and history memory grows with the run, which is not the batch host's.
  echo "-- tools/tools_tests"
  build-tsan/tools/tools_tests --gtest_brief=1 \
    --gtest_filter='-*Resume.*:*Chunked*:Farm*:Demo.*:LongSequence.PeakMemory*'
)

echo "== fuzzing (clang, libFuzzer with AddressSanitizer + UBSan, about a minute a target)"
fuzz_flags=-fsanitize=fuzzer-no-link
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DFLOWBLUR_BENCH=OFF -DFLOWBLUR_SANITIZE=ON -DFLOWBLUR_FUZZ=ON \
  -DCMAKE_C_FLAGS=$fuzz_flags -DCMAKE_CXX_FLAGS=$fuzz_flags
cmake --build build-fuzz -j "$jobs" --target flowblur_session_fuzz flowblur_file_fuzz
for target in session file; do
  # New inputs go to a scratch folder; the checked-in corpus is only read.
  scratch=$(mktemp -d)
  echo "-- flowblur_${target}_fuzz"
  status=0
  # OpenImageIO is not instrumented and keeps a few small strings of its own after a failed
  # read: leak checking stays on for the plug-in's sessions only.
  # Its decoders also free large blocks input after input: a small quarantine keeps the
  # sanitizer's held-back memory from passing the fuzzer's memory limit.
  # EXR headers are walked before a reader sees them, but other decoders still size their
  # buffers from a hostile header before our checks: a higher limit for the file target.
  # The JPEG reader compares the identifier of an APP1, APP2 or APP13 block with strcmp;
  # in a hostile file that block need not hold a 0, and strict string checks then report the
  # whole unterminated string, though strcmp stops at the first byte that differs. Plain
  # checks still catch every byte that is really read out of bounds (fuzz/corpus/file/jpg5).
  leaks=1 quarantine=256 rss=2048 strict=1
  [ "$target" = file ] && leaks=0 quarantine=64 rss=4096 strict=0
  ASAN_OPTIONS="$ASAN_OPTIONS:detect_leaks=$leaks:quarantine_size_mb=$quarantine:strict_string_checks=$strict" \
    build-fuzz/fuzz/flowblur_${target}_fuzz -max_total_time="${FLOWBLUR_FUZZ_SECONDS:-60}" \
    -detect_leaks=$leaks -rss_limit_mb=$rss -close_fd_mask=2 -print_final_stats=1 "$scratch" "fuzz/corpus/$target" \
    > "$scratch.log" 2>&1 || status=$?
  grep -E '^stat::(number_of_executed_units|peak_rss_mb)' "$scratch.log" || true
  if [ "$status" -ne 0 ]; then
    tail -n 60 "$scratch.log"
    echo "flowblur_${target}_fuzz failed"
    exit 1
  fi
  rm -rf "$scratch" "$scratch.log"
done

echo "== the Debian package, installed and run in a fresh Debian 12 (debootstrap)"
scripts/test-package.sh build
