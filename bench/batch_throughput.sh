#!/usr/bin/env bash
# Batch throughput of `flowblur` at 1920x1080, end to end, beside what bounds it: the I/O floor
# (oiiotool transcoding the same sequence: decode and encode, nothing else) and the plug-in
# alone (SparkProcess on 1080p frames, times the frame count). For 8-bit PNG, 16-bit TIFF and
# half-float EXR; all timed in one run, so that the figures share the machine's load.
#
#   bench/batch_throughput.sh [--flowblur EXE] [--before EXE] [--bench EXE] [--frames N]
#                             [--threads N] [--io-threads N] [--repeat N] [--work DIR]
#
#   --flowblur EXE  the build to time (default: build/tools/flowblur)
#   --before EXE    another build timed beside it, e.g. one without the I/O pipeline
#   --bench EXE     flowblur_bench, for the plug-in alone (default: build/bench/flowblur_bench;
#                   configure with -DFLOWBLUR_BENCH=ON); without it that column is empty
#   --frames N      frames of the demo clip (default 12)
#   --threads N     processors lent to the plug-in, in every run (default 2)
#   --io-threads N  passed to the timed build when it has the option (default: its own)
#   --repeat N      rounds in which every command runs once, in turn; the fastest counts
#                   (default 1)
#   --work DIR      scratch folder (default: a new one under $TMPDIR), removed at the end
#
# oiiotool comes from Debian's openimageio-tools, installed here when missing (for this
# benchmark only; flowblur itself links the library). Ratios are end-to-end time over the
# floor plus the plug-in alone: below 1.0 the run overlaps its I/O with the plug-in (or, at
# its default compression, encodes faster than the floor: "same/sum" times it with the
# floor's). The cpu column is CPU seconds (user + system), steadier than wall time on a
# loaded machine.
set -euo pipefail
cd "$(dirname "$0")/.."

flowblur=build/tools/flowblur
before=""
bench=build/bench/flowblur_bench
frames=12
threads=2
io_threads=""
repeat=1
work=""
while [ $# -gt 0 ]; do
  case "$1" in
    --flowblur) flowblur=$2; shift 2 ;;
    --before) before=$2; shift 2 ;;
    --bench) bench=$2; shift 2 ;;
    --frames) frames=$2; shift 2 ;;
    --threads) threads=$2; shift 2 ;;
    --io-threads) io_threads=$2; shift 2 ;;
    --repeat) repeat=$2; shift 2 ;;
    --work) work=$2; shift 2 ;;
    -h|--help) sed -n '2,26p' "$0"; exit 0 ;;
    *) echo "batch_throughput.sh: unknown argument $1" >&2; exit 2 ;;
  esac
done

if ! command -v oiiotool > /dev/null; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  echo "== installing openimageio-tools (oiiotool), for this benchmark only"
  $sudo apt-get install -y openimageio-tools > /dev/null
fi
[ -x "$flowblur" ] || { echo "batch_throughput.sh: no flowblur at $flowblur" >&2; exit 2; }

if [ -z "$work" ]; then
  work=$(mktemp -d "${TMPDIR:-/tmp}/flowblur-throughput-XXXXXX")
  trap 'rm -rf "$work"' EXIT
fi
mkdir -p "$work"

# One run of a command: "wall cpu" in seconds (cpu: user + system of the command and its
# threads). Its outputs are removed first so that every run writes them anew.
run_once() {
  local out=$1; shift
  rm -rf "$out"; mkdir -p "$out"
  local TIMEFORMAT='%R %U %S'
  { time "$@" > /dev/null 2> "$work/last.log"; } 2> "$work/time.txt" ||
    { cat "$work/last.log" >&2; return 1; }
  awk '{ printf "%.2f %.2f", $1, $2 + $3 }' "$work/time.txt"
}

# The smaller of two "wall cpu" pairs, each figure apart ("" counts as none yet).
best_of() {
  awk -v a="$1" -v b="$2" 'BEGIN {
    if (a == "") { print b; exit }
    split(a, x, " "); split(b, y, " ")
    printf "%.2f %.2f", (y[1] < x[1] ? y[1] : x[1]), (y[2] < x[2] ? y[2] : x[2])
  }'
}

echo "== the demo clip at 1920x1080, $frames frames, as PNG, 16-bit TIFF and half EXR"
"$flowblur" demo "$work/demo" --size 1920 --length "$frames" -q --threads "$threads" > /dev/null
mkdir -p "$work/in"
cp "$work"/demo/input/demo.*.png "$work/in/"
last=$(printf '%04d' "$frames")
oiiotool --frames "1-$frames" "$work/in/demo.%04d.png" -d uint16 -o "$work/in/demo.%04d.tif"
oiiotool --frames "1-$frames" "$work/in/demo.%04d.png" -d half -o "$work/in/demo.%04d.exr"
[ -f "$work/in/demo.$last.exr" ] || { echo "batch_throughput.sh: oiiotool made no EXR" >&2; exit 1; }

