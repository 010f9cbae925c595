#!/usr/bin/env bash
# The Slurm job scripts on a real one-node Slurm cluster: munged, slurmctld and slurmd started here
# on 127.0.0.1 with a throwaway configuration (no cgroups, no accounting, state in a temporary
# folder), a job array of 4 tasks over 42 models sharing the team cache (nginx, started here too),
# and the merge job after it. Every daemon started here is stopped by its process id.
# Usage: slurm_cluster_test.sh VERTEXMILL GEOMETRY_INSPECT IMPORTER SCRIPTS_DIR MODEL_DIR
#   MODEL_DIR holds a few .primitives files (the examples); they are copied, never changed.
set -uo pipefail

vertexmill=$1 inspect=$2 importer=$3 scripts=$4 models=$5
for program in munged slurmctld slurmd sbatch squeue sinfo scontrol; do
  if ! command -v "$program" >/dev/null; then
    echo "FAIL: $program is not installed (scripts/install-deps.sh installs slurmd slurmctld slurm-client munge)"
    exit 1
  fi
done

work=$(mktemp -d "${TMPDIR:-/tmp}/vertexmill_slurm.XXXXXX")
stop_daemon() {
  local pid_file=$1 pid
  [[ -f $pid_file ]] || return 0
  pid=$(cat "$pid_file")
  kill "$pid" 2>/dev/null || return 0
  for _ in $(seq 1 50); do
    kill -0 "$pid" 2>/dev/null || return 0
    sleep 0.1
  done
  kill -9 "$pid" 2>/dev/null
}
cleanup() {
  stop_nginx
  stop_daemon "$work/slurmd.pid"
  stop_daemon "$work/slurmctld.pid"
  stop_daemon "$work/munge/munged.pid"
  rm -rf "$work"
}
trap cleanup EXIT

# shellcheck source=checks.sh
source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"
# shellcheck source=nginx_server.sh
source "$(dirname "${BASH_SOURCE[0]}")/nginx_server.sh"
started=$SECONDS

# --- The cluster --------------------------------------------------------------------------------
mkdir -p "$work/munge" "$work/state" "$work/spool" "$work/logs"
chmod 755 "$work" "$work/munge"
head -c 1024 /dev/urandom >"$work/munge/munge.key"
chmod 600 "$work/munge/munge.key"
munged --force --socket="$work/munge/munge.sock" --key-file="$work/munge/munge.key" \
  --log-file="$work/munge/munged.log" --pid-file="$work/munge/munged.pid" --seed-file="$work/munge/munged.seed" ||
  { echo "FAIL: munged did not start"; exit 1; }
start_nginx
cache_port=$port
# Two ports for Slurm, clear of the cache server's three.
while :; do
  port=$((20000 + RANDOM % 20000))
  ((port + 1 < cache_port || port > cache_port + 2)) && break
done
export SLURM_CONF=$work/slurm.conf
cat >"$SLURM_CONF" <<CONF
ClusterName=vertexmill
SlurmctldHost=localhost(127.0.0.1)
SlurmUser=$(id -un)
SlurmdUser=$(id -un)
AuthType=auth/munge
AuthInfo=socket=$work/munge/munge.sock
SlurmctldPort=$port
SlurmdPort=$((port + 1))
StateSaveLocation=$work/state
SlurmdSpoolDir=$work/spool
SlurmctldPidFile=$work/slurmctld.pid
SlurmdPidFile=$work/slurmd.pid
SlurmctldLogFile=$work/slurmctld.log
SlurmdLogFile=$work/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
SchedulerType=sched/builtin
SelectType=select/cons_tres
SelectTypeParameters=CR_CPU
ReturnToService=2
MpiDefault=none
SwitchType=switch/none
NodeName=localhost NodeAddr=127.0.0.1 CPUs=2 State=UNKNOWN
PartitionName=test Nodes=localhost Default=YES MaxTime=INFINITE State=UP
CONF
slurmctld -i || { echo "FAIL: slurmctld did not start"; cat "$work/slurmctld.log"; exit 1; }
slurmd -N localhost || { echo "FAIL: slurmd did not start"; cat "$work/slurmd.log"; exit 1; }
for _ in $(seq 1 100); do
  [[ $(sinfo -h -o %t 2>/dev/null) == idle ]] && break
  sleep 0.2
done
check "the node is up" test "$(sinfo -h -o %t)" = idle

