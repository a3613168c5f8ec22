#!/usr/bin/env bash
# A throwaway one-node SLURM cluster on this machine, for trying `srun` runs by
# hand (a development aid, not part of CI). Needs Debian's slurm-wlm and munge
# (apt-get install -y slurm-wlm munge) and root, as the daemons run as root.
#
#   scripts/slurm-local.sh start    # munged, slurmctld, slurmd under $DIR
#   eval "$(scripts/slurm-local.sh env)"
#   srun -n 4 -O build/bin/hemiray run MODEL -o OUT --threads 1
#   scripts/slurm-local.sh stop     # stops the daemons and removes $DIR
#
# Everything lives under DIR (default /tmp/hemiray-slurm): configuration, keys,
# sockets, logs and state; nothing under /etc or /var is touched. Clients find
# the cluster through SLURM_CONF, which `env` prints.
set -euo pipefail

DIR=${HEMIRAY_SLURM_DIR:-/tmp/hemiray-slurm}
PORT=${HEMIRAY_SLURM_PORT:-16817}
NODE=$(hostname -s)
CPUS=$(nproc)

say() { echo "slurm-local: $*" >&2; }

pid_of() { [[ -f $DIR/$1.pid ]] && cat "$DIR/$1.pid"; }

running() {
    local pid
    pid=$(pid_of "$1") && kill -0 "$pid" 2>/dev/null
}

write_config() {
    mkdir -p "$DIR"/{state,spool,munge}
    chmod 700 "$DIR/munge"
    if [[ ! -f $DIR/munge/munge.key ]]; then
        head -c 1024 /dev/urandom >"$DIR/munge/munge.key"
        chmod 400 "$DIR/munge/munge.key"
    fi
    cat >"$DIR/slurm.conf" <<EOF
ClusterName=hemiray
SlurmctldHost=$NODE(127.0.0.1)
SlurmctldPort=$PORT
SlurmdPort=$((PORT + 1))
SlurmUser=root
SlurmdUser=root
AuthType=auth/munge
CredType=cred/munge
AuthInfo=socket=$DIR/munge/munge.socket
StateSaveLocation=$DIR/state
SlurmdSpoolDir=$DIR/spool
SlurmctldPidFile=$DIR/slurmctld.pid
SlurmdPidFile=$DIR/slurmd.pid
SlurmctldLogFile=$DIR/slurmctld.log
SlurmdLogFile=$DIR/slurmd.log
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
SwitchType=switch/none
SchedulerType=sched/builtin
SelectType=select/cons_tres
SelectTypeParameters=CR_Core
MpiDefault=pmix
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
ReturnToService=2
KillWait=5
NodeName=$NODE NodeAddr=127.0.0.1 CPUs=$CPUS State=UNKNOWN
PartitionName=local Nodes=ALL Default=YES MaxTime=INFINITE State=UP OverSubscribe=FORCE:4
EOF
}

start() {
    for tool in munged slurmctld slurmd srun; do
        command -v "$tool" >/dev/null || { say "$tool not found (apt-get install -y slurm-wlm munge)"; exit 1; }
    done
    if running slurmctld; then say "already running under $DIR"; return 0; fi
    write_config
    export SLURM_CONF=$DIR/slurm.conf
    munged --force --key-file="$DIR/munge/munge.key" --socket="$DIR/munge/munge.socket" \
        --pid-file="$DIR/munged.pid" --log-file="$DIR/munged.log" --seed-file="$DIR/munge/seed"
    # -c: a clean start, no jobs or nodes kept from an earlier cluster.
    slurmctld -c
    slurmd
    for _ in $(seq 50); do
        if sinfo -h -o %T 2>/dev/null | grep -qx idle; then
            say "up: node $NODE with $CPUS CPUs; now run: eval \"\$($0 env)\""
            return 0
        fi
        sleep 0.2
    done
    say "the node did not come up; logs: $DIR/*.log"
    sinfo -N -l >&2 || true
    exit 1
}

# The step daemons (slurmstepd) of this cluster: they run in $DIR. One whose step
# failed to launch can outlive slurmd.
step_daemons() {
    local p
    for p in /proc/[0-9]*; do
        [[ $(readlink "$p/cwd" 2>/dev/null) == "$DIR"* && $(cat "$p/comm" 2>/dev/null) == slurmstepd ]] &&
            echo "${p#/proc/}"
    done
}

stop() {
    local name pid
    for name in slurmd slurmctld munged; do
        if pid=$(pid_of "$name") && kill -0 "$pid" 2>/dev/null; then
            kill "$pid"
            for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
        fi
    done
    for pid in $(step_daemons); do kill -9 "$pid" 2>/dev/null || true; done
    rm -rf "$DIR"
}

case ${1:-} in
    start) start ;;
    stop) stop ;;
    env) echo "export SLURM_CONF=$DIR/slurm.conf" ;;
    status) running slurmctld && SLURM_CONF=$DIR/slurm.conf sinfo -N -l ;;
    *) echo "usage: $0 start|env|status|stop" >&2; exit 2 ;;
esac