# Options both builds understand, and the blur of the stored values in both (a build that
# converts to linear light by default is told not to, so that both do the same work).
common=(--threads "$threads" -q --overwrite)
after_extra=()
before_extra=()
"$flowblur" --help 2>&1 | grep -q -- --colorspace && after_extra+=(--colorspace none)
# A build that picks its own output compression is also timed with the floor's (oiiotool keeps
# the input's: zip in EXR and TIFF, zlib's default level 6 in PNG), so that the gain of the
# pipeline shows apart from the gain of a faster codec.
same_codec=""
"$flowblur" --help 2>&1 | grep -q -- --compression && same_codec=yes
[ -n "$io_threads" ] && after_extra+=(--io-threads "$io_threads")
if [ -n "$before" ]; then
  "$before" --help 2>&1 | grep -q -- --colorspace && before_extra+=(--colorspace none)
fi

# The plug-in alone: SparkProcess on a 1080p frame of each format, Best quality, on the same
# processors, times the frame count. flowblur keeps freed frame buffers in the process
# (mallopt in its main), which spares the kernel's page faults; the plug-in alone is timed
# with the same allocator settings (glibc's environment names for them), so that the sum
# holds the plug-in as it runs inside flowblur. Its time with malloc's defaults, as a host
# that leaves them alone sees it, is printed beside.
plugin_ms() {
  [ -x "$bench" ] || { echo ""; return; }
  env "${@:2}" "$bench" \
    --benchmark_filter="BM_SparkProcess/w:1920/h:1080/format:$1/draft:0/procs:$threads/" \
    --benchmark_min_time=1 --benchmark_format=csv 2> /dev/null |
    awk -F, '/BM_SparkProcess/ { print $3; exit }'
}
kept_buffers=(MALLOC_MMAP_MAX_=0 MALLOC_TRIM_THRESHOLD_=2147483647)

printf '\n%-6s %9s %9s %9s %9s %9s %11s %11s %21s %10s %10s\n' format before after floor plug-in sum \
  before/sum after/sum "cpu before/after/floor" "plug-in*" "same/sum"
for case in png:24 tif:48 exr:49; do
  ext=${case%%:*}
  code=${case##*:}
  in="$work/in/demo.%04d.$ext"
  # The commands take turns, round after round, so that a load that rises or falls during the
  # benchmark weighs on each of them alike; the fastest round of each counts.
  floor="" after="" b="" same=""
  case $ext in png) floor_codec=6 ;; *) floor_codec=zip ;; esac
  for _ in $(seq "$repeat"); do
    floor=$(best_of "$floor" "$(run_once "$work/floor" oiiotool --frames "1-$frames" "$in" \
      -o "$work/floor/o.%04d.$ext")")
    after=$(best_of "$after" "$(run_once "$work/after" "$flowblur" "$in" "$work/after/o.%04d.$ext" \
      "${common[@]}" "${after_extra[@]}")")
    if [ -n "$same_codec" ]; then
      same=$(best_of "$same" "$(run_once "$work/same" "$flowblur" "$in" "$work/same/o.%04d.$ext" \
        "${common[@]}" "${after_extra[@]}" --compression "$floor_codec")")
    fi
    if [ -n "$before" ]; then
      b=$(best_of "$b" "$(run_once "$work/before" "$before" "$in" "$work/before/o.%04d.$ext" \
        "${common[@]}" "${before_extra[@]}")")
    fi
  done
  if [ -n "$before" ]; then
    # The same bytes, or the comparison means nothing.
    cmp -s <(cat "$work"/before/o.*."$ext") <(cat "$work"/after/o.*."$ext") ||
      echo "batch_throughput.sh: $ext outputs of the two builds differ" >&2
  fi
  ms=$(plugin_ms "$code" "${kept_buffers[@]}")
  ms_default=$(plugin_ms "$code")
  awk -v f="$ext" -v b="$b" -v a="$after" -v fl="$floor" -v ms="$ms" -v md="$ms_default" \
    -v n="$frames" -v sc="$same" 'BEGIN {
    split(a, A, " "); split(fl, F, " ")
    bw = "-"; bc = "-"
    if (b != "") { split(b, B, " "); bw = B[1]; bc = B[2] }
    p = ms == "" ? "" : ms * n / 1000.0
    s = p == "" ? "" : F[1] + p
    split(sc, S, " ")
    printf "%-6s %9s %9.2f %9.2f %9s %9s %11s %11s %21s %10s %10s\n", f, bw, A[1], F[1],
      p == "" ? "-" : sprintf("%.2f", p), s == "" ? "-" : sprintf("%.2f", s),
      (s == "" || bw == "-") ? "-" : sprintf("%.2f", bw / s),
      s == "" ? "-" : sprintf("%.2f", A[1] / s), sprintf("%s/%.2f/%.2f", bc, A[2], F[2]),
      md == "" ? "-" : sprintf("%.2f", md * n / 1000.0),
      (sc == "" || s == "") ? "-" : sprintf("%.2f", S[1] / s)
  }'
done
echo
echo "plug-in: as inside flowblur (freed buffers kept); plug-in*: with malloc's defaults"
[ -n "$same_codec" ] && echo "same: flowblur writing with the floor's compression (PNG 6, TIFF and EXR zip)"
echo "seconds for $frames frames at 1920x1080, --threads $threads; load average: $(cut -d' ' -f1-3 /proc/loadavg)"