# --- The models: 40 good ones, one cut short, one whose normal cannot be packed ------------------
tree=$work/tree
for set in $(seq 1 8); do
  mkdir -p "$tree/set$set"
  cp "$models"/*/*.primitives "$tree/set$set/"
done
mkdir -p "$tree/broken"
head -c 200 "$tree/set1/crate.primitives" >"$tree/broken/truncated.primitives"
printf 'v 0 0 0\nv 1 0 0\nv 0 1 0\nvn 0 0 1\nvt 0 0\nf 1/1/1 2/1/1 3/1/1\n' >"$work/bad.obj"
"$importer" "$work/bad.obj" "$tree/broken/normal.primitives" --format xyznuv >/dev/null
# The first vertex's normal (x, y, z after the position, 68 bytes after the format name) made 2 long.
at=$(grep -obUaP 'xyznuv\x00' "$tree/broken/normal.primitives" | head -n1 | cut -d: -f1)
printf '\x00\x00\x00\x40' | dd of="$tree/broken/normal.primitives" bs=1 seek=$((at + 68 + 20)) conv=notrunc status=none
model_count=$(find "$tree" -name '*.primitives' | wc -l)
check "42 models" test "$model_count" -eq 42

# One machine's run, to compare with.
mkdir -p "$work/single"
"$vertexmill" --tree --keep-going --no-cache "$tree" "$work/single" >/dev/null 2>&1
check "one machine: two models fail" test $? -eq 3

# --- The array and the merge job ---------------------------------------------------------------
export VERTEXMILL=$vertexmill GEOMETRY_INSPECT=$inspect VERTEXMILL_CACHE_URL=http://127.0.0.1:$cache_port/cache
unset VERTEXMILL_CACHE VERTEXMILL_SHARD
# submit REPORTS: the array job's id and the merge job's id, on one line.
submit() {
  local reports=$1 array merge
  array=$(sbatch --parsable --array=0-3 --output="$work/logs/task-%A-%a.txt" \
    "$scripts/vertexmill-array.sbatch" "$tree" "$work/out" "$reports")
  merge=$(sbatch --parsable --dependency="afterany:$array" --output="$work/logs/merge-%j.txt" \
    "$scripts/vertexmill-merge.sbatch" "$reports")
  echo "$array $merge"
}
# wait_for JOB...: until none of the jobs is pending or running (at most 90 seconds).
wait_for() {
  for _ in $(seq 1 450); do
    [[ -z $(squeue -h -j "$(IFS=,; echo "$*")" 2>/dev/null) ]] && return 0
    sleep 0.2
  done
  echo "FAIL: jobs $* did not finish"
  return 1
}
# exit_code JOB: the exit status Slurm recorded for a job (or an array task, JOB_TASK).
exit_code() {
  scontrol show job "$1" | grep -o ' ExitCode=[0-9]*' | head -n1 | cut -d= -f2
}
same_outputs() {
  diff -r "$work/single" "$work/out" >/dev/null
}

read -r array merge <<<"$(submit "$work/reports")"
wait_for "$array" "$merge"
check "the array's outputs are one machine's, byte for byte" same_outputs
report=$work/reports/run.json
check "the merged report lists every model once" \
  test "$(grep -E '"source": ".*\.primitives"' "$report" | sort -u | wc -l)" -eq 42 -a \
  "$(grep -cE '"source": ".*\.primitives"' "$report")" -eq 42
check "it names the two bad models as failed" \
  test "$(grep -A2 -E '"source": ".*/broken/(truncated|normal).primitives"' "$report" | grep -c '"status": "failed"')" -eq 2
check "the page of the run is written" test -s "$work/reports/run.html"
check "the merge job fails: a model failed" test "$(exit_code "$merge")" = 3
# Each task's status is its shard's: 3 where its part has a failed model, else 0.
for task in 0 1 2 3; do
  part=$work/reports/part-$((task + 1))-of-4.json
  expected=0
  grep -q '"status": "failed"' "$part" && expected=3
  check "task $task exits with $expected" test "$(exit_code "${array}_$task")" = "$expected"
done

# --- Again: everything from the cache --------------------------------------------------------------
rm -rf "$work/out"
read -r array merge <<<"$(submit "$work/reports-again")"
wait_for "$array" "$merge"
check "the second submission writes the same outputs" same_outputs
check "every good model is a hit from the team cache" test "$(grep -c '"cache": "hit"' "$work/reports-again/run.json")" -eq 40

# --- A requeued task changes nothing -------------------------------------------------------------
scontrol requeue "${array}_1" >/dev/null 2>&1
# A requeued job waits before it may start again; this one may start at once.
scontrol update JobId="${array}_1" StartTime=now >/dev/null 2>&1
wait_for "$array"
check "a requeued task leaves every output as it was" same_outputs
check "its part is whole" test -s "$work/reports-again/part-2-of-4.json"

echo "cluster: 1 node, 4 array tasks, $model_count models, $((SECONDS - started)) s"
if ((failures > 0)); then
  for log in "$work"/logs/*.txt; do echo "--- $log"; cat "$log"; done
  tail -n 30 "$work/slurmctld.log"
fi
exit $((failures > 0))
