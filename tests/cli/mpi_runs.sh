#!/usr/bin/env bash
# MPI runs of the hemiray tool against one-process runs: R ranks of T threads write
# the bytes of one process with R*T threads, in every output kind; per-face
# sampling gives the same bytes for every R and T; bad input, an unwritable result
# and a rank killed mid-run end the job with a non-zero status and leave the
# user's files as they were, with no partial file.
# Usage: mpi_runs.sh HEMIRAY WORK
set -euo pipefail
cli=$1 work=$2
rm -rf "$work" && mkdir -p "$work" && cd "$work"
mpi=(mpirun --allow-run-as-root --oversubscribe)
die() { echo "FAIL: $*" >&2; exit 1; }
partials() { find . -name '.hemiray-partial-*' | wc -l; }
children() {  # the processes whose parent is $1, from /proc
  local stat
  for stat in /proc/[0-9]*/stat; do
    read -r -a f < "$stat" 2> /dev/null || continue
    [[ ${f[3]} == "$1" ]] && echo "${f[0]}"
  done
}

"$cli" gen room -o m.msh --n 2 --res 4 > /dev/null
one() { [[ -f "one-$1" ]] || "$cli" run m.msh -o "one-$1" --threads "$2" "${@:3}" > /dev/null; }

# R ranks x T threads against one process of R*T threads; every kind on some.
for rt in 1x1 1x2 2x1 2x2 3x1 3x2 4x1 4x2; do
  r=${rt%x*} t=${rt#*x}
  kinds=(vf)
  [[ $rt == 2x2 || $rt == 3x1 ]] && kinds=(vf bin vf.gz vf.h5)
  for kind in "${kinds[@]}"; do
    flags=() && [[ $kind == bin ]] && flags=(--binary)
    one "$((r * t)).$kind" "$((r * t))" "${flags[@]}"
    "${mpi[@]}" -np "$r" "$cli" run m.msh -o "mpi.$kind" --threads "$t" "${flags[@]}" --force > mpi.out
    cmp "one-$((r * t)).$kind" "mpi.$kind" || die "$r ranks x $t threads, $kind"
    [[ $(grep -c '^# Using OpenMP\|^# Result' mpi.out) -le 2 ]] || die "console lines printed twice"
  done
done
# --slots picks the one-process run to reproduce.
"${mpi[@]}" -np 2 "$cli" run m.msh -o mpi.vf --threads 1 --slots 5 --force > /dev/null
one 5.vf 5
cmp one-5.vf mpi.vf || die "--slots 5"

# Per-face sampling: one result for every R, T and the environment's key.
"$cli" run m.msh -o pf.vf --threads 1 --sampling per-face --seed 3 > /dev/null
HEMIRAY_SEED=3 "$cli" run m.msh -o pf-env.vf --threads 3 > /dev/null
cmp pf.vf pf-env.vf || die "HEMIRAY_SEED=3 differs from --seed 3"
cmp -s pf.vf one-1.vf && die "per-face sampling gave the default result"
for rt in 1x2 2x1 3x2 4x1; do
  "${mpi[@]}" -np "${rt%x*}" "$cli" run m.msh -o mpi.vf --threads "${rt#*x}" \
    --sampling per-face --seed 3 --force > /dev/null
  cmp pf.vf mpi.vf || die "per-face sampling, $rt"
done
if HEMIRAY_SEED=x "$cli" run m.msh -o bad.vf > /dev/null 2> err; then die "HEMIRAY_SEED=x accepted"; fi
grep -q '^error: HEMIRAY_SEED must be a whole number' err || die "HEMIRAY_SEED=x: $(cat err)"

# Failures: one message from the job, nothing written, nothing left behind.
fails() {  # expected-message mpirun-arguments...
  if "${mpi[@]}" "${@:2}" > out 2> err; then die "$* succeeded"; fi
  [[ $(grep -c "$1" err) -eq 1 ]] || die "$*: expected one '$1', got: $(cat err)"
  [[ $(partials) -eq 0 ]] || die "$*: a partial file is left"
}
printf '(0 "x")\n(2 1 1 2 3)\n(not a parameter section' > bad.msh
fails "couldn't calculate view factors" -np 3 "$cli" run bad.msh -o bad.vf
[[ ! -e bad.vf ]] || die "bad input wrote a result"
mkdir folder
fails "couldn't write output file" -np 2 "$cli" run m.msh -o folder --force
[[ -d folder ]] || die "the folder was replaced"

# A rank killed mid-run: the earlier result and the input stay, no partial file.
# Several windows of rays, so that rank 0's share of the rays changes on the way,
# and a second or so of tracing, so that the kill lands mid-run.
"$cli" gen room -o big.msh --n 12 --res 48 > /dev/null
"$cli" run big.msh -o big-one.vf --threads 3 > /dev/null
"${mpi[@]}" -np 3 "$cli" run big.msh -o big-mpi.vf --threads 1 > /dev/null
cmp big-one.vf big-mpi.vf || die "3 ranks x 1 thread, several windows"
echo "earlier result" > big.vf
before=$(sha256sum big.msh big.vf)
# A rank alone (1:0) has nobody to clean up after it: its partial file has no name.
for ranks_victim in 2:0 2:1 1:0; do
  victim=${ranks_victim#*:}
  "${mpi[@]}" -np "${ranks_victim%:*}" "$cli" run big.msh -o big.vf --threads 1 --force > big.out 2>&1 &
  job=$!
  for _ in $(seq 300); do grep -q '% done' big.out && break; sleep 0.1; done
  grep -q '% done' big.out || die "the run never started writing"
  for pid in $(children "$job"); do
    if tr '\0' '\n' < "/proc/$pid/environ" | grep -qx "OMPI_COMM_WORLD_RANK=$victim"; then
      kill -9 "$pid"
    fi
  done
  if wait "$job"; then die "the job of a killed rank $victim succeeded"; fi
  [[ $(sha256sum big.msh big.vf) == "$before" ]] || die "rank $victim killed: files changed"
  [[ $(partials) -eq 0 ]] || die "rank $victim killed: a partial file is left"
done
# Under srun, where a SLURM cluster answers (scripts/slurm-local.sh starts one).
if command -v srun > /dev/null && timeout 10 sinfo -h > /dev/null 2>&1 && srun --mpi=list 2>&1 | grep -q pmix; then
  srun --mpi=pmix -n 3 -O "$cli" run m.msh -o srun.vf --threads 2 > /dev/null
  cmp one-6.vf srun.vf || die "srun, 3 tasks x 2 threads"
  if srun --mpi=none -n 2 -O "$cli" run m.msh -o none.vf 2> err; then die "srun --mpi=none ran"; fi
  [[ $(grep -c 'tasks of a SLURM step without MPI' err) -eq 1 && ! -e none.vf ]] || die "srun --mpi=none: $(cat err)"
fi
echo "all MPI runs passed"
