#!/usr/bin/env bash
# A one-node Slurm cluster on this machine, on loopback only, for tests of farm renders.
#   scripts/slurm-local.sh start DIR   configure in DIR, start munged, slurmctld and slurmd,
#                                      wait until the node is idle; prints the SLURM_CONF path
#   scripts/slurm-local.sh stop DIR    stop the daemons started by `start DIR` (by their PIDs)
# Needs root (slurmd runs jobs as their user) and Debian's munge, slurmctld, slurmd and
# slurm-client (scripts/deps.d/farm.list). Clients find the cluster through SLURM_CONF.
set -euo pipefail

command=${1:-}
dir=${2:-}
[ -n "$command" ] && [ -n "$dir" ] || { echo "usage: $0 start|stop DIR" >&2; exit 2; }

stop() {
  [ -f "$dir/pids" ] || return 0
  # Newest first: slurmd, slurmctld, then munged.
  tac "$dir/pids" | while read -r pid; do
    kill "$pid" 2>/dev/null || true
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$pid" 2>/dev/null || true
  done
  rm -f "$dir/pids"
}

if [ "$command" = stop ]; then
  stop
  exit 0
fi
[ "$command" = start ] || { echo "usage: $0 start|stop DIR" >&2; exit 2; }
[ "$(id -u)" -eq 0 ] || { echo "slurm-local: needs root" >&2; exit 77; }
for tool in munged slurmctld slurmd sinfo; do
  command -v "$tool" >/dev/null || [ -x "/usr/sbin/$tool" ] ||
    { echo "slurm-local: $tool is missing (scripts/deps.d/farm.list)" >&2; exit 77; }
done
export PATH="$PATH:/usr/sbin"

mkdir -p "$dir"
dir=$(cd "$dir" && pwd)
mkdir -p "$dir/munge" "$dir/state" "$dir/spool" "$dir/log"
: > "$dir/pids"
trap 'stop' ERR

# munge: its own key, socket and files, run as the munge user.
dd if=/dev/urandom of="$dir/munge/munge.key" bs=1024 count=1 status=none
chmod 755 "$dir" "$dir/munge"
chmod 400 "$dir/munge/munge.key"
chown -R munge:munge "$dir/munge"
setpriv --reuid=munge --regid=munge --init-groups test -x "$dir/munge" ||
  { echo "slurm-local: the munge user cannot reach $dir (a parent folder is private)" >&2; exit 1; }
socket="$dir/munge/munge.socket"
# setpriv execs munged itself, so the PID recorded is the daemon's.
setpriv --reuid=munge --regid=munge --init-groups munged -F --socket="$socket" \
  --key-file="$dir/munge/munge.key" --pid-file="$dir/munge/munged.pid" \
  --log-file="$dir/munge/munged.log" --seed-file="$dir/munge/munged.seed" \
  >> "$dir/munge/munged.out" 2>&1 &
echo $! >> "$dir/pids"
for _ in $(seq 50); do [ -S "$socket" ] && break; sleep 0.1; done

host=$(hostname -s)
cpus=$(nproc)
memory=$(( $(awk '/MemTotal/ {print int($2 / 1024)}' /proc/meminfo) - 1024 ))
[ "$memory" -gt 256 ] || memory=256
# Ports away from the defaults, so that a system Slurm on the machine is left alone.
cat > "$dir/slurm.conf" <<EOF
ClusterName=flowblur-local
SlurmctldHost=$host(127.0.0.1)
SlurmctldPort=16817
SlurmdPort=16818
AuthType=auth/munge
AuthInfo=socket=$socket
CredType=cred/munge
SlurmUser=root
SlurmdUser=root
StateSaveLocation=$dir/state
SlurmdSpoolDir=$dir/spool
SlurmctldPidFile=$dir/slurmctld.pid
SlurmdPidFile=$dir/slurmd.pid
SlurmctldLogFile=$dir/log/slurmctld.log
SlurmdLogFile=$dir/log/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
ReturnToService=2
SchedulerParameters=sched_interval=1
MinJobAge=60
NodeName=$host NodeAddr=127.0.0.1 CPUs=$cpus RealMemory=$memory State=UNKNOWN
PartitionName=local Nodes=$host Default=YES MaxTime=INFINITE State=UP
EOF
export SLURM_CONF="$dir/slurm.conf"

slurmctld -D -i -f "$SLURM_CONF" >> "$dir/log/slurmctld.out" 2>&1 &
echo $! >> "$dir/pids"
sleep 1
slurmd -D -f "$SLURM_CONF" >> "$dir/log/slurmd.out" 2>&1 &
echo $! >> "$dir/pids"

for _ in $(seq 60); do
  state=$(sinfo -h -N -o %t 2>/dev/null || true)
  case "$state" in idle*) echo "$SLURM_CONF"; exit 0 ;; esac
  sleep 1
done
echo "slurm-local: the node did not come up; logs in $dir/log" >&2
stop
exit 1
