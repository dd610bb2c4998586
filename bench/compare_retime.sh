#!/usr/bin/env bash
# Retiming and deinterlacing, measured against the truth and beside ffmpeg's filters, in one
# run on one machine (so that load from other work hits every method alike).
#
#   bench/compare_retime.sh [FLOWBLUR] [WORKDIR]
#
# Retiming: a clip loses every other frame; the lost frames are rebuilt by `flowblur retime
# --speed 0.5` (each method), ffmpeg's minterpolate (mci) and ffmpeg's framerate (blend), and
# each is scored by the PSNR of the rebuilt frames against the lost originals, and the time
# per output frame (whole run, files in and out included). Clips: the demo clip at 960x540
# and vtest.avi of Debian's opencv-doc (real footage, 768x576).
#
# Deinterlacing: the demo clip interlaced from its true renders (top field at t, bottom at
# t + 0.5), made whole by `flowblur deinterlace` (each method, and at field rate) and by
# ffmpeg's bwdif and yadif (frame and field rate), scored against the true full frames.
#
# Installs ffmpeg and opencv-doc with apt-get when missing: for this script only, never as
# a dependency of the tool.
set -euo pipefail

FLOWBLUR=${1:-build/tools/flowblur}
WORK=${2:-$(mktemp -d /tmp/flowblur-compare-XXXXXX)}
THREADS=${THREADS:-2}
DEMO_FRAMES=${DEMO_FRAMES:-25}   # odd: 13 kept, 12 rebuilt
DEMO_SIZE=${DEMO_SIZE:-960}
VTEST_FRAMES=${VTEST_FRAMES:-49} # odd: 25 kept, 24 rebuilt
FLOWBLUR=$(readlink -f "$FLOWBLUR")
mkdir -p "$WORK"
cd "$WORK"

apt_install() {
  local sudo=""
  [ "$(id -u)" = 0 ] || sudo=sudo
  $sudo apt-get install -y "$@" >/dev/null 2>&1 ||
    { $sudo apt-get update >/dev/null 2>&1 && $sudo apt-get install -y "$@" >/dev/null; }
}
command -v ffmpeg >/dev/null || apt_install ffmpeg
VTEST=/usr/share/doc/opencv-doc/examples/data/vtest.avi
[ -f "$VTEST" ] || [ -f "$VTEST.gz" ] || apt_install opencv-doc
if [ ! -f "$VTEST" ] && [ -f "$VTEST.gz" ]; then gunzip -c "$VTEST.gz" >vtest.avi; VTEST=$WORK/vtest.avi; fi

# Runs a command and leaves its wall and CPU (user + system) seconds in WALL and CPU.
timed() {
  /usr/bin/time -f "%e %U %S" -o "$WORK/.time" "$@"
  read -r WALL user sys <"$WORK/.time"
  CPU=$(echo "$user + $sys" | bc)
}
# PSNR (average over frames, all planes) of two PNG sequences numbered from 1.
psnr() {
  ffmpeg -hide_banner -nostats -i "$1" -i "$2" -lavfi "[0:v][1:v]psnr" -f null - 2>&1 |
    sed -n 's/.*average:\([0-9.inf]*\).*/\1/p' | tail -1
}
# Links frames of a sequence into DIR as 0001.png, 0002.png ...: every STEP-th from FIRST.
pick() { # SRC_PATTERN FIRST STEP COUNT DIR
  rm -rf "$5"; mkdir -p "$5"
  local k
  for ((k = 0; k < $4; k++)); do
    ln -s "$(printf "$1" $(($2 + k * $3)))" "$(printf "%s/%04d.png" "$5" $((k + 1)))"
  done
}
row() { printf "| %-34s | %8s | %12s | %12s |\n" "$1" "$2" "$3" "$4"; }
header() {
  row "method" "PSNR dB" "wall ms/frame" "CPU ms/frame"
  row "---" "---" "---" "---"
}
# PSNR to two decimals, wall and CPU milliseconds per output frame.
result() { # LABEL PSNR FRAMES
  row "$1" "$(printf "%.2f" "$2")" "$(echo "scale=0; $WALL * 1000 / $3" | bc)" \
      "$(echo "scale=0; $CPU * 1000 / $3" | bc)"
}

