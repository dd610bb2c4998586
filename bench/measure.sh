#!/usr/bin/env bash
# flowblur: runs every benchmark and quality measure the same way and prints the README's tables.
# Usage: bench/measure.sh [build-dir] [out-dir] [benchmark filter]
#        (defaults: build-bench, /tmp/flowblur-figures, every benchmark; with a filter only the
#        benchmarks are run, not the quality and comparison tools)
# Build first: ninja -C <build-dir> flowblur_bench flowblur_quality [flowblur_compare]
set -euo pipefail
build=${1:-build-bench}
out=${2:-/tmp/flowblur-figures}
mkdir -p "$out"
bin="$build/bench"

{
  echo "machine: nproc $(nproc), $(grep -m1 'model name' /proc/cpuinfo | sed 's/.*: //')"
  echo "source: $(git -C "$(dirname "$0")/.." log -1 --format='%h %cI' 2>/dev/null)," \
       "uncommitted: $(git -C "$(dirname "$0")/.." status --short --untracked-files=no 2>/dev/null | wc -l) files"
  echo "start: $(date -u +%FT%TZ), load average $(cut -d' ' -f1-3 /proc/loadavg)"
} | tee "$out/machine.txt"

# Three repetitions, median reported: the machine is shared, so one run says little.
filter=${3:-}
"$bin/flowblur_bench" ${filter:+--benchmark_filter="$filter"} --benchmark_repetitions=3 \
  --benchmark_report_aggregates_only=true --benchmark_out="$out/bench.json" \
  --benchmark_out_format=json > "$out/bench.txt"
echo "after flowblur_bench: load average $(cut -d' ' -f1-3 /proc/loadavg)" | tee -a "$out/machine.txt"

if [[ -z "$filter" ]]; then
  "$bin/flowblur_quality" > "$out/quality-best.txt"
  "$bin/flowblur_quality" --draft > "$out/quality-draft.txt"
  "$bin/flowblur_quality" --format 48 > "$out/quality-48.txt"
  "$bin/flowblur_quality" --format 49 > "$out/quality-49.txt"
  if [[ -x "$bin/flowblur_compare" ]]; then
    "$bin/flowblur_compare" > "$out/compare-best.txt"
    "$bin/flowblur_compare" --draft > "$out/compare-draft.txt"
    # Whole 1920x1080 frames against the flow-plus-remap script, both presets, 1 and 2
    # processors, in one run (it prints the load average at its start and end).
    "$bin/flowblur_compare" --pipeline > "$out/compare-pipeline.txt"
  fi
fi
echo "end: $(date -u +%FT%TZ), load average $(cut -d' ' -f1-3 /proc/loadavg)" | tee -a "$out/machine.txt"

# The benchmark medians as a Markdown table.
python3 - "$out/bench.json" <<'EOF'
import json, sys
data = json.load(open(sys.argv[1]))
print("| Benchmark | median | peak heap MiB | library peak MiB | planes MiB | host forks |")
print("|---|---:|---:|---:|---:|---:|")
for b in data["benchmarks"]:
    if b.get("aggregate_name") != "median":
        continue
    name = b["run_name"].replace("/real_time", "")
    scale = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[b["time_unit"]]
    ms = b["real_time"] * scale
    mib = lambda k: "%.1f" % (b[k] / 1048576.0) if k in b else ""
    forks = "%d" % b["host_forks"] if "host_forks" in b else ""
    time = "%.1f ms" % ms if ms >= 10 else "%.3f ms" % ms if ms >= 0.01 else "%.3f us" % (ms * 1e3)
    print("| %s | %s | %s | %s | %s | %s |" % (name, time,
          mib("peak_heap"), mib("library_peak"), mib("planes"), forks))
EOF
for f in "$out"/quality-*.txt "$out"/compare-*.txt; do
  [[ -f "$f" ]] || continue
  if [[ "$f" == */compare-pipeline.txt ]]; then
    echo
    echo "$(basename "$f"):"
    cat "$f"
    continue
  fi
  echo
  echo "$(basename "$f"):"
  grep -E '^(flowblur_|flow |flowblur |DIS|Farneback|true motion|none| mean|render|the harness)' "$f"
done
