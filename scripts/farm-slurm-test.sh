#!/usr/bin/env bash
# Farm render on a real Slurm: starts a one-node cluster on loopback (scripts/slurm-local.sh),
# submits the demo clip as three chunks with `flowblur farm slurm --submit`, waits, and checks
# that the outputs are byte-identical to one whole run. Exit 77 (skipped) without root or
# Slurm.   scripts/farm-slurm-test.sh PATH/TO/flowblur
set -euo pipefail
flowblur=$(realpath "${1:?usage: $0 PATH/TO/flowblur}")
here=$(cd "$(dirname "$0")" && pwd)
[ "$(id -u)" -eq 0 ] || { echo "farm test: skipped, needs root to run slurmd"; exit 77; }
for tool in sbatch squeue scontrol; do
  command -v "$tool" >/dev/null || { echo "farm test: skipped, $tool missing"; exit 77; }
done

work=$(mktemp -d "${TMPDIR:-/tmp}/flowblur-farm-XXXXXX")
chmod 755 "$work"  # the munge user must reach its socket below it
cleanup() {
  "$here/slurm-local.sh" stop "$work/cluster" || true
  rm -rf "$work"
}
trap cleanup EXIT
started=$(date +%s%N)

code=0
SLURM_CONF=$("$here/slurm-local.sh" start "$work/cluster") || code=$?
[ "$code" -eq 0 ] || { echo "farm test: the local cluster did not start"; exit "$code"; }
export SLURM_CONF

"$flowblur" demo "$work/demo" --size 160 --length 9 -q > /dev/null
input="$work/demo/input/demo.%04d.png"
"$flowblur" "$input" "$work/whole/o.%04d.png" --amount 1.25 -q --threads 1

job=$("$flowblur" farm slurm "$input" "$work/farm/o.%04d.png" --chunk 3 --threads 1 \
        --amount 1.25 --script "$work/farm-job/render.sh" --submit)
echo "farm test: submitted job $job"
for _ in $(seq 120); do
  squeue -h -j "$job" 2>/dev/null | grep -q . || break
  sleep 1
done
if squeue -h -j "$job" 2>/dev/null | grep -q .; then
  echo "farm test: job $job still queued after 120 s"; squeue; exit 1
fi

status=0
tasks=$(scontrol -o show job "$job" 2>/dev/null | grep -c "ArrayTaskId=" || true)
bad=$(scontrol -o show job "$job" 2>/dev/null | grep -v "ExitCode=0:0" || true)
if [ "$tasks" -ne 3 ] || [ -n "$bad" ]; then
  echo "farm test: expected 3 tasks ending with code 0, scontrol says:"
  scontrol show job "$job" || true
  status=1
fi
for log in "$work"/farm-job/logs/flowblur-"${job}"_{0,1,2}.log; do
  [ -f "$log" ] || { echo "farm test: no log $log"; status=1; }
done
for whole in "$work"/whole/o.*.png; do
  chunked="$work/farm/$(basename "$whole")"
  cmp -s "$whole" "$chunked" || { echo "farm test: $chunked differs from the whole run"; status=1; }
done
[ "$(ls "$work"/farm | grep -c '^o\.')" -eq 9 ] || { echo "farm test: not 9 frames"; status=1; }
[ "$status" -eq 0 ] || { cat "$work"/farm-job/logs/* 2>/dev/null || true; exit 1; }
ms=$(( ($(date +%s%N) - started) / 1000000 ))
printf 'farm test: 9 frames in 3 Slurm tasks, byte-identical to the whole run (%d.%03d s)\n' \
  $((ms / 1000)) $((ms % 1000))