compare_retime() { # NAME SOURCE_PATTERN (frames 1..N) N
  local name=$1 src=$2 n=$3
  local kept=$(((n + 1) / 2)) lost=$(((n - 1) / 2)) outs=$((n))
  echo
  echo "### Retiming: $name ($n frames, every other one dropped and rebuilt; $lost rebuilt)"
  echo
  header
  pick "$(readlink -f "$(dirname "$src")")/$(basename "$src")" 1 2 "$kept" "$name/kept"
  pick "$(readlink -f "$(dirname "$src")")/$(basename "$src")" 2 2 "$lost" "$name/lost"
  for entry in "flow best:--method flow" "flow draft:--method flow --quality draft" \
              "dissolve best:--method dissolve" "nearest best:--method nearest" \
              "blend (no flow):--method blend" "flow forward warp:--method flow --warp forward"; do
    local label=${entry%%:*} args=${entry#*:}
    local out=$name/fb-${label// /-}
    rm -rf "$out"
    # shellcheck disable=SC2086
    timed "$FLOWBLUR" retime "$name/kept/%04d.png" "$out/%04d.png" --speed 0.5 \
      --threads "$THREADS" -q $args
    pick "$(readlink -f "$out")/%04d.png" 2 2 "$lost" "$out-made"
    result "flowblur retime $label" "$(psnr "$name/lost/%04d.png" "$out-made/%04d.png")" "$outs"
  done
  for filter in "minterpolate=fps=2:mi_mode=mci" "framerate=fps=2"; do
    local label=${filter%%=*} out=$name/ff-${filter%%=*}
    rm -rf "$out"; mkdir -p "$out"
    timed ffmpeg -hide_banner -loglevel error -framerate 1 -i "$name/kept/%04d.png" \
      -vf "$filter" -threads "$THREADS" -start_number 1 "$out/%04d.png"
    pick "$(readlink -f "$out")/%04d.png" 2 2 "$lost" "$out-made"
    result "ffmpeg $label" "$(psnr "$name/lost/%04d.png" "$out-made/%04d.png")" "$outs"
  done
}

compare_deinterlace() { # NAME TRUTH_PATTERN (times 0, 0.5, 1 ... as 1, 2, 3 ...) FRAMES
  local name=$1 truth=$2 n=$3
  echo
  echo "### Deinterlacing: $name ($n interlaced frames, top field first)"
  echo
  header
  mkdir -p "$name/interlaced"
  # Pairs of true renders (t, t + 0.5) woven into one frame: even rows from t, odd from t + 0.5.
  ffmpeg -hide_banner -loglevel error -y -framerate 2 -i "$truth" -frames:v $((2 * n)) \
    -vf "interlace=scan=tff:lowpass=off" -start_number 1 "$name/interlaced/%04d.png"
  pick "$(readlink -f "$(dirname "$truth")")/$(basename "$truth")" 1 2 "$n" "$name/truth-frames"
  local m out
  for m in line average edge3 edge5; do
    out=$name/fb-$m; rm -rf "$out"
    timed "$FLOWBLUR" deinterlace "$name/interlaced/%04d.png" "$out/%04d.png" --field-order tff \
      --method "$m" --threads "$THREADS" -q
    result "flowblur deinterlace $m" "$(psnr "$name/truth-frames/%04d.png" "$out/%04d.png")" "$n"
  done
  for q in best draft; do
    out=$name/fb-field-$q; rm -rf "$out"
    timed "$FLOWBLUR" deinterlace "$name/interlaced/%04d.png" "$out/%04d.png" --field-order tff \
      --rate field --quality $q --threads "$THREADS" -q
    result "flowblur deinterlace field rate $q" "$(psnr "$truth" "$out/%04d.png")" $((2 * n))
  done
  for f in bwdif yadif; do
    for mode in 0 1; do
      out=$name/ff-$f-$mode; rm -rf "$out"; mkdir -p "$out"
      timed ffmpeg -hide_banner -loglevel error -framerate 1 -i "$name/interlaced/%04d.png" \
        -vf "setfield=tff,$f=mode=$mode:parity=tff" -threads "$THREADS" -start_number 1 \
        "$out/%04d.png"
      local frames=$n ref=$name/truth-frames/%04d.png label="ffmpeg $f (frame rate)"
      if [ "$mode" = 1 ]; then frames=$((2 * n)); ref=$truth; label="ffmpeg $f (field rate)"; fi
      result "$label" "$(psnr "$ref" "$out/%04d.png")" "$frames"
    done
  done
}

echo "## flowblur retime and deinterlace beside ffmpeg"
echo
echo "Machine: $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg) at the start" \
     "(other work may be running: every method is timed in this one run, one after another)."
echo "flowblur --threads $THREADS; ffmpeg -threads $THREADS. Times are whole runs (PNG read and"
echo "written, process start) over the output frames; CPU is user + system time, less affected"
echo "by the load than the wall clock."

# The demo clip at 960x540 and its true renders at every half frame.
rm -rf demo-src
"$FLOWBLUR" demo demo-src --retime --size "$DEMO_SIZE" --length "$DEMO_FRAMES" -q >/dev/null
compare_retime demo "demo-src/input/demo.%04d.png" "$DEMO_FRAMES"

mkdir -p vtest-src
ffmpeg -hide_banner -loglevel error -y -i "$VTEST" -frames:v "$VTEST_FRAMES" -start_number 1 \
  "vtest-src/%04d.png"
compare_retime vtest "vtest-src/%04d.png" "$VTEST_FRAMES"

compare_deinterlace demo-interlaced "demo-src/truth/demo.%04d.png" "$DEMO_FRAMES"
echo
echo "Files: $WORK"
