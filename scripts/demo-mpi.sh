#!/usr/bin/env bash
# An MPI job under the agent: four ranks of which one (2) writes past a
# block. Each rank runs through the launcher, which finds its rank in Open
# MPI's variable; the error is reported by rank 2 alone, every rank writes a
# snapshot named by its rank, and one report merges them.
set -u
build=${1:-build/x86_64}
launcher="$build/qmheap"
job="$build/targets/mpi_heap"
if ! command -v mpirun >/dev/null || [ ! -x "$job" ]; then
  echo "demo-mpi: needs Open MPI (scripts/install-deps.sh installs it) and a build configured with it"
  exit 1
fi
export QMHEAP_CONFIG_FILE=
# The demo may run as root (a container); Open MPI asks for both to agree.
export OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1
dir=$(mktemp -d)
cd "$dir" || exit 1
printf '\n== mpirun -np 4 --oversubscribe qmheap --guards --snapshot-on-error --snapshot-at-exit -- mpi_heap\n'
mpirun -np 4 --oversubscribe "$OLDPWD/$launcher" --guards --snapshot-on-error --snapshot-at-exit -- "$OLDPWD/$job"
printf '\n== the snapshot files, one per rank (and rank 2 at its error)\n'
ls
printf '\n== qmheap report *.lwmdbg\n'
"$OLDPWD/$launcher" report ./*.lwmdbg | head -40
echo "..."
cd "$OLDPWD" && rm -rf "$dir"
